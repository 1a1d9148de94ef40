// What --explain tells: what was loaded, and each call of an operator.
#pragma once

#include "kernel/bat.h"

#include <chrono>
#include <cstdint>
#include <string_view>

namespace vask::runner {

class explain_log {
public:
    explicit explain_log(bool on) noexcept : on_(on) {}

    bool on() const noexcept { return on_; }

    //! One line on standard error. Does nothing when off.
    void note(std::string_view text) const;

    //! Runs `call` and notes its name, the columns it works on, rows, partitions and time.
    template <class Call>
    auto timed(std::string_view name, std::string_view columns, BUN rows, Call call) const {
        const auto begin = std::chrono::steady_clock::now();
        auto result = call();
        if (on_)
            note_call(name, columns, rows, std::chrono::steady_clock::now() - begin);
        return result;
    }

private:
    void note_call(std::string_view name, std::string_view columns, BUN rows,
                   std::chrono::duration<double, std::milli> time) const;

    bool on_;
};

} // namespace vask::runner
