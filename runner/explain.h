// What --explain tells: what was loaded, and each call of an operator.
#pragma once

#include "table/operators.h"

#include "vask/kernel/bat.h"

#include "vask/refkernel/errors.h"

#include <string>
#include <string_view>

namespace vask::runner {

class explain_log {
public:
    explicit explain_log(bool on) noexcept : on_(on) {}

    bool on() const noexcept { return on_; }

    //! One line on standard error. Does nothing when off.
    void note(std::string_view text) const;

    //! Notes each call of an operator: its name, the columns it works on, rows, how the operator
    //! says it went about them, the outcome, and time. Nothing when off. The log must outlive it.
    table::operator_set::watcher watcher() const;

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

    bool on_;
};

} // namespace vask::runner
