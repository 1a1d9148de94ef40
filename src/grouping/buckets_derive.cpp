#include "grouping/buckets_derive.h"

#include "grouping/distributed_rows.h"
#include "grouping/map_order.h"
#include "grouping/refined_groups.h"
#include "grouping/sort_bat.h"

#include <new>
#include <stdexcept>

namespace vask {

namespace {

//! Puts the extents into the order of their ids.
void sort_groups(BAT &ext, const BAT &grp, const BAT &b, BUN *scratch) {
    const BUN rows = b.info->count;
    if (is_dense(*b.head) && b.head->seqbase != oid_nil && map_order::pays(ext.info->count, rows)) {
        oid *ids = rows_of<oid>(*ext.head) + ext.info->first;
        wrd *counts = rows_of<wrd>(*ext.tail) + ext.info->first;
        const map_order order(rows_of<const oid>(*grp.tail) + grp.info->first, rows,
                              b.head->seqbase, scratch);
        order.note(ids, counts, ext.info->count);
        order.write(ids, counts);
    }
    vask_sort_bat<wrd, BUNviewHeadComparator>(&ext);
    ext.head->sorted = SORTED_ASCENDING;
    ext.tail->sorted = 0;
}

template <class T>
bool derive(BAT &grp, BAT &ext, BAT &b, BAT &map, BAT &histo, bool synced) {
    row_distribution distribution(b, grp, histo);
    if (!distribution.find_groups(map, histo, synced))
        return false;
    const gdk_block<distributed_row<T>> rows(gdk_allocate<distributed_row<T>>(b.info->count));
    distribution.write_rows([ values = value_column<T>(*b.tail),
                              to = rows.get() ](BUN place, BUN row) __attribute__((always_inline)) {
        to[place] = {row, values.stored(row)};
    });
    if (!refine_groups<T>(distribution, rows.get(), b, ext))
        return false;
    distribution.write_back([rows = rows.get()](BUN place)
                                __attribute__((always_inline)) { return rows[place].position; });
    // The rows are not needed any more: their memory serves as room for the counts.
    sort_groups(ext, grp, b, reinterpret_cast<BUN *>(rows.get()));
    return true;
}

} // namespace

template <class T>
int vask_buckets_derive(BAT *grp, BAT *ext, BAT *b, BAT *map, BAT *histo, bool synced) {
    try {
        return derive<T>(*grp, *ext, *b, *map, *histo, synced) ? 1 : 0;
    } catch (const std::bad_alloc &) {
        return 0;
    } catch (const std::length_error &) {
        return 0;
    }
}

template int vask_buckets_derive<bte>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_buckets_derive<sht>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_buckets_derive<std::int32_t>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_buckets_derive<lng>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_buckets_derive<flt>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_buckets_derive<dbl>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_buckets_derive<str>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);

} // namespace vask
