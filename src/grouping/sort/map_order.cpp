#include "grouping/sort/map_order.h"

#include "kernel/frame.h"
#include "rows/gdk_vector.h"

#include <algorithm>
#include <utility>

namespace vask {

namespace {

// Rows that are walked at a time: enough to make the list of where each block begins short.
constexpr BUN block_rows = 1 << 14;

constexpr BUN block_count(BUN rows) noexcept {
    return rows / block_rows + (rows % block_rows != 0);
}

} // namespace

bool map_order::pays(BUN groups, BUN rows) noexcept {
    // The walk reads the whole map twice, however few its groups are. It costs as much as a sort of
    // about so many times fewer groups.
    constexpr BUN map_rows_per_sorted_group = 16;
    constexpr BUN sorted_at_once = 1 << 14;
    return groups > sorted_at_once && groups > rows / map_rows_per_sorted_group;
}

void map_order::note(const oid *ids, const wrd *counts, BUN n) const {
    run_row_loop(n, [=, to = counts_, seqbase = seqbase_](row_range r) {
        for (BUN i = r.begin; i < r.end; ++i)
            to[ids[i] - seqbase] = static_cast<BUN>(counts[i]);
    });
}

void map_order::write(oid *ids, wrd *counts) const {
    gdk_vector<BUN> starts(block_count(rows_));
    const auto block = [this](BUN k) {
        return row_range{k * block_rows, std::min(rows_, (k + 1) * block_rows)};
    };
    run_row_loop(block_count(rows_), [&, map = *this](row_range blocks) {
        for (BUN k = blocks.begin; k < blocks.end; ++k) {
            BUN leaders = 0;
            for (BUN row = block(k).begin, end = block(k).end; row < end; ++row)
                leaders += map.leads(row);
            starts[k] = leaders;
        }
    });
    BUN place = 0;
    for (BUN &start : starts)
        place += std::exchange(start, place);
    run_row_loop(block_count(rows_), [&, map = *this](row_range blocks) {
        for (BUN k = blocks.begin; k < blocks.end; ++k) {
            BUN to = starts[k];
            for (BUN row = block(k).begin, end = block(k).end; row < end; ++row) {
                if (!map.leads(row))
                    continue;
                ids[to] = map.map_[row];
                counts[to] = map.counts_[row];
                ++to;
            }
        }
    });
}

} // namespace vask
