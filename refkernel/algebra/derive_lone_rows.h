// Refinement of a grouping that has hardly any groups of several rows left.
#ifndef REFKERNEL_ALGEBRA_DERIVE_LONE_ROWS_H
#define REFKERNEL_ALGEBRA_DERIVE_LONE_ROWS_H

#include "refkernel/algebra/serial_rows.h"
#include "vask/refkernel/contract.h"

namespace refkernel::algebra {

//! Refines by the tail of b without a look at the rows that are alone in their old groups: those
//! stay groups, whatever their values are. `parents` are the ids of the rows' old groups. The
//! groups' ids are positions. False, and nothing is written, unless most rows are alone and
//! every row has a group that the extents know. Throws std::bad_alloc.
bool derive_lone_rows(const oid *parents, const BAT &extents, const BAT &b, oid *map,
                      const extents_maker &make_extents);

} // namespace refkernel::algebra

#endif
