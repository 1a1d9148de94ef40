// The new map of a grouping under the head of its column.
#pragma once

#include "kernel/column.h"
#include "rows/range_tasks.h"

#include <cstring>

namespace vask {

//! The cells of the new map, to be indexed by the positions of b's rows.
inline oid *map_cells(const BAT &grp, const BAT &b) noexcept {
    return rows_of<oid>(*grp.tail) + grp.info->first - b.info->first;
}

//! Gives the rows of the new map the heads of b, unless those are void.
inline void copy_heads(const BAT &b, const BAT &grp, const gdk_vector<vask_row_range> &ranges) {
    if (grp.head->type == TYPE_void)
        return;
    run_ranges(ranges, [&](std::size_t, vask_row_range range) {
        std::memcpy(rows_of<oid>(*grp.head) + grp.info->first + (range.begin - b.info->first),
                    rows_of<const oid>(*b.head) + range.begin, range.size() * sizeof(oid));
    });
}

//! Completes a map and extents that come in the order of their first rows.
inline void finish_in_row_order(const BAT &b, const BAT &grp, BAT &ext,
                                const gdk_vector<vask_row_range> &ranges) {
    copy_heads(b, grp, ranges);
    ext.head->sorted = sorted_mark(*b.head);
    ext.tail->sorted = 0;
}

} // namespace vask
