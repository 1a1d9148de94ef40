// Refinement of a grouping that has hardly any groups of several rows left.
#ifndef REFKERNEL_ALGEBRA_DERIVE_LONE_ROWS_H
#define REFKERNEL_ALGEBRA_DERIVE_LONE_ROWS_H

#include "refkernel/algebra/row_groups.h"
#include "vask/refkernel/contract.h"

namespace refkernel::algebra {

//! Refines by the tail of b without a look at the rows that are alone in their old groups: those
//! stay groups, whatever their values are. `parents` are the ids of the rows' old groups. The
//! groups' ids are row numbers. False, and the task is not begun, unless most rows are alone and
//! every row has a group that the extents know. Throws std::bad_alloc.
bool derive_lone_rows(const oid *parents, const BAT &extents, const BAT &b,
                      const grouping_task &task);

} // namespace refkernel::algebra

#endif
