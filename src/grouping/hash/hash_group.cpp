#include "grouping/hash/hash_group.h"

#include "grouping/extents_room.h"
#include "grouping/map_heads.h"
#include "grouping/table/custom_mask.h"
#include "grouping/table/group_table.h"
#include "kernel/column.h"
#include "kernel/element_types.h"
#include "rows/column_keys.h"
#include "rows/group_rows.h"

#include <optional>

namespace vask {

namespace {

//! A grouping of a column that is about to be made.
struct hash_grouping {
    BAT &ext;
    BAT &grp;
    BAT &b;
    const grouping_rows &rows;
};

//! The groups go to the extents. Ranges come in ascending order, so a value's first row in the
//! whole column decides its group's id and place in the extents. `mask`: of the table of all
//! groups.
template <class Key, class Kind>
int group(const hash_grouping &g, grouping_keys<Key, Kind> &keys, std::uint32_t mask) {
    extents_room room(g.ext);
    keys.resolve = resolve_by_keys<vask_group_table>(keys.kind, keys.load_for_buckets, mask);
    if (group_rows(g.rows, keys, sink_into(room)) != grouping_outcome::done || !room.finish())
        return 0;
    finish_in_row_order(g.b, g.grp, g.ext, g.rows.ranges);
    return 1;
}

template <class T>
int group_numbers(const hash_grouping &g) {
    using key_type = value_bits<T>;
    const number_keys<T> column(*g.b.tail);
    grouping_keys<key_type, bit_keys<key_type>> keys;
    std::uint32_t mask = covering_mask(g.b.info->count);
    if constexpr (std::integral<T>) {
        value_range<T> values;
        mask = get_custom_mask<T>(&g.b, &values);
        // What the kernel tells of an ascending tail is good for a mask, which no result depends
        // on.
        if (is_ascending(*g.b.tail))
            values = scan_values<T>(g.b);
        keys.index = index_of_keys(column, span_of(values), g.rows);
    }
    keys.load = keys.load_for_buckets = load_keys<key_type>(column);
    return group(g, keys, mask);
}

//! Equal texts can lie at several places of the heap: by index and by table they are grouped by
//! those first, and then by what they read.
template <class Offset>
int group_texts(const hash_grouping &g, const offset_keys<Offset> &column) {
    grouping_keys<std::uint32_t, text_content_keys<std::uint64_t>> keys({text_reader(*g.b.tail)});
    const key_span<Offset> span = span_of_offsets(column, g.rows);
    keys.index = index_of_keys(column, span, g.rows);
    keys.one_index_per_value = false;
    keys.load = load_keys<std::uint32_t>(column);
    keys.load_for_buckets = load_texts(column, hash_of_span(column, span));
    return group(g, keys, covering_mask(g.b.info->count));
}

} // namespace

int vask_hash_group(BAT *ext, BAT *grp, BAT *b) {
    // Asked once: the kernel's setting may change during the call.
    const std::uint32_t nranges = vask_range_count(*b);
    if (nranges == 0)
        return 0;
    const gdk_vector<vask_row_range> ranges = vask_row_ranges(*b, nranges);
    const grouping_rows rows{{ranges, run_as_tasks}, oid_reader(*b->head, *b), map_cells(*grp, *b)};
    const hash_grouping g{*ext, *grp, *b, rows};
    return visit_keyed_class(storage_of(*b->tail), 0, [&]<class T>(std::type_identity<T>) {
        if constexpr (std::same_as<T, str>)
            return visit_offset_keys(*b->tail,
                                     [&](const auto &column) { return group_texts(g, column); });
        else
            return group_numbers<T>(g);
    });
}

} // namespace vask
