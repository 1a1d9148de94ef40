// What --explain tells: what was loaded, and each call of an operator.
#pragma once

#include "vask/kernel/bat.h"

#include "vask/refkernel/errors.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace vask::runner {

class explain_log {
public:
    explicit explain_log(bool on) noexcept : on_(on) {}

    bool on() const noexcept { return on_; }

    //! One line on standard error. Does nothing when off.
    void note(std::string_view text) const;

    //! Runs `call` and notes its name, the columns it works on, rows, how the operator says it went
    //! about them, what `result` tells of the outcome, and time.
    template <class Call, class Result>
    void timed(std::string_view name, std::string_view columns, BUN rows, Call call,
               Result result) const {
        if (!on_) {
            call();
            return;
        }
        const plan_capture plan;
        const auto begin = std::chrono::steady_clock::now();
        call();
        const std::chrono::duration<double, std::milli> time =
            std::chrono::steady_clock::now() - begin;
        note_call(name, columns, rows, plan.told() + std::string(result()), time);
    }

    template <class Call>
    void timed(std::string_view name, std::string_view columns, BUN rows, Call call) const {
        timed(name, columns, rows, call, [] { return ""; });
    }

private:
    //! Asks operators for their plans and collects these, as long as it lives.
    class plan_capture {
    public:
        plan_capture() { GDKdebug |= DEBUG_PLAN; }
        ~plan_capture() { GDKdebug &= ~static_cast<std::uint32_t>(DEBUG_PLAN); }
        plan_capture(const plan_capture &) = delete;
        plan_capture &operator=(const plan_capture &) = delete;

        //! What they told so far, ", " behind each.
        std::string told() const;

    private:
        refkernel::output_capture output_;
    };

    void note_call(std::string_view name, std::string_view columns, BUN rows, std::string_view told,
                   std::chrono::duration<double, std::milli> time) const;

    bool on_;
};

} // namespace vask::runner
