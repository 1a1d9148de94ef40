// Appending a row to a BAT without a kernel call per row.
#pragma once

#include "vask/kernel/bat.h"

namespace vask {

//! One less than "no position", which must never become one.
inline constexpr BUN last_position = NO_BUN - 1;

//! Says in the calling thread's error buffer that a BAT cannot take the rows it was to get.
void record_bat_too_large();

//! Makes room for the row behind the last one. False as vask_bunfastins says.
[[nodiscard]] bool vask_make_room(BAT &b);

//! Appends the row (*head_value, *tail_value) to b, as the kernel's BUNfastins does: grows the BAT
//! where needed, puts variable-sized values into their heap and widens the offsets when the next
//! one does not fit. False when b holds all the rows that a BAT can hold (the kernel's error
//! buffer then has "bunfastins: bat too large\n"), or when the kernel could not grow, widen or put.
//! A failed append does not count the row; what it wrote behind the last row is meaningless.
//! Counts are not changed atomically: one thread at a time appends to a BAT, from any thread.
[[nodiscard]] bool vask_bunfastins(BAT &b, const void *head_value, const void *tail_value);

} // namespace vask
