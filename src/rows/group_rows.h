// Which of the ways a grouping takes.
#pragma once

#include "kernel/hostile.h"
#include "rows/group_by_buckets.h"
#include "rows/group_by_index.h"
#include "rows/group_by_table.h"
#include "rows/key_table.h"

#include <algorithm>
#include <cstdint>
#include <memory>

namespace vask {

//! What a grouping offers the ways. Key tells values apart by its bits, though a value can have
//! several; Kind tells them apart for good.
template <class Key, class Kind>
struct grouping_keys {
    explicit grouping_keys(const Kind &kind_of_keys) : kind(kind_of_keys) {}
    grouping_keys() : grouping_keys(Kind{}) {}

    index_source index; // can be empty
    bool one_index_per_value = true;
    key_loader<Key> load;
    group_resolver resolve;
    Kind kind;
    key_loader<typename Kind::key_type> load_for_buckets;
};

//! Finds groups in a Table of them, by keys that tell values apart for good. `foreseen`: how many
//! groups there may be.
template <template <class> class Table = key_table, class Kind>
group_resolver resolve_by_keys(const Kind &kind, const key_loader<typename Kind::key_type> &load,
                               std::size_t foreseen = 0) {
    // More grow it in time; most groupings come without a table.
    constexpr std::size_t most_foreseen = std::size_t{1} << 14;
    std::shared_ptr<Table<Kind>> table;
    return [=](BUN row, std::uint32_t) mutable {
        if (table == nullptr)
            table = std::make_shared<Table<Kind>>(kind, 0, std::min(foreseen, most_foreseen));
        typename Kind::key_type key;
        std::uint32_t note;
        // The row has a key: it has been loaded before.
        static_cast<void>(load(row, 1, &note, &key, false));
        return table->find_or_add(key);
    };
}

//! Groups rows: by an index that the caches hold; else by tables, if there are few keys; else by a
//! larger index, or by buckets. Throws like gdk_vector.
template <class Key, class Kind>
grouping_outcome group_rows(const grouping_rows &rows, const grouping_keys<Key, Kind> &keys,
                            const group_sink &sink) {
    switch (forced_way()) {
        case grouping_way::best:
            break;
        case grouping_way::index:
            if (keys.index && keys.index.bound <= (std::uint32_t{1} << 22))
                return group_by_index(rows, keys.index,
                                      keys.one_index_per_value ? group_resolver() : keys.resolve,
                                      sink);
            break;
        case grouping_way::table:
            return group_by_table(rows, keys.load, keys.resolve, sink);
        case grouping_way::buckets:
            return group_by_buckets(rows, keys.kind, keys.load_for_buckets, sink);
    }
    // Texts of several places are resolved by their first rows: with a table as much, but slower.
    // A single range has one array, which costs less than a table up to 32 MiB. A larger one, used
    // throughout, is slower than buckets: 27 against 22 ns a row for 1e7 different values.
    const bool one_range = rows.ranges.size() == 1;
    const std::uint32_t cached_indices = std::uint32_t{1} << (one_range                  ? 22
                                                              : keys.one_index_per_value ? 18
                                                                                         : 19);
    const group_resolver resolve_indices =
        keys.one_index_per_value ? group_resolver() : keys.resolve;
    if (keys.index && keys.index.bound <= cached_indices)
        return group_by_index(rows, keys.index, resolve_indices, sink);
    const grouping_outcome outcome = group_by_table(rows, keys.load, keys.resolve, sink);
    if (outcome != grouping_outcome::too_many_keys)
        return outcome;
    // Values of several indices are resolved one by one, on one thread.
    return keys.index && keys.one_index_per_value && !one_range
               ? group_by_index(rows, keys.index, resolve_indices, sink)
               : group_by_buckets(rows, keys.kind, keys.load_for_buckets, sink);
}

} // namespace vask
