// What --explain tells: what was loaded, and each call of an operator.
#pragma once

#include "kernel/bat.h"

#include "refkernel/instrumentation.h"

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
    //! tells how it went, after the call: from a watch on the call, or without one, which makes the
    //! kernel's operations slower and stands only where it is asked for and somebody wants to know.
    template <class Call, class Road>
    void timed(std::string_view name, std::string_view columns, BUN rows, Call call,
               Road road) const {
        using refkernel::instrumentation::watch;
        constexpr bool watched = std::is_invocable_v<Road, const watch &>;
        std::optional<watch> seen;
        if (on_ && watched)
            seen.emplace();
        const auto begin = std::chrono::steady_clock::now();
        call();
        const std::chrono::duration<double, std::milli> time =
            std::chrono::steady_clock::now() - begin;
        if (!on_)
            return;
        if constexpr (watched)
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
