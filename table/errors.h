// Failures of a request on a table. They travel as one exception type to the C interface.
#pragma once

#include "vask/vask.h"

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace vask::table {

class table_error : public std::runtime_error {
public:
    table_error(vask_code code, const std::string &text) : std::runtime_error(text), code_(code) {}
    vask_code code() const noexcept { return code_; }

private:
    vask_code code_;
};

//! A sum of integers that 64 bits do not hold: of which function, column and group.
class sum_overflow : public table_error {
public:
    struct place {
        std::string title;
        const void *column;
        std::optional<std::size_t> first_row; //!< of the group; none: of all rows
    };
    sum_overflow(const std::string &text, place where)
        : table_error(VASK_BAD_DATA, text), where_(std::move(where)) {}

    const place &where() const noexcept { return where_; }

private:
    place where_;
};

//! Throws a table_error. The text says what is wrong, where, and what to do.
template <class... Args>
[[noreturn]] void fail(vask_code code, fmt::format_string<Args...> format, Args &&...args) {
    throw table_error(code, fmt::format(format, std::forward<Args>(args)...));
}

//! Text of strangers, made fit for a message: control bytes shown as such, and not too long.
std::string shown(std::string_view text);

} // namespace vask::table
