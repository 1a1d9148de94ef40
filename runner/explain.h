// What --explain tells: what was loaded, and each call of an operator.
#pragma once

#include "vask/kernel/bat.h"

#include "vask/refkernel/instrumentation.h"

#include <chrono>
#include <optional>
#include <string_view>
#include <type_traits>

namespace vask::runner {

class explain_log {
public:
    explicit explain_log(bool on) noexcept : on_(on) {}

    bool on() const noexcept { return on_; }

    //! One line on standard error. Does nothing when off.
    void note(std::string_view text) const;

    //! Runs `call` and notes its name, the columns it works on, rows, how it went, and time. `road`
    //! tells how it went, after the call: from what the call asked of the kernel, or without that.
    //! Counting makes the kernel's operations a little slower, so it is done only for roads that
    //! take a counter, and when somebody wants to know.
    template <class Call, class Road>
    void timed(std::string_view name, std::string_view columns, BUN rows, Call call,
               Road road) const {
        using refkernel::instrumentation::call_counter;
        constexpr bool counted = std::is_invocable_v<Road, const call_counter &>;
        std::optional<call_counter> seen;
        if (on_ && counted)
            seen.emplace();
        const auto begin = std::chrono::steady_clock::now();
        call();
        const std::chrono::duration<double, std::milli> time =
            std::chrono::steady_clock::now() - begin;
        if (!on_)
            return;
        if constexpr (counted)
            note_call(name, columns, rows, road(*seen), time);
        else
            note_call(name, columns, rows, road(), time);
    }

private:
    void note_call(std::string_view name, std::string_view columns, BUN rows, std::string_view road,
                   std::chrono::duration<double, std::milli> time) const;

    bool on_;
};

} // namespace vask::runner
