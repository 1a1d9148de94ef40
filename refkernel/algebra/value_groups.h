// Serial grouping of the rows of a BAT by their values.
#ifndef REFKERNEL_ALGEBRA_VALUE_GROUPS_H
#define REFKERNEL_ALGEBRA_VALUE_GROUPS_H

#include "refkernel/algebra/serial_rows.h"
#include "vask/refkernel/contract.h"

namespace refkernel::algebra {

//! Groups the rows of a BAT whose tail can be keyed or is void; groups are named by what `heads`
//! has for their first rows, and the group of a row is written to `map`. True when the rows of a
//! group are known to lie next to each other. Throws std::bad_alloc.
bool group_values(const BAT &b, oid_reader heads, oid *map, const extents_maker &make_extents);

//! Makes each row a group of its own.
void group_unique_rows(const BAT &b, oid_reader heads, oid *map, const extents_maker &make_extents);

} // namespace refkernel::algebra

#endif
