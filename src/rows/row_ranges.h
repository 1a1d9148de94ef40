// Rows cut by the number of threads alone, as grouping, distinct count, grouped order statistics
// and the union do it: contiguous ranges, one per kernel thread.
#pragma once

#include "kernel/bat.h"
#include "rows/gdk_vector.h"

namespace vask {

//! Rows low .. high, both inclusive: never empty, unlike the aggregates' half-open row_range.
struct vask_row_range {
    BUN low;
    BUN high;

    BUN size() const noexcept { return high - low + 1; }
};

//! As many ranges as the kernel has threads, and no more than rows. 0 when either is 0: the roads
//! that cut their rows this way then fail or have nothing to do.
std::uint32_t vask_range_count(const BAT &b) noexcept;

//! The rows of b cut into `ranges` ranges of equal length, in ascending order; the last one takes
//! the remainder of the division. The bounds are positions, b's first row included. `ranges` is at
//! most the number of rows; throws like gdk_vector.
gdk_vector<vask_row_range> vask_row_ranges(const BAT &b, std::uint32_t ranges);

} // namespace vask
