// From the rows of a column to their groups: a row's position in the group map, which tells the
// group's id, and the id's slot in the extents.
#pragma once

#include "kernel/column.h"
#include "rows/oid_lookup.h"
#include "rows/row_blocks.h"
#include "rows/slot_table.h"

#include <array>
#include <cstdint>
#include <optional>

namespace vask {

//! How the rows of a map belong to those of a column.
enum class map_order : std::uint8_t {
    in_step,  // one by one
    by_head,  // by equal heads, in any order; the map has every row, and its hash may be built
    ascending // by equal heads that ascend in both; the map can lack rows
};

//! A column, its group map, and the groups, whose ids stand in the head of the extents.
struct grouped_rows {
    BAT *b;
    BAT *map;
    BAT *extents;
    map_order order;
};

//! Finds the rows of a column in the map. For one task; `ascending` asks for rows that ascend, too.
class map_rows {
public:
    //! Looks up the map's head for by_head, as oid_lookup says.
    explicit map_rows(const grouped_rows &in)
        : order_(in.order),
          heads_(*in.b->head, *in.b),
          ids_(*in.map->tail, *in.map),
          map_heads_(*in.map->head, *in.map),
          distance_(in.map->info->first - in.b->info->first),
          first_(in.map->info->first),
          end_(end_position(*in.map)),
          cursor_(first_) {
        if (order_ == map_order::by_head)
            lookup_.emplace(*in.map);
        if (order_ == map_order::ascending)
            dense_ = is_dense(*in.map->head) && in.map->head->seqbase != oid_nil;
    }

    //! The position in the map of the row at a position of the column, or NO_BUN.
    VASK_ALWAYS_INLINE BUN find(BUN row) noexcept {
        if (order_ == map_order::in_step)
            return checked(row + distance_);
        if (order_ == map_order::by_head)
            return lookup_->find(heads_[row]);
        const oid head = heads_[row];
        if (dense_) // a head near the greatest oid does not begin anew at 0
            return head < map_heads_.seqbase ? NO_BUN
                                             : checked(first_ + (head - map_heads_.seqbase));
        while (cursor_ < end_ && map_heads_[cursor_] < head)
            ++cursor_;
        return cursor_ < end_ && map_heads_[cursor_] == head ? cursor_ : NO_BUN;
    }

    //! The ids of the n rows from a position of the column on, where the map stores them one after
    //! the other; else null.
    const oid *stored_ids(BUN row, BUN n) noexcept {
        const bool in_sequence = order_ == map_order::in_step ||
                                 (dense_ && heads_.stored == nullptr && heads_.seqbase != oid_nil);
        if (!in_sequence || ids_.stored == nullptr)
            return nullptr;
        const BUN position = find(row);
        return position != NO_BUN && n <= end_ - position ? ids_.stored + position : nullptr;
    }

    //! The ids of the n rows from a position of the column on: in the map itself, or put into
    //! `room`; null when the map lacks one of them.
    const oid *ids(BUN row, BUN n, oid *room) noexcept {
        if (const oid *stored = stored_ids(row, n))
            return stored;
        for (BUN i = 0; i < n; ++i) {
            const BUN position = find(row + i);
            if (position == NO_BUN)
                return nullptr;
            room[i] = ids_[position];
        }
        return room;
    }

    bool can_lack_rows() const noexcept { return order_ == map_order::ascending; }
    oid id_at(BUN position) const noexcept { return ids_[position]; }

private:
    //! As a position, which wraps where the map begins before the column does. A kernel can call a
    //! map aligned that ends before the column.
    VASK_ALWAYS_INLINE BUN checked(BUN position) const noexcept {
        return position - first_ < end_ - first_ ? position : NO_BUN;
    }

    map_order order_;
    oid_reader heads_;
    oid_reader ids_;
    oid_reader map_heads_;
    BUN distance_;
    BUN first_;
    BUN end_;
    BUN cursor_;
    bool dense_ = false; // the map's head, where rows are found by arithmetic
    std::optional<oid_lookup> lookup_;
};

//! In place of the number of a group: the map does not have the row.
inline constexpr BUN no_group = NO_BUN;

//! Numbers the groups of n ids by their slots, counted from 0. False when there is no such group.
template <class Lookup>
VASK_ALWAYS_INLINE bool number_groups(const Lookup &lookup, const BAT &extents, const oid *ids,
                                      BUN n, BUN *numbers) noexcept {
    const Lookup groups = lookup;
    const BUN first = extents.info->first;
    const BUN count = extents.info->count;
    bool known = true;
    for (std::size_t i = 0; i < n; ++i) {
        // Of a group that is not there the lookup gives a number that is no slot.
        numbers[i] = vask_group_slot(groups, ids[i]) - first;
        known &= numbers[i] < count;
    }
    return known;
}

//! The same for n rows from a position on.
template <class Lookup>
bool number_rows(map_rows &map, const Lookup &lookup, const BAT &extents, BUN row, BUN n,
                 BUN *numbers) noexcept {
    if (!map.can_lack_rows()) {
        const oid *ids = map.ids(row, n, numbers);
        return ids != nullptr && number_groups(lookup, extents, ids, n, numbers);
    }
    if (const oid *ids = map.stored_ids(row, n))
        return number_groups(lookup, extents, ids, n, numbers);
    for (BUN i = 0; i < n; ++i) {
        numbers[i] = no_group;
        const BUN position = map.find(row + i);
        if (position == NO_BUN)
            continue;
        const oid id = map.id_at(position);
        if (!number_groups(lookup, extents, &id, 1, numbers + i))
            return false;
    }
    return true;
}

//! Calls `body(row, n, numbers)` for each block of a range with rows. False, without the remaining
//! blocks, at a row whose group the extents do not hold, and, unless it may be, at one that is not
//! in the map. Hashes are built when the first row needs them, that of the extents only if the row
//! is in the map, and whether or not `table` then spares its use: the kernel sees the builds.
template <class Body>
bool for_each_numbered_block(const grouped_rows &in, const slot_table *table, vask_row_range range,
                             Body body) {
    if (in.order == map_order::ascending &&
        !(is_ascending(*in.b->head) && is_ascending(*in.map->head)))
        return false;
    map_rows map(in);
    if (!map.can_lack_rows() && map.find(range.begin) == NO_BUN)
        return false;
    const oid_lookup lookup(*in.extents);
    if (!lookup.built())
        return false;
    std::array<BUN, block_rows> numbers;
    return all_blocks(range, [&](BUN row, BUN n) {
        const bool known = table != nullptr
                               ? number_rows(map, *table, *in.extents, row, n, numbers.data())
                               : number_rows(map, lookup, *in.extents, row, n, numbers.data());
        if (known)
            body(row, n, static_cast<const BUN *>(numbers.data()));
        return known;
    });
}

} // namespace vask
