// The sort path of grouping: for columns of many distinct values.
#pragma once

#include "vask/kernel/bat.h"

namespace vask {

//! Groups the rows of `b` by tail value by way of a sorted copy. The head of b must be dense from
//! an oid on: a row's place in the map is worked out from its oid.
//!
//! `ext` comes empty and `grp` with room for all rows; the map's count is left to the caller. A
//! group's id is the smallest oid of its rows, and the extents come in ascending order of id,
//! whatever the timing. Values are compared as numbers: -0.0 and 0.0 are one group.
//!
//! 1 on success. 0 when the tail is stored in no storage class, the kernel has no memory for the
//! copy or the extents, or a row has no place, or the column has a NaN. A NaN is not even in its
//! own group: a run of no rows, which would be appended until no more fit. So it fails at once as
//! that would fail, with "bunfastins: bat too large\n" in the calling thread's error buffer. What
//! ext and grp hold after a failure means nothing. Allocation failures of the working arrays are
//! thrown.
int vask_sort_group(BAT *ext, BAT *grp, BAT *b);

} // namespace vask
