// Different values of a whole column.
#pragma once

#include "table/column.h"

#include <cstdint>
#include <optional>

namespace vask::table {

//! How many different values a column of integers holds, nils aside. Nothing where a bit for each
//! number within its bounds is not worth the memory, or where the column holds no integers.
std::optional<std::uint64_t> different_within(const refkernel::bat &values, value_bounds bounds);

} // namespace vask::table
