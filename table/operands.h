// Columns in the form in which an operator takes them.
#pragma once

#include "table/answer.h"
#include "table/column.h"
#include "table/groups.h"

#include <cstdint>
#include <span>
#include <vector>

namespace vask::table {

/*
 * Numbers as dbl, missing ones as its nil; decimals divided by their scale. Operators add up flt in
 * flt, which holds 24 bits: one by one, 2e7 ones come to 16,777,216. The number that is the nil of
 * dbl becomes its neighbour, 2 parts in 1e16 off.
 */
refkernel::bat as_doubles(const column &of, const numbers &values);

double power_of_ten(int scale);

//! The mean of values with `scale` digits behind the point, from their sum as whole numbers.
double scaled_mean(wide_integer sum, lng count, int scale);

//! The nearest whole number, halves away from 0.
lng rounded_quotient(wide_integer sum, lng count);

//! The values without the missing ones, of which there are some, marked free of nils. `present` has
//! by row 1 for a value; where it is empty, a missing one is the nil.
refkernel::bat present_values(const refkernel::bat &values, std::span<const std::uint8_t> present,
                              std::uint64_t missing);

//! The rows of a group map that go with present_values, aligned with `aligned`, which is its
//! result.
refkernel::bat map_of_present(const refkernel::bat &values, std::span<const std::uint8_t> present,
                              std::uint64_t missing, const refkernel::bat &map,
                              const refkernel::bat &aligned);

} // namespace vask::table
