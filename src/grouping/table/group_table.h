// The table of groups by value.
#pragma once

#include "rows/key_table.h"

namespace vask {

//! Of all groups of a column. Nil is a value like any other, floats are the same when their bits
//! are, texts when they read the same.
template <class Kind>
using vask_group_table = key_table<Kind>;

} // namespace vask
