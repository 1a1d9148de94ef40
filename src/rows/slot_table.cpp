#include "rows/slot_table.h"

#include "kernel/column.h"
#include "kernel/hostile.h"

#include <algorithm>

namespace vask {

namespace {

// The system gives a page, and zeroes it, when it is first touched.
constexpr int page_shift = 10; // ids of 4096 bytes

// What a table costs is the pages that it touches, when it is made (2.5 µs each where the system
// has to give them) and by missing the caches in lookups; what it gains is a walk by hash for each
// row of a task. Grouped sum of ids in random order, ms of processor time, by hash and by table:
//
//      rows   groups   pages   hash  table        rows   groups   pages   hash  table
//       1e6    1e3       990    7.3    1.9         1e7    1e2       100     68      8
//       1e6    1e4       980    6.1    1.5         1e7    3e3      2900     65     24
//       1e6    4e4      7700    7.0    3.7         1e7    1e4      6300     61     39
//       1e6    1e6      1000     27     11         1e7    1e4      9400     62     59
//       1e6    1e6      7700     35     23         1e7    4e4      9600     73     63
//       4e6    3e3      2800     24     14         1e7    4e4     31000     70    155
//       4e6    1e4      8500     25     33         1e7    1e5      9800     99     81
//       4e6    4e4      3900     28      9         1e7    1e5     56000     99    216
//       4e6    4e4     22000     29     87         1e7    3e5      9800     89    117
//       4e6    1e5     30000     41    100         1e7    1e6      9800    440    198
//       4e6    1e6     31000    147    154         1e7    1e6     77000    445    412
//
// So a task has to have a thousand rows for each page. Then the table takes no more memory than the
// group map, either.
constexpr std::uint64_t most_touched_per_row = 1;
// Where no more ids than a cache line holds fall to a group, lookups touch no more lines than by
// hash.
constexpr std::uint64_t most_touched_per_group = 16;
// A table that fits into the second-level cache.
constexpr std::uint64_t small_span = unless_hostile<std::uint64_t>(1U << 16, 1);
// A bound on address space. Ids are oids of rows: a grouping of the whole column spans at most its
// rows, one of a selection spans more.
constexpr std::uint64_t most_ids_per_row = 8;

//! The least id, how far they go, and for how many there is room in the pages that they touch.
struct id_spread {
    oid low;
    std::uint64_t span;
    std::uint64_t touched;
};

//! Of at least one id. Those that do not ascend can touch fewer.
id_spread spread_of(const oid *ids, BUN n) noexcept {
    oid low = ids[0];
    oid high = ids[0];
    BUN changes = 0;
    for (BUN i = 1; i < n; ++i) {
        low = std::min(low, ids[i]);
        high = std::max(high, ids[i]);
        changes += (ids[i] >> page_shift) != (ids[i - 1] >> page_shift);
    }
    const std::uint64_t span = std::uint64_t{high} - low + 1;
    return {low, span, std::min(span, (std::uint64_t{changes} + 1) << page_shift)};
}

} // namespace

slot_table_owner::slot_table_owner(const BAT &extents, BUN rows, std::uint64_t tasks) {
    const BATcol &head = *extents.head;
    const BUN first = extents.info->first;
    const BUN end = end_position(extents);
    if (head.type == TYPE_void || (is_dense(head) && head.seqbase != oid_nil) || first == end)
        return;

    const oid *ids = rows_of<const oid>(head);
    const auto [low, span, touched] = spread_of(ids + first, end - first);
    if (span > NO_BUN || span > std::max(small_span, rows * most_ids_per_row))
        return;
    if (touched > std::max({small_span, rows / tasks * most_touched_per_row,
                            (end - first) * most_touched_per_group}))
        return;

    // Zeroed by the system page by page, when touched.
    block_.reset(static_cast<BUN *>(std::calloc(span, sizeof(BUN))));
    if (block_ == nullptr)
        return;
    for (BUN p = first; p < end; ++p) {
        BUN &entry = block_[ids[p] - low];
        if (entry != 0)
            return;
        entry = p + 1;
    }
    table_ = {block_.get(), low, static_cast<BUN>(span)};
}

} // namespace vask
