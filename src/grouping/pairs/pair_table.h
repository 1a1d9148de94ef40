// The table of refined groups: by old group and new value.
#pragma once

#include "rows/key_table.h"

namespace vask {

//! Of all pairs. Unlike in the table of groups, numbers are the same when they compare equal, and
//! texts when they lie at one place of the heap.
template <class Kind>
using vask_pair_table = key_table<Kind>;

} // namespace vask
