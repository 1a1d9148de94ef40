// A sorted BAT as groups: each run of equal values is one.
#pragma once

#include "grouping/bunfastins.h"
#include "kernel/column.h"
#include "rows/gdk_vector.h"
#include "rows/row_ranges.h"
#include "vask/kernel/bat.h"

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
    const BUN end = end_position(copy);
    BUN begin = copy.info->first;
    for (std::uint32_t remaining = n; remaining != 0 && begin < end; --remaining) {
        BUN to = begin + (end - 1 - begin) / remaining + 1;
        while (to < end && values[to - 1] == values[to])
            ++to;
        ranges.push_back({begin, to});
        begin = to;
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
    const dense_places places(copy);
    const T *values = rows_of<const T>(*copy.tail);
    const oid *oids = rows_of<const oid>(*copy.head);
    oid *map_heads = grp.head->type == TYPE_void ? nullptr : rows_of<oid>(*grp.head);
    oid *map = rows_of<oid>(*grp.tail);

    for (BUN row = range.begin; row < range.end;) {
        const T value = values[row];
        oid id = oids[row];
        BUN end = row + 1;
        // Equal values come in any order out of the sort: the smallest oid is the same every time.
        for (; end < range.end && values[end] == value; ++end)
            id = std::min(id, oids[end]);
        const wrd count = end - row;
        if (!vask_bunfastins(*slot, &id, &count))
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
