// Refinement where old groups and values make few pairs.
#pragma once

#include "vask/kernel/bat.h"

namespace vask {

//! Splits the groups of (`map`, `histo`) by the values of b's tail. `synced` says that row i of b
//! and row i of the map belong together; otherwise rows are found by their head oids. b has rows.
//! `ext` comes empty and gets a row (oid of the new group's first row, number of rows) per new
//! group in order of first occurrence; `grp` comes with room for b's rows and gets its memory
//! written, not its count.
//!
//! Numbers are compared as numbers: -0.0 and 0.0 go together, and every row with a NaN is a group
//! of its own. Texts are compared by place: equal text that the heap holds twice makes two groups.
//! Nil is a value like any other.
//!
//! 1 on success; 0 when the tail is stored in no storage class and not as text, when a row of b has
//! no row in the map, when the kernel has no threads or when `ext` could not grow. The result does
//! not depend on the number of threads. Allocation failures pass as exceptions; a failing build of
//! the map's hash ends the process.
int vask_pairs_derive(BAT *grp, BAT *ext, BAT *b, BAT *map, BAT *histo, bool synced);

} // namespace vask
