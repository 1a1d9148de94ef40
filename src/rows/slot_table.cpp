#include "rows/slot_table.h"

#include "kernel/column.h"

#include <algorithm>

namespace vask {

namespace {

// How many ids may lie in the span of the groups' ids for each row to be looked up. Ids are oids of
// rows, so a grouping of the whole column spans at most its rows; one of a selection spans more.
// Only the pages that hold a group's id are ever touched.
constexpr std::uint64_t most_ids_per_row = 8;
// A span that any column may have: a table of it fits into the second-level cache.
constexpr std::uint64_t small_span = 1U << 16;

} // namespace

slot_table_owner::slot_table_owner(const BAT &extents, BUN rows) {
    const BATcol &head = *extents.head;
    const BUN first = extents.info->first;
    const BUN end = end_position(extents);
    if (head.type == TYPE_void || (is_dense(head) && head.seqbase != oid_nil) || first == end)
        return;

    const oid *ids = rows_of<const oid>(head);
    const auto [low, high] = std::minmax_element(ids + first, ids + end);
    const std::uint64_t span = std::uint64_t{*high} - *low + 1;
    if (span > NO_BUN || span > std::max(small_span, rows * most_ids_per_row))
        return;

    // Zeroed by the system page by page, when touched.
    block_.reset(static_cast<BUN *>(std::calloc(span, sizeof(BUN))));
    if (block_ == nullptr)
        return;
    for (BUN p = first; p < end; ++p) {
        BUN &entry = block_[ids[p] - *low];
        if (entry != 0)
            return;
        entry = p + 1;
    }
    table_ = {block_.get(), *low, static_cast<BUN>(span)};
}

} // namespace vask
