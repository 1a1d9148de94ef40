// Ranges of rows, and the cut by the number of threads alone that grouping, distinct count, grouped
// order statistics and the union use: contiguous ranges, one per kernel thread.
#pragma once

#include "rows/gdk_vector.h"
#include "vask/kernel/bat.h"

#include <cstddef>
#include <functional>

namespace vask {

//! Positions begin .. end - 1.
struct vask_row_range {
    BUN begin;
    BUN end;

    BUN size() const noexcept { return end > begin ? end - begin : 0; }
};

//! As many ranges as the kernel has threads, and no more than rows. 0 when either is 0: the paths
//! that cut their rows this way then fail or have nothing to do.
std::uint32_t vask_range_count(const BAT &b) noexcept;

//! Tells the plan of a call that cuts the rows of b so.
void tell_ranges(const BAT &b);

//! The rows of b cut into `ranges` ranges of equal length, in ascending order; the last one takes
//! the remainder of the division. The bounds are positions, b's first row included. `ranges` is at
//! most the number of rows; throws like gdk_vector.
gdk_vector<vask_row_range> vask_row_ranges(const BAT &b, std::uint32_t ranges);

//! The i-th of n ranges of about equal length.
inline vask_row_range share_of(vask_row_range rows, std::uint64_t i, std::uint64_t n) noexcept {
    const std::uint64_t size = rows.size();
    return {rows.begin + static_cast<BUN>(size * i / n),
            rows.begin + static_cast<BUN>(size * (i + 1) / n)};
}

//! Runs `task(i)` for the numbers 0 .. n - 1, in any order or at once, and waits for all.
using task_runner = void (*)(std::size_t n, const std::function<void(std::size_t)> &task);

//! Rows in ranges, and how what is done to them is run: by tasks in the operators, in a serial
//! kernel one after another.
struct ranged_rows {
    //! Ascending and without gaps; at least one.
    const gdk_vector<vask_row_range> &ranges;
    task_runner run;

    vask_row_range all() const noexcept { return {ranges[0].begin, ranges[ranges.size() - 1].end}; }

    //! Runs `task(number, range)` for every range.
    template <class Task>
    void run_ranges(const Task &task) const {
        run(ranges.size(), [&](std::size_t i) { task(i, ranges[i]); });
    }

    //! Runs `task(range)` for 0 .. n - 1, cut into as many ranges.
    template <class Task>
    void run_shares(std::size_t n, const Task &task) const {
        const vask_row_range whole{0, static_cast<BUN>(n)};
        run(ranges.size(), [&](std::size_t i) { task(share_of(whole, i, ranges.size())); });
    }
};

} // namespace vask
