// Counting the different values of each group by a bit for each value that it may have.
#pragma once

#include "rows/group_of_row.h"
#include "rows/key_window.h"

#include <concepts>
#include <cstdint>
#include <optional>
#include <type_traits>

namespace vask {

//! The window of b's values, nil beside it, if a bit for each group and value of it is worth its
//! memory in each of `nranges` tasks. b has rows.
template <std::signed_integral T>
std::optional<key_window<std::make_unsigned_t<T>>> window_for_bits(const BAT &b, BUN groups,
                                                                   std::uint64_t nranges);

//! Stores the number of different values that b, a column of T with all its values in the window,
//! has in each group. False when the extents lack a group or rows cannot be found; bad_alloc when
//! there is no memory.
template <std::signed_integral T>
bool count_by_window(const grouped_rows &inputs, const slot_table *table, std::uint64_t nranges,
                     key_window<std::make_unsigned_t<T>> window, wrd *counts);

} // namespace vask
