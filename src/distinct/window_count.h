// Counting the different values of each group by a bit for each value that it may have.
#pragma once

#include "rows/group_of_row.h"

#include <cstdint>
#include <optional>

namespace vask {

//! Stores the number of different values that b has in each group, if it holds integers that lie so
//! close together that a bit for each group and value is worth its memory in each of `nranges`
//! tasks; else nothing. b has rows. False when the extents lack a group or rows cannot be found;
//! bad_alloc when there is no memory.
std::optional<bool> count_by_window(const grouped_rows &inputs, const slot_table *table,
                                    std::uint64_t nranges, wrd *counts);

} // namespace vask
