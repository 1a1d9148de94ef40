// Serial grouping of the rows of a column by their values.
#ifndef REFKERNEL_ALGEBRA_VALUE_GROUPS_H
#define REFKERNEL_ALGEBRA_VALUE_GROUPS_H

#include "refkernel/algebra/row_groups.h"
#include "vask/refkernel/contract.h"

namespace refkernel::algebra {

//! Most entries of a table that this many rows can afford.
std::uint64_t affordable_entries(BUN rows);
//! Most entries of a table indexed by value that pay for this many rows.
std::uint64_t index_bound_worth(BUN rows);

//! Groups the rows of a column of any type that can be keyed or is void; the group of a row is
//! written to `map`, counted from the first row. True when the rows of a group are known to lie
//! next to each other. Throws std::bad_alloc.
bool group_values(const BATcol &column, const BATinfo &info, row_ids ids, oid *map,
                  const extents_maker &make_extents);

//! Makes each row a group of its own.
void group_unique_rows(const grouping_task &task);

} // namespace refkernel::algebra

#endif
