// Single values in messages.
#pragma once

#include "table/column.h"

namespace vask::table {

//! The value of a row as text; "null" for a missing one.
std::string value_text(const column &of, std::size_t row);

} // namespace vask::table
