// A sorted BAT as groups: each run of equal values is one.
#pragma once

#include "grouping/extents_appender.h"
#include "kernel/bat.h"
#include "kernel/column.h"
#include "rows/gdk_vector.h"
#include "rows/row_ranges.h"

#include <algorithm>

namespace vask {

//! Cuts the rows of a sorted BAT into up to n ranges that cut no run of equal values. A long run
//! makes the ranges after it share what is left; one that reaches the end makes fewer than n.
template <class T>
gdk_vector<vask_row_range> vask_split_at_runs(const BAT &copy, std::uint32_t n) {
    gdk_vector<vask_row_range> ranges;
    if (copy.info->count == 0)
        return ranges;
    const T *values = rows_of<const T>(*copy.tail);
    const BUN last = end_position(copy) - 1;
    BUN low = copy.info->first;
    for (std::uint32_t remaining = n; remaining != 0 && low <= last; --remaining) {
        BUN end = low + (last - low) / remaining;
        while (end < last && values[end] == values[end + 1])
            ++end;
        ranges.push_back({low, end});
        low = end + 1;
    }
    return ranges;
}

//! The rows of a dense head by oid, by arithmetic alone. The sort has moved the oids of the copy
//! about, so its head is dense no longer; but its seqbase still tells how the input counted.
struct dense_places {
    oid seqbase;
    BUN first;
    BUN count;

    explicit dense_places(const BAT &b) noexcept
        : seqbase(b.head->seqbase), first(b.info->first), count(b.info->count) {}

    VASK_ALWAYS_INLINE BUN find(oid o) const noexcept {
        if ((o == oid_nil) != (seqbase == oid_nil) || o - seqbase >= count)
            return NO_BUN;
        return first + (o - seqbase);
    }
};

//! Rows ahead of which a place in the map is asked for: the sort has left the places in no order.
inline constexpr BUN rows_ahead = 32;

//! Turns the runs of equal values in a range of the sorted copy into groups: appends a row for each
//! to the BAT in `slot`, which is made if there is none, and writes the map's rows. The range holds
//! no NaN. False when the kernel has no memory, when the slot's BAT is full, or when an oid lies
//! outside the copy's dense numbering. Called from tasks: ranges that hold different rows write
//! different places.
template <class T>
bool vask_group_runs(const BAT &copy, vask_row_range range, BAT *&slot, BAT &grp) {
    if (slot == nullptr)
        slot = BATnew(TYPE_oid, TYPE_wrd, range.size());
    if (slot == nullptr)
        return false;
    extents_appender groups(*slot);
    const dense_places places(copy);
    const T *values = rows_of<const T>(*copy.tail);
    const oid *oids = rows_of<const oid>(*copy.head);
    oid *map_heads = grp.head->type == TYPE_void ? nullptr : rows_of<oid>(*grp.head);
    oid *map = rows_of<oid>(*grp.tail);

    const BUN last_ahead = range.high - std::min(range.high - range.low, rows_ahead);
    for (BUN row = range.low; row <= range.high;) {
        if (row < last_ahead)
            __builtin_prefetch(map + places.first + (oids[row + rows_ahead] - places.seqbase), 1);
        const T value = values[row];
        oid id = oids[row];
        BUN end = row + 1;
        // Equal values come in any order out of the sort: the smallest oid is the same every time.
        for (; end <= range.high && values[end] == value; ++end)
            id = std::min(id, oids[end]);
        if (!groups.append(id, end - row))
            return false;
        for (; row < end; ++row) {
            const BUN place = places.find(oids[row]);
            if (place == NO_BUN)
                return false;
            if (map_heads != nullptr)
                map_heads[place] = oids[row];
            map[place] = id;
        }
    }
    return true;
}

} // namespace vask
