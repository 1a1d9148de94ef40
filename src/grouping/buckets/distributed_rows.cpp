#include "grouping/buckets/distributed_rows.h"

#include "rows/row_blocks.h"

#include <atomic>
#include <numeric>
#include <utility>

namespace vask {

namespace {

//! Counts the rows of a range by old group and leaves each row's group in its cell. False when a
//! row has none.
bool count_rows(const map_rows &map, const old_groups &groups, vask_row_range range, oid *cells,
                BUN *counts) {
    return all_blocks(range, [&](BUN row, BUN n) {
        std::array<oid, block_rows> room{};
        const oid *ids = find_parents(map, row, n, room.data());
        if (ids == nullptr || !groups.number(ids, n, cells + row))
            return false;
        for (BUN i = 0; i < n; ++i)
            ++counts[cells[row + i]];
        return true;
    });
}

} // namespace

row_distribution::row_distribution(const BAT &b, const BAT &grp, const old_groups &groups,
                                   const gdk_vector<vask_row_range> &ranges)
    : b_(&b),
      grp_(&grp),
      groups_(groups),
      cells_(map_cells(grp, b)),
      ranges_(ranges),
      places_(ranges_.size() * groups.count() + 1) {}

bool row_distribution::find_groups(BAT &map, bool synced) {
    bte failed = 0;
    run_ranges(ranges_, [&, this](std::size_t i, vask_row_range range) {
        if (!count_rows(map_rows(*b_, map, synced), groups_, range, cells_, next_places(i)))
            std::atomic_ref(failed).store(1, std::memory_order_relaxed);
    });
    if (failed == 0)
        turn_counts_into_places();
    return failed == 0;
}

void row_distribution::turn_counts_into_places() noexcept {
    BUN place = 0;
    for (BUN group = 0; group < groups(); ++group)
        for (std::size_t i = 0; i < ranges_.size(); ++i)
            place += std::exchange(next_places(i)[group], place);
}

ordered_extents row_distribution::extents_of(const BAT &ext, const gdk_vector<BUN> &begun,
                                             std::size_t range) const noexcept {
    if (!ids_follow_rows(*b_))
        return {};
    const BUN before = std::accumulate(begun.begin(), begun.begin() + range, BUN{0});
    return {ext, *b_, ranges_[range].low, before, begun[range]};
}

} // namespace vask
