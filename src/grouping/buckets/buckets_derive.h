// Refinement where old groups and values make many pairs.
#pragma once

#include "vask/kernel/bat.h"

namespace vask {

//! Splits the groups of (`map`, `histo`) by the values of b's tail. `synced` says that row i of b
//! and row i of the map belong together; otherwise rows are found by their head oids. `ext` comes
//! empty and gets a row (oid of the new group's first row, number of rows) per new group in
//! ascending order of oid; `grp` comes with room for b's rows and gets its memory written, not its
//! count.
//!
//! Floats are compared by their bits: -0.0 and 0.0 are two groups, and equal NaNs are one. Texts
//! are compared by what they read. Nil is a value like any other.
//!
//! 1 on success; 0 when the tail is stored in no storage class and not as text, when a row of b has
//! no row in the map, when a row's old group is not in the histogram, when a row could not be
//! appended to `ext`, or when there is no memory: unlike on the other paths no exception passes.
//! The result does not depend on the number of threads. A failing build of the map's hash ends the
//! process.
int vask_buckets_derive(BAT *grp, BAT *ext, BAT *b, BAT *map, BAT *histo, bool synced);

} // namespace vask
