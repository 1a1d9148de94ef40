// Which of the ways a grouping takes.
#pragma once

#include "rows/group_by_buckets.h"
#include "rows/group_by_index.h"
#include "rows/group_by_table.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>

namespace vask {

//! Where keys that index an array, of so many indices, are grouped by it. With more the arrays of
//! the ranges leave the caches, and with fewer rows than that clearing them costs more than the
//! rows.
inline bool suits_index(std::uint64_t bound, BUN rows, std::size_t ranges) noexcept {
    constexpr std::uint64_t most_indices = std::uint64_t{1} << 19;
    return bound <= std::min<std::uint64_t>(most_indices, rows / ranges + 2);
}

//! What a grouping offers the ways. Key tells values apart by its bits, though a value can have
//! several; Kind tells them apart for good.
template <class Key, class Kind>
struct grouping_keys {
    explicit grouping_keys(const Kind &kind_of_keys) : kind(kind_of_keys) {}
    grouping_keys() : grouping_keys(Kind{}) {}

    std::optional<index_source> index;
    bool one_index_per_value = true;
    key_loader<Key> load;
    group_resolver resolve;
    Kind kind;
    key_loader<typename Kind::key_type> load_for_buckets;
};

//! Groups rows: by index where there is one, else by tables, and by buckets where there are too
//! many keys for those. Throws like gdk_vector.
template <class Key, class Kind>
grouping_outcome group_rows(const grouping_rows &rows, const grouping_keys<Key, Kind> &keys,
                            const group_sink &sink) {
    if (keys.index)
        return group_by_index(rows, *keys.index,
                              keys.one_index_per_value ? group_resolver() : keys.resolve, sink);
    const grouping_outcome outcome = group_by_table(rows, keys.load, keys.resolve, sink);
    return outcome == grouping_outcome::too_many_keys
               ? group_by_buckets(rows, keys.kind, keys.load_for_buckets, sink)
               : outcome;
}

} // namespace vask
