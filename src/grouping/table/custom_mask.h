// How large the table of a column's groups is made.
#pragma once

#include "rows/column_keys.h"
#include "vask/kernel/bat.h"

#include <bit>
#include <cstdint>

namespace vask {

//! The values of a column stored as T.
template <class T>
struct value_range {
    T min; // the nil if a row is nil: nil is the least value of the integer types
    T max;
    T least; // min, or if that is the nil, the next value, or the nil if there is no other
};

//! The keys of the values but the nil.
template <class T>
auto span_of(const value_range<T> &values) noexcept {
    using key_type = decltype(key_bits(T{}));
    const key_type least = key_bits(values.least);
    return key_span<key_type>{least, static_cast<key_type>(key_bits(values.max) - least)};
}

//! Reads all of b's tail, in parallel. b has rows. T is bte, sht, int or lng here and below.
template <class T>
value_range<T> scan_values(const BAT &b);

//! The mask of the smallest power of two above n: 2^bitlen(n) - 1.
constexpr std::uint32_t covering_mask(std::uint64_t n) noexcept {
    return static_cast<std::uint32_t>((std::uint64_t{1} << std::bit_width(n)) - 1);
}

//! The mask of the table of b's groups, to make room for as many. Covers the range of the values
//! where that is shorter than the column, else the number of rows. The kernel tells the range of a
//! tail that is marked ascending, others are read. `scratch` becomes what scan_values gives if the
//! tail was read.
template <class T>
std::uint32_t get_custom_mask(BAT *b, value_range<T> *scratch);

} // namespace vask
