// Work that is cancelled from outside.
#pragma once

#include <exception>

#include <tbb/task_group.h>

namespace vask {

//! What ends an operator whose work was cancelled: by a caller who ran it within a task group of
//! its own and cancelled that. Like any exception that passes an operator, it loses references.
class work_cancelled : public std::exception {
public:
    const char *what() const noexcept override { return "the work was cancelled"; }
};

//! Throws work_cancelled once the work around this call was cancelled. Tasks then end early or
//! never begin, and what they were to write is not there, so this follows each wait for tasks. Long
//! loops call it now and then.
inline void end_if_cancelled() {
    if (tbb::is_current_task_group_canceling())
        throw work_cancelled();
}

} // namespace vask
