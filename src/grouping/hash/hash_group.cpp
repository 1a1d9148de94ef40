#include "grouping/hash/hash_group.h"

#include "grouping/extents_room.h"
#include "grouping/map_heads.h"
#include "grouping/table/custom_mask.h"
#include "grouping/table/group_table.h"
#include "kernel/column.h"
#include "rows/column_keys.h"
#include "rows/group_rows.h"

#include <limits>
#include <optional>

namespace vask {

namespace {

//! A grouping of a column that is about to be made.
struct hash_grouping {
    BAT &ext;
    BAT &grp;
    BAT &b;
    const grouping_rows &rows;
    std::uint32_t mask; // of the table of all groups

    BUN count() const noexcept { return b.info->count; }
};

//! Finds groups in the table of all. Ranges come in ascending order, so a value's first row in the
//! whole column decides its group's id and place in the extents.
template <class T, class Keys>
group_resolver resolver(const hash_grouping &g, const Keys &keys,
                        std::optional<vask_group_table<T>> &groups) {
    return [&g, &groups, keys](BUN row, std::uint32_t) {
        if (!groups)
            groups.emplace(g.mask);
        const T value = keys.value(row);
        const std::uint32_t hash = vask_group_entry<T>::hash(value);
        const vask_group_entry<T> *known = groups->probe(value, hash);
        return known != nullptr ? groups->number_of(known)
                                : groups->insert({value, g.rows.heads[row], 0, NO_BUN, hash});
    };
}

//! Keys that lie between `least` and `least` + `span`, one other aside.
template <class Keys, class Key = typename Keys::key_type>
std::optional<index_source> index_of(const hash_grouping &g, const Keys &keys, Key least,
                                     Key span) {
    // The widest span of 64 bits leaves no room for the other key.
    if (span >= NO_BUN || !suits_index(std::uint64_t{span} + 2, g.count(), g.rows.ranges.size()))
        return std::nullopt;
    const key_window<Key> window{least, static_cast<std::uint32_t>(span)};
    // Reading narrow keys twice costs less than counting and writing at one go.
    return index_source{window.places(), load_indices(keys, window), sizeof(Key) < sizeof(oid)};
}

//! The groups go to the extents.
template <class Key, class Kind>
int group(const hash_grouping &g, const grouping_keys<Key, Kind> &keys) {
    extents_room room(g.ext);
    if (group_rows(g.rows, keys, sink_into(room)) != grouping_outcome::done || !room.finish())
        return 0;
    copy_heads(g.b, g.grp, g.rows.ranges);
    g.ext.head->sorted = sorted_mark(*g.b.head);
    g.ext.tail->sorted = 0;
    return 1;
}

template <class T>
int group_numbers(const hash_grouping &g, std::optional<value_range<T>> values) {
    using key_type = std::conditional_t<sizeof(T) == 8, std::uint64_t, std::uint32_t>;
    const number_keys<T> column(*g.b.tail);
    std::optional<vask_group_table<T>> groups;
    grouping_keys<key_type, bit_keys<key_type>> keys;
    if (values)
        keys.index = index_of(
            g, column, key_bits(values->least),
            static_cast<decltype(key_bits(T{}))>(key_bits(values->max) - key_bits(values->least)));
    keys.load = keys.load_for_buckets = load_keys<key_type>(column);
    keys.resolve = resolver<T>(g, column, groups);
    return group(g, keys);
}

//! Equal texts can lie at several places of the heap: by index and by table they are grouped by
//! those first, and then by what they read.
template <class Offset>
int group_texts(const hash_grouping &g, const offset_keys<Offset> &column) {
    std::optional<vask_group_table<str>> groups;
    grouping_keys<std::uint32_t, text_content_keys<std::uint64_t>> keys({text_reader(*g.b.tail)});
    const key_span<Offset> span = span_of_offsets(column, g.rows);
    keys.index = index_of(g, column, span.least, span.span);
    keys.one_index_per_value = false;
    keys.load = load_keys<std::uint32_t>(column);
    keys.load_for_buckets = load_texts(column, hash_of_span(column, span));
    keys.resolve = resolver<str>(g, column, groups);
    return group(g, keys);
}

} // namespace

template <class T>
int vask_hash_group(BAT *ext, BAT *grp, BAT *b) {
    // Asked once: the kernel's setting may change during the call.
    const std::uint32_t nranges = vask_range_count(*b);
    if (nranges == 0)
        return 0;
    std::uint32_t mask = covering_mask(b->info->count);
    std::optional<value_range<T>> values;
    if constexpr (std::integral<T>) {
        mask = get_custom_mask<T>(b, &values.emplace());
        // What the kernel tells of an ascending tail is good for a mask, which no result depends
        // on.
        if (is_ascending(*b->tail))
            values = scan_values<T>(*b);
    }
    const gdk_vector<vask_row_range> ranges = vask_row_ranges(*b, nranges);
    const grouping_rows rows{{ranges, run_as_tasks}, oid_reader(*b->head, *b), map_cells(*grp, *b)};
    const hash_grouping g{*ext, *grp, *b, rows, mask};
    if constexpr (std::same_as<T, str>)
        return visit_offset_keys(*b->tail,
                                 [&](const auto &column) { return group_texts(g, column); });
    else
        return group_numbers<T>(g, values);
}

template int vask_hash_group<bte>(BAT *, BAT *, BAT *);
template int vask_hash_group<sht>(BAT *, BAT *, BAT *);
template int vask_hash_group<std::int32_t>(BAT *, BAT *, BAT *);
template int vask_hash_group<lng>(BAT *, BAT *, BAT *);
template int vask_hash_group<flt>(BAT *, BAT *, BAT *);
template int vask_hash_group<dbl>(BAT *, BAT *, BAT *);
template int vask_hash_group<str>(BAT *, BAT *, BAT *);

} // namespace vask
