// A column's values as doubles.
#pragma once

#include "vask/embed.h"

#include <vector>

namespace side_by_side {

//! The values of a column of any numeric type; a nil reads as NaN.
std::vector<double> numbers_of(const refkernel::bat &column);

} // namespace side_by_side
