// A scope after which the kernel must hold what it held before.
#pragma once

#include "vask/embed.h"

#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace support {

//! Stands before everything in its scope that holds a BAT.
class leak_guard {
public:
    leak_guard() = default;
    //! `context` is printed with a failure.
    template <class T>
    explicit leak_guard(const T &context) {
        std::ostringstream text;
        text << context;
        context_ = text.str();
    }
    leak_guard(const leak_guard &) = delete;
    leak_guard &operator=(const leak_guard &) = delete;
    ~leak_guard() { EXPECT_EQ(before_.leaks(), "") << context_; }

private:
    refkernel::checkpoint before_;
    std::string context_;
};

} // namespace support
