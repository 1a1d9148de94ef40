// Arrow arrays of fixed width as columns of the kernel.
#pragma once

#include "table/column.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace vask::table {

//! The values of pieces that hold no texts. One piece in the kernel's own form is borrowed,
//! anything else copied, which is told. Throws table_error for indices that their dictionary does
//! not have.
numbers numbers_of(const std::vector<piece> &given, std::size_t rows, const value_type &type,
                   const std::string &name, const teller &tell);

//! The values of one piece without nulls that lie in the kernel's own form, without a look at them:
//! one that equals the nil is to be found by whoever reads them. Else nothing.
std::optional<refkernel::bat> numbers_as_they_lie(const std::vector<piece> &given, std::size_t rows,
                                                  const value_type &type);

//! The same with each NaN as a missing value.
numbers without_nan(const numbers &all);

} // namespace vask::table
