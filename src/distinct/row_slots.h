// The groups of a column's rows, found by the heads that the column and the group map have in
// common.
#pragma once

#include "kernel/column.h"
#include "kernel/frame.h"
#include "rows/isa.h"
#include "rows/oid_lookup.h"
#include "rows/slot_table.h"
#include "vask/kernel/bat.h"

#include <algorithm>
#include <array>

namespace vask {

//! Rows of `b` and `g` belong together by equal heads, not by position; `groups` holds every
//! group's id in its head.
struct grouped_values {
    BAT *b;
    BAT *g;
    BAT *groups;
};

//! Finds the slots of a range's rows, a block after the other: the rows' groups as positions in the
//! extents, counted from 0. One per task.
class row_slots {
public:
    //! Rows of one block.
    static constexpr BUN block_rows = 1024;
    //! The slot of a row that the map does not have.
    static constexpr BUN no_slot = NO_BUN;

    //! `table`: of the extents, or null. The extents' hash is built if they need and lack one.
    row_slots(const grouped_values &inputs, const slot_table *table);

    //! Whether the heads are marked as ascending, without which rows cannot be found.
    static bool can_find(const grouped_values &inputs) noexcept {
        return is_ascending(*inputs.b->head) && is_ascending(*inputs.g->head);
    }

    //! Slots of the rows row .. row + n - 1. Rows are asked for in ascending order. False when the
    //! extents do not have one of the groups.
    bool find(BUN row, BUN n, BUN *slots) noexcept;

private:
    //! Finds the rows of the map by head oids that come in ascending order.
    class map_cursor {
    public:
        explicit map_cursor(const BAT &g) noexcept;

        //! Whether the map has a row with this head; position() is then that row's.
        VASK_ALWAYS_INLINE bool move_to(oid h) noexcept;

        //! Whether the map has n rows with the heads h, h + 1, ... one after the other;
        //! position() is then the first one's.
        bool move_to_run(oid h, BUN n) noexcept;

        BUN position() const noexcept { return position_; }

    private:
        oid_reader head_;
        bool dense_;
        BUN position_;
        BUN first_;
        BUN end_;
    };

    template <class Lookup>
    bool find_by(const Lookup &groups, BUN row, BUN n, BUN *slots) noexcept;

    oid_reader heads_;
    oid_reader gids_;
    map_cursor map_;
    oid_lookup lookup_;
    const slot_table *table_;
    BUN first_group_;
    BUN group_count_;
};

//! Calls `body(row, n, slots)` for each block of a range's rows. False, without the remaining
//! blocks, where rows cannot be found or the extents lack a group.
template <class Body>
bool for_each_slot_block(const grouped_values &inputs, const slot_table *table,
                         vask_row_range range, Body body) {
    if (!row_slots::can_find(inputs))
        return false;
    row_slots finder(inputs, table);
    std::array<BUN, row_slots::block_rows> slots;
    for (BUN row = range.begin; row < range.end;) {
        const BUN n = std::min(row_slots::block_rows, range.end - row);
        if (!finder.find(row, n, slots.data()))
            return false;
        body(row, n, slots.data());
        row += n;
    }
    return true;
}

} // namespace vask
