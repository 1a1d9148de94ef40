// How many buckets the table of a column's groups gets.
#pragma once

#include "vask/kernel/bat.h"

#include <cstdint>

namespace vask {

//! The values of a column stored as T.
template <class T>
struct value_range {
    T min; // the nil if a row is nil: nil is the least value of the integer types
    T max;
    T least; // min, or if that is the nil, the next value, or the nil if there is no other
};

//! Reads all of b's tail, in parallel. b has rows. T is bte, sht, int or lng here and below.
template <class T>
value_range<T> scan_values(const BAT &b);

//! The bucket mask for the groups of b's tail. Covers the range of the values where that is shorter
//! than the column, else the number of rows. The kernel tells the range of a tail that is marked
//! ascending, others are read. `scratch` becomes what scan_values gives if the
//! tail was read.
template <class T>
std::uint32_t get_custom_mask(BAT *b, value_range<T> *scratch);

} // namespace vask
