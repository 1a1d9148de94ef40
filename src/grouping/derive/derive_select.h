// Which path a refinement takes.
#pragma once

#include "vask/kernel/bat.h"

#include <cstdint>

namespace vask {

enum vask_derive_strategy : std::uint8_t {
    VASK_DERIVE_SERIAL = 0,  // the kernel's own GRPderive
    VASK_DERIVE_PAIRS = 1,   // few pairs of old group and value, as a sample tells
    VASK_DERIVE_BUCKETS = 2, // many pairs
    VASK_DERIVE_FAILED = 3   // the sample could not be taken or grouped
};

//! The path for refining the grouping (`map`, `histo`) by the column `b`, by their sizes and by the
//! distinct values in a sample of b. Tells the plan. Leaves no reference behind, except that of the
//! sample's map when the sample's histogram cannot be fetched.
vask_derive_strategy vask_derive_select(BAT *b, const BAT *map, const BAT *histo);

} // namespace vask
