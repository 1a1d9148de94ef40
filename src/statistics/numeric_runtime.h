// The hook to a numeric runtime with replaceable allocators. No routine of it is used here: where
// it is part of the process, the order statistics hand it the kernel's memory, so that what it
// takes is counted, and let it drop what it keeps for a thread when a statistic asks for that.
#pragma once

#include "vask/kernel/bat.h"

namespace vask {

//! Set by a statistic that leaves the numeric runtime with buffers to drop. None does.
using stat_flag = bte;

#if defined(VASK_NUMERIC_RUNTIME_HOOKS)

//! Stores the kernel's allocators into the runtime's process-wide hooks. Always the same values, so
//! overlapping calls do no harm.
void use_kernel_memory_in_numeric_runtime();

//! Lets the runtime drop the calling thread's buffers if the flag is set.
void drop_numeric_buffers_if(stat_flag flag);

#else

inline void use_kernel_memory_in_numeric_runtime() {}
inline void drop_numeric_buffers_if(stat_flag) {}

#endif

} // namespace vask
