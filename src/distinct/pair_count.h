// Counting the different values of each group by pairs of group and value, which are different once
// and for all: of any kind, in any number of groups of any size.
#pragma once

#include "rows/group_of_row.h"

#include <cstdint>

namespace vask {

//! Adds the number of different values that b, a column of numbers or texts, has in each group to
//! `counts`. The rows are cut into `nranges` ranges, at least 1 and at most one per row. False when
//! the extents lack a group or rows cannot be found; bad_alloc when there is no memory.
bool count_by_pairs(const grouped_rows &inputs, const slot_table *table, std::uint64_t nranges,
                    wrd *counts);

} // namespace vask
