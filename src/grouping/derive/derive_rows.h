// From a row of the column to its old group: the lookups that both roads of refinement share.
#pragma once

#include "kernel/bat.h"
#include "kernel/column.h"
#include "rows/oid_lookup.h"
#include "rows/row_ranges.h"

#include <cstring>
#include <optional>

namespace vask {

//! Where the rows of `b` stand in the old grouping's map. A plain value, for one task. Making it
//! for heads that are neither aligned nor dense builds the map's hash if there is none, as
//! oid_lookup says.
class map_rows {
public:
    //! `synced`: row i of b is known to belong to row i of the map.
    map_rows(const BAT &b, BAT &map, bool synced)
        : heads_(*b.head, b), ids_(*map.tail, map), distance_(map.info->first - b.info->first) {
        if (!synced)
            places_.emplace(map);
    }

    //! The position in the map of the row at a position of b, or NO_BUN.
    VASK_ALWAYS_INLINE BUN find(BUN row) const noexcept {
        return places_ ? places_->find(heads_[row]) : row + distance_;
    }

    //! The map's rows of the rows from a position of b on, where both belong together one by one;
    //! null where they do not, or where a void map stores none.
    const oid *aligned_ids(BUN row) const noexcept {
        // As a position, which wraps where the map begins before b does.
        const BUN place = row + distance_;
        return places_ || ids_.stored == nullptr ? nullptr : ids_.stored + place;
    }

    oid id_at(BUN place) const noexcept { return ids_[place]; }

private:
    oid_reader heads_;
    oid_reader ids_;
    BUN distance_;
    std::optional<oid_lookup> places_;
};

VASK_ALWAYS_INLINE BUN vask_find_map_row(const map_rows &map, BUN row) noexcept {
    return map.find(row);
}

//! The old groups of the rows row .. row + n - 1 of b: in the map itself, or found and put into
//! `room`; null when one of the rows has no place in the map.
inline const oid *find_parents(const map_rows &map, BUN row, BUN n, oid *room) noexcept {
    if (const oid *aligned = map.aligned_ids(row))
        return aligned;
    for (BUN i = 0; i < n; ++i) {
        const BUN place = vask_find_map_row(map, row + i);
        if (place == NO_BUN)
            return nullptr;
        room[i] = map.id_at(place);
    }
    return room;
}

//! The position of an old group in the old extents, or NO_BUN.
VASK_ALWAYS_INLINE BUN vask_find_histo_row(const oid_lookup &histo, oid group) noexcept {
    return histo.find(group);
}

//! The cells of the new map, to be indexed by the positions of b's rows.
inline oid *map_cells(const BAT &grp, const BAT &b) noexcept {
    return rows_of<oid>(*grp.tail) + grp.info->first - b.info->first;
}

//! Gives the rows of a range the heads of b in the new map, unless those are void.
inline void copy_heads(const BAT &b, const BAT &grp, vask_row_range range) noexcept {
    if (grp.head->type != TYPE_void)
        std::memcpy(rows_of<oid>(*grp.head) + grp.info->first + (range.low - b.info->first),
                    rows_of<const oid>(*b.head) + range.low, range.size() * sizeof(oid));
}

} // namespace vask
