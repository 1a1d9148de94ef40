// Grouping in order of first occurrence: for columns of few different values and for texts.
#pragma once

#include "vask/kernel/bat.h"

namespace vask {

//! Groups the rows of b by equal tail value. `ext` comes empty and gets a row (oid of the group's
//! first row, number of rows) per group in order of first occurrence; `grp` comes with room for b's
//! rows and gets its memory written, not its count. Nil is a value like any other; floats are equal
//! when their bits are. b's rows begin at position 0. 1 on success; 0 if the tail is stored in no
//! storage class and not as text, if the kernel has no threads or `ext` could not grow. The result
//! does not depend on the number of threads. Allocation failures pass as exceptions.
int vask_hash_group(BAT *ext, BAT *grp, BAT *b);

} // namespace vask
