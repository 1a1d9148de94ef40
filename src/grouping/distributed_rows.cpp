#include "grouping/distributed_rows.h"

#include <atomic>
#include <utility>

namespace vask {

namespace {

//! Counts the rows of a range by old group and leaves each row's group in its cell. False when a
//! row has none.
bool count_rows(const BAT &b, BAT &map, BAT &histo, bool synced, vask_row_range range, oid *cells,
                BUN *counts) {
    const map_rows places(b, map, synced);
    const oid_lookup groups(histo);
    const oid *group_ids = rows_of<const oid>(*map.tail);
    const BUN first_group = histo.info->first;
    for (BUN row = range.low; row <= range.high; ++row) {
        const BUN place = vask_find_map_row(places, row);
        if (place == NO_BUN)
            return false;
        const BUN group = vask_find_histo_row(groups, group_ids[place]);
        if (group == NO_BUN)
            return false;
        cells[row] = group - first_group;
        ++counts[group - first_group];
    }
    return true;
}

} // namespace

row_distribution::row_distribution(const BAT &b, const BAT &grp, const BAT &histo)
    : b_(&b),
      grp_(&grp),
      cells_(map_cells(grp, b)),
      groups_(histo.info->count),
      ranges_(vask_row_ranges(b, vask_range_count(b))),
      places_(ranges_.size() * groups_ + 1) {}

bool row_distribution::find_groups(BAT &map, BAT &histo, bool synced) {
    if (ranges_.empty())
        return b_->info->count == 0;
    bte failed = 0;
    run_ranges(ranges_, [&, this](std::size_t i, vask_row_range range) {
        if (!count_rows(*b_, map, histo, synced, range, cells_, next_places(i)))
            std::atomic_ref(failed).store(1, std::memory_order_relaxed);
    });
    if (failed == 0)
        turn_counts_into_places();
    return failed == 0;
}

void row_distribution::turn_counts_into_places() noexcept {
    BUN place = 0;
    for (BUN group = 0; group < groups_; ++group)
        for (std::size_t i = 0; i < ranges_.size(); ++i)
            place += std::exchange(next_places(i)[group], place);
}

} // namespace vask
