// Sums of whole numbers that 64 bits may not hold.
#pragma once

#include "table_loader.h"

#include "vask/embed.h"

#include <unordered_map>

namespace vask::runner {

__extension__ using wide_integer = __int128;

//! Whether the values are whole numbers so large and so many that some sum of them may not be a
//! lng, of which the nil is none. Timestamps and floating-point numbers have no such sum.
bool sum_may_leave_lng(const table_column &column);

//! The exact sum of each group of whole numbers that has a value, by the group's id. `map` is null
//! for whole columns, whose id is 0.
std::unordered_map<oid, wide_integer> exact_sums(const table_column &column,
                                                 const refkernel::bat *map);

} // namespace vask::runner
