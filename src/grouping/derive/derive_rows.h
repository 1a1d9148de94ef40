// From a row of the column to its old group: the lookups that both roads of refinement share.
#pragma once

#include "kernel/column.h"
#include "rows/oid_lookup.h"
#include "vask/kernel/bat.h"

#include <optional>

namespace vask {

//! Where the rows of `b` stand in the old grouping's map. A plain value, for one task. Making it
//! for heads that are neither aligned nor dense builds the map's hash if there is none, as
//! oid_lookup says.
class map_rows {
public:
    //! `synced`: row i of b is known to belong to row i of the map.
    map_rows(const BAT &b, BAT &map, bool synced)
        : heads_(*b.head, b),
          ids_(*map.tail, map),
          distance_(map.info->first - b.info->first),
          first_(map.info->first),
          count_(map.info->count) {
        if (!synced)
            places_.emplace(map);
    }

    //! The position in the map of the row at a position of b, or NO_BUN.
    VASK_ALWAYS_INLINE BUN find(BUN row) const noexcept {
        if (places_)
            return places_->find(heads_[row]);
        // As a position, which wraps where the map begins before b does. A kernel can call a map
        // aligned that ends before b.
        const BUN place = row + distance_;
        return place - first_ < count_ ? place : NO_BUN;
    }

    //! The map's rows of the n rows from a position of b on, where both belong together one by one;
    //! null where they do not, or where the map does not store them all.
    const oid *aligned_ids(BUN row, BUN n) const noexcept {
        const BUN place = row + distance_;
        const bool held = place - first_ < count_ && n <= count_ - (place - first_);
        return places_ || ids_.stored == nullptr || !held ? nullptr : ids_.stored + place;
    }

    oid id_at(BUN place) const noexcept { return ids_[place]; }

private:
    oid_reader heads_;
    oid_reader ids_;
    BUN distance_;
    BUN first_;
    BUN count_;
    std::optional<oid_lookup> places_;
};

VASK_ALWAYS_INLINE BUN vask_find_map_row(const map_rows &map, BUN row) noexcept {
    return map.find(row);
}

//! The old grouping as the rows of a column see it. Plain values, for any number of tasks.
class old_grouping {
public:
    old_grouping(const BAT &b, BAT &map, bool synced) : b_(&b), map_(&map), synced_(synced) {}

    //! Ids of the old groups of the rows row .. row + n - 1 of b: in the map itself, or found and
    //! put into `room`; null when one of the rows has no place in the map. Builds the map's hash if
    //! it is needed and missing.
    const oid *ids(BUN row, BUN n, oid *room) const {
        const map_rows map(*b_, *map_, synced_);
        if (const oid *aligned = map.aligned_ids(row, n))
            return aligned;
        for (BUN i = 0; i < n; ++i) {
            const BUN place = vask_find_map_row(map, row + i);
            if (place == NO_BUN)
                return nullptr;
            room[i] = map.id_at(place);
        }
        return room;
    }

private:
    const BAT *b_;
    BAT *map_;
    bool synced_;
};

} // namespace vask
