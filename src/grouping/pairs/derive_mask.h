// How large the table of pairs is made.
#pragma once

#include "vask/kernel/bat.h"

#include <cstdint>

namespace vask {

//! The mask of the table of all pairs of old group and value: estimated from the refinement of a
//! sample of b where b is large, else from the number of old groups. 0 when the sample
//! cannot be refined.
std::uint32_t vask_derive_mask(BAT *map, BAT *histo, BAT *b);

} // namespace vask
