// Rows worked on in blocks whose notes stay in the first-level cache.
#pragma once

#include "kernel/cancelled.h"
#include "kernel/hostile.h"
#include "rows/row_ranges.h"
#include "vask/kernel/bat.h"

#include <algorithm>

namespace vask {

//! Rows that are worked on at one go.
inline constexpr BUN block_rows = unless_hostile<BUN>(1024, 2);

//! Calls `body(row, n)` for each block row .. row + n - 1 of the rows, until the work is cancelled.
template <class Body>
void for_each_block(vask_row_range rows, Body body) {
    for (BUN row = rows.begin; row < rows.end; row += std::min(block_rows, rows.end - row)) {
        end_if_cancelled();
        body(row, std::min(block_rows, rows.end - row));
    }
}

//! The same while the body gives true. False when it has given false.
template <class Body>
bool all_blocks(vask_row_range rows, Body body) {
    for (BUN row = rows.begin; row < rows.end; row += std::min(block_rows, rows.end - row)) {
        end_if_cancelled();
        if (!body(row, std::min(block_rows, rows.end - row)))
            return false;
    }
    return true;
}

} // namespace vask
