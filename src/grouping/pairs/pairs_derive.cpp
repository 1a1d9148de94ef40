#include "grouping/pairs/pairs_derive.h"

#include "grouping/derive/derived_keys.h"
#include "grouping/extents_room.h"
#include "grouping/map_heads.h"
#include "grouping/pairs/derive_mask.h"
#include "grouping/pairs/pair_table.h"
#include "kernel/element_types.h"

namespace vask {

namespace {

//! A refinement that is about to be made.
struct pair_refinement {
    BAT &ext;
    BAT &grp;
    const BAT &b;
    const grouping_rows &rows;
    const grouped_rows &old;
    std::uint32_t mask; // of the table of all pairs
};

//! Ranges come in ascending order, so a pair's first row in the whole column decides its group's id
//! and place in the extents.
template <class Key>
int refine(const pair_refinement &r, grouping_keys<Key, bit_keys<Key>> &keys) {
    extents_room room(r.ext);
    grouping_outcome outcome = grouping_outcome::row_without_key;
    // A row whose old group the extents lack has no index. It is refined like any other: by its id.
    if (keys.index)
        outcome = group_by_index(r.rows, keys.index, {}, sink_into(room));
    if (outcome == grouping_outcome::row_without_key) {
        keys.index = {};
        keys.resolve = resolve_by_keys<vask_pair_table>(keys.kind, keys.load, r.mask);
        outcome = group_rows(r.rows, keys, sink_into(room));
    }
    if (outcome != grouping_outcome::done || !room.finish())
        return 0;
    finish_in_row_order(r.b, r.grp, r.ext, r.rows.ranges);
    return 1;
}

template <class T>
int refine_numbers(const pair_refinement &r, const groups_by_row &groups) {
    using key_type = numbered_key<value_bits<T>>;
    const number_keys<T> column(*r.b.tail);
    grouping_keys<key_type, bit_keys<key_type>> keys;
    if constexpr (std::floating_point<T>) {
        keys.load = load_derived_by_number(groups_by_id{&r.old}, column);
    } else {
        keys.index = index_of_integers<T>(groups, r.b, r.rows);
        keys.load = load_derived<value_bits<T>>(groups_by_id{&r.old}, column);
    }
    keys.load_for_buckets = keys.load;
    return refine(r, keys);
}

template <class Offset>
int refine_texts(const pair_refinement &r, const groups_by_row &groups,
                 const offset_keys<Offset> &texts) {
    grouping_keys<std::uint64_t, bit_keys<std::uint64_t>> keys;
    keys.index = index_of_pairs(groups, texts, span_of_offsets(texts, r.rows), r.rows);
    keys.load = keys.load_for_buckets = load_derived<std::uint32_t>(groups_by_id{&r.old}, texts);
    return refine(r, keys);
}

} // namespace

int vask_pairs_derive(BAT *grp, BAT *ext, BAT *b, BAT *map, BAT *histo, bool synced) {
    const std::uint32_t threads = vask_range_count(*b);
    const int storage = storage_of(*b->tail);
    if (threads == 0 || !has_keyed_class(storage))
        return 0;
    const gdk_vector<vask_row_range> ranges = vask_row_ranges(*b, threads);
    const std::uint32_t mask = vask_derive_mask(map, histo, b);
    const grouping_rows rows{{ranges, run_as_tasks}, oid_reader(*b->head, *b), map_cells(*grp, *b)};
    const grouped_rows old{b, map, histo, synced ? map_order::in_step : map_order::by_head};
    const slot_table_owner table(*histo, b->info->count, threads);
    const groups_by_row groups{&old, table.get()};
    const pair_refinement r{*ext, *grp, *b, rows, old, mask};
    return visit_keyed_class(storage, 0, [&]<class T>(std::type_identity<T>) {
        if constexpr (std::same_as<T, str>)
            return visit_offset_keys(
                *b->tail, [&](const auto &texts) { return refine_texts(r, groups, texts); });
        else
            return refine_numbers<T>(r, groups);
    });
}

} // namespace vask
