// What callers of the distinct count can know of how it goes about its groups.
#pragma once

#include "vask/kernel/bat.h"

namespace vask {

//! Of more groups than that the kernel's refinement takes care, on one thread.
inline constexpr BUN most_groups_counted_in_parallel = 1'000'000;

} // namespace vask
