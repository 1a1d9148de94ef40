#include "grouping/buckets/buckets_derive.h"

#include "grouping/buckets/spin_lock.h"
#include "grouping/derive/derived_keys.h"
#include "grouping/map_heads.h"
#include "grouping/sort/sort_bat.h"
#include "kernel/element_types.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <stdexcept>

namespace vask {

namespace {

//! A refinement that is about to be made.
struct refinement {
    BAT &ext;
    const BAT &b;
    const grouping_rows &rows;
    groups_by_row groups;
};

//! Appends new groups to the extents, one batch at a time: the kernel's append can move their
//! memory, so nothing of it may run beside another. Batches come in any order; where ids are
//! ascending in row order, the rows are put in that order afterwards.
class appended_groups {
public:
    appended_groups(BAT &ext, const BAT &b) : ext_(ext), b_(b) {}

    group_sink sink() {
        group_sink sink;
        sink.take = [this](std::size_t, const new_group *groups, std::size_t n) {
            const std::lock_guard guard(ext_lock_);
            return std::all_of(groups, groups + n, [this](const new_group &group) {
                const wrd count = group.count;
                return BUNfastins(&ext_, &group.id, &count) != nullptr;
            });
        };
        sink.make_room = [this](BUN, extents_rows &rows) {
            if (is_dense(*b_.head) && b_.head->seqbase != oid_nil)
                rows = {rows_of<oid>(*ext_.head) + ext_.info->first,
                        rows_of<wrd>(*ext_.tail) + ext_.info->first};
            return true;
        };
        return sink;
    }

private:
    BAT &ext_;
    const BAT &b_;
    spin_then_sleep_lock ext_lock_;
};

template <class Key, class Kind>
bool refine(const refinement &r, grouping_keys<Key, Kind> &keys) {
    keys.resolve = resolve_by_keys(keys.kind, keys.load_for_buckets);
    appended_groups appended(r.ext, r.b);
    return group_rows(r.rows, keys, appended.sink()) == grouping_outcome::done;
}

template <class T>
bool refine_numbers(const refinement &r) {
    using key_type = numbered_key<value_bits<T>>;
    grouping_keys<key_type, bit_keys<key_type>> keys;
    if constexpr (std::integral<T>)
        keys.index = index_of_integers<T>(r.groups, r.b, r.rows);
    keys.load = keys.load_for_buckets =
        load_derived<value_bits<T>>(r.groups, number_keys<T>(*r.b.tail));
    return refine(r, keys);
}

//! Equal texts can lie at several places of the heap.
template <class Offset>
bool refine_texts(const refinement &r, const offset_keys<Offset> &texts) {
    grouping_keys<std::uint64_t, text_content_keys<wide_key>> keys({text_reader(*r.b.tail)});
    const key_span<Offset> span = span_of_offsets(texts, r.rows);
    keys.index = index_of_pairs(r.groups, texts, span, r.rows);
    keys.one_index_per_value = false;
    keys.load = load_derived<std::uint32_t>(r.groups, texts);
    keys.load_for_buckets = load_derived_texts(r.groups, texts, hash_of_span(texts, span));
    return refine(r, keys);
}

bool derive(BAT &grp, BAT &ext, BAT &b, BAT &map, BAT &histo, bool synced) {
    const int storage = storage_of(*b.tail);
    if (!has_keyed_class(storage))
        return false;
    if (b.info->count != 0) {
        const gdk_vector<vask_row_range> ranges = vask_row_ranges(b, vask_range_count(b));
        if (ranges.empty() || histo.info->count == 0)
            return false;
        const grouped_rows old{&b, &map, &histo, synced ? map_order::in_step : map_order::by_head};
        const slot_table_owner table(histo, b.info->count, ranges.size());
        const grouping_rows rows{{ranges, run_as_tasks}, oid_reader(*b.head, b), map_cells(grp, b)};
        const refinement r{ext, b, rows, {&old, table.get()}};
        if (!visit_keyed_class(storage, false, [&]<class T>(std::type_identity<T>) {
                if constexpr (std::same_as<T, str>)
                    return visit_offset_keys(
                        *b.tail, [&r](const auto &texts) { return refine_texts(r, texts); });
                else
                    return refine_numbers<T>(r);
            }))
            return false;
        copy_heads(b, grp, ranges);
    }
    // In order already where ids follow the rows.
    vask_sort_bat<wrd, BUNviewHeadComparator>(&ext);
    ext.head->sorted = SORTED_ASCENDING;
    ext.tail->sorted = 0;
    return true;
}

} // namespace

int vask_buckets_derive(BAT *grp, BAT *ext, BAT *b, BAT *map, BAT *histo, bool synced) {
    try {
        return derive(*grp, *ext, *b, *map, *histo, synced) ? 1 : 0;
    } catch (const std::bad_alloc &) {
        return 0;
    } catch (const std::length_error &) {
        return 0;
    }
}

} // namespace vask
