// Which values of a column occur in another.
#pragma once

#include "table/answer.h"

namespace vask::table {

//! A column of booleans called `contained`, null where `left` is. Numbers compare by value; types
//! that do not compare are refused by table_error.
result_column contained(const column &left, const column &right);

} // namespace vask::table
