#include "grouping/pairs_derive.h"

#include "grouping/derive_mask.h"
#include "grouping/derive_rows.h"
#include "grouping/extents_appender.h"
#include "grouping/pair_table.h"
#include "grouping/range_tasks.h"
#include "grouping/value_column.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>

namespace vask {

namespace {

template <class T>
VASK_ALWAYS_INLINE bool is_nan(const T &value) noexcept {
    if constexpr (std::floating_point<T>)
        return value != value;
    else
        return false;
}

//! The table of a range's rows. Each row's cell of the new map receives the number of the row's
//! entry, so that writing the map need not look for it a second time. Sets `failed` and ends early
//! when a row has no place in the old map.
template <class T>
vask_pair_table<T> vask_pairs_build(const BAT &b, BAT &map, vask_row_range range, bool synced,
                                    std::uint32_t mask, std::size_t capacity, oid *cells,
                                    bte &failed) {
    vask_pair_table<T> table(mask, capacity);
    const map_rows places(b, map, synced);
    const oid *parents = rows_of<const oid>(*map.tail);
    const oid_reader heads(*b.head, b);
    const value_column<T> values(*b.tail);
    for (BUN row = range.low; row <= range.high; ++row) {
        const BUN place = vask_find_map_row(places, row);
        if (place == NO_BUN) {
            std::atomic_ref(failed).store(1, std::memory_order_relaxed);
            return table;
        }
        const oid parent = parents[place];
        const T value = values.value(values.stored(row));
        if (is_nan(value)) {
            // Equal to nothing, so there is nothing to look for, and in a chain it would only be in
            // the way of all the others.
            cells[row] = table.append({parent, value, heads[row], 1, NO_BUN});
            continue;
        }
        vask_pair_entry<T> *entry = table.probe({parent, value});
        if (entry != nullptr) {
            ++entry->count;
            cells[row] = static_cast<oid>(entry - table.entries().begin());
        } else {
            cells[row] = table.insert({parent, value, heads[row], 1, NO_BUN});
        }
    }
    return table;
}

//! Merges a range's table into that of all rows. Its entries take on the ids of their groups.
template <class T>
void merge(vask_pair_table<T> &global, vask_pair_table<T> &local) {
    for (vask_pair_entry<T> &entry : local.entries()) {
        if (is_nan(entry.value)) {
            global.append(entry);
        } else if (vask_pair_entry<T> *known = global.probe(entry.key())) {
            known->count += entry.count;
            entry.first_oid = known->first_oid;
        } else {
            global.insert(entry);
        }
    }
    local.release_buckets();
}

//! Turns the entry numbers of a range's rows into group ids, and copies the head.
template <class T>
void vask_pairs_write(const BAT &b, BAT &grp, vask_row_range range,
                      const vask_pair_table<T> &local) {
    gdk_vector<oid> ids;
    ids.reserve(local.entries().size());
    for (const vask_pair_entry<T> &entry : local.entries())
        ids.push_back(entry.first_oid);
    oid *cells = map_cells(grp, b);
    for (BUN row = range.low; row <= range.high; ++row)
        cells[row] = ids[cells[row]];
    copy_heads(b, grp, range);
}

template <class T>
bool append_groups(BAT &ext, const vask_pair_table<T> &global) {
    extents_appender groups(ext);
    return std::all_of(global.entries().begin(), global.entries().end(),
                       [&](const vask_pair_entry<T> &entry) {
                           return groups.append(entry.first_oid, entry.count);
                       });
}

} // namespace

template <class T>
int vask_pairs_derive(BAT *grp, BAT *ext, BAT *b, BAT *map, BAT *histo, bool synced) {
    const std::uint32_t threads = vask_range_count(*b);
    if (threads == 0)
        return 0;
    const gdk_vector<vask_row_range> ranges = vask_row_ranges(*b, threads);
    const std::uint32_t global_mask = vask_derive_mask(map, histo, b);
    // About one part in `threads` of the buckets each.
    const std::uint32_t local_mask =
        std::max(global_mask >> (std::bit_width(threads) - 1), std::uint32_t{1});
    const std::size_t local_capacity = histo->info->count / threads;

    gdk_vector<vask_pair_table<T>> locals(threads);
    bte failed = 0;
    run_ranges(ranges, [=, &locals, &failed](std::size_t i, vask_row_range range) {
        locals[i] = vask_pairs_build<T>(*b, *map, range, synced, local_mask, local_capacity,
                                        map_cells(*grp, *b), failed);
    });
    if (failed != 0)
        return 0;

    std::size_t total = 0;
    for (const vask_pair_table<T> &local : locals)
        total += local.entries().size();
    vask_pair_table<T> global(global_mask, total);
    for (vask_pair_table<T> &local : locals)
        merge(global, local);
    run_ranges(ranges, [=, &locals](std::size_t i, vask_row_range range) {
        vask_pairs_write<T>(*b, *grp, range, locals[i]);
    });

    if (!append_groups(*ext, global))
        return 0;
    ext->head->sorted = sorted_mark(*b->head);
    ext->tail->sorted = 0;
    return 1;
}

template int vask_pairs_derive<bte>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_pairs_derive<sht>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_pairs_derive<std::int32_t>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_pairs_derive<lng>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_pairs_derive<flt>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_pairs_derive<dbl>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_pairs_derive<str>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);

} // namespace vask
