// Failures that the user can mend. They travel as one exception type to main, which prints the
// message and ends with the exit status for a wrong request or wrong data.
#pragma once

#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace vask::runner {

class user_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

//! Throws a user_error. The message says where the fault lies, what it is and what to do.
template <class... Args>
[[noreturn]] void fail(fmt::format_string<Args...> format, Args &&...args) {
    throw user_error(fmt::format(format, std::forward<Args>(args)...));
}

//! A name that no column has.
class unknown_column : public user_error {
public:
    using user_error::user_error;
};

} // namespace vask::runner
