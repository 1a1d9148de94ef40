// The end of a grouping and of a refinement: marks, alignment, hand-over.
#pragma once

#include "vask/kernel/bat.h"

namespace vask {

//! Completes a map and its extents and hands both to the caller of the exported function: sets the
//! map's count to b's, sets the marks that follow from what a grouping is (ids unique in the
//! extents; unique in the map too when every row is a group), makes both read-only. The marks of
//! order in the extents are the typed bodies' affair. `grp` and `ext` may be replaced by the
//! kernel's seal; their numbers are to be read afterwards. False when one of them cannot be made
//! read-only: both are then still the caller's, to be given back.
bool vask_group_finish(BAT *&grp, BAT *&ext, BAT *b);

} // namespace vask
