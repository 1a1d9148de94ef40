// Which path a grouping takes.
#pragma once

#include "vask/kernel/bat.h"

#include <cstdint>

namespace vask {

enum vask_group_strategy : std::uint8_t {
    VASK_GROUP_FAILED = 0, // the sample could not be taken or grouped
    VASK_GROUP_SORT = 1,   // many distinct values, dense head
    VASK_GROUP_HASH = 2,   // few distinct values, or texts
    VASK_GROUP_SERIAL = 3  // the kernel's own GRPgroup
};

//! Looks at b's marks, its size and, where these do not decide, at the number of groups in a sample
//! of it. Three kernel settings, GDKgroup_algo_select_..., take part; they are read once in the
//! life of the process. Tells the plan. Leaves no reference behind, except what a failing kernel
//! operation loses. Safe from any thread.
vask_group_strategy vask_group_select(BAT *b);

} // namespace vask
