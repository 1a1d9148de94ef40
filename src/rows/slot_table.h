// A table from group id to slot, private to one call, that spares the walk of a hash chain per row.
#pragma once

#include "rows/isa.h"
#include "vask/kernel/bat.h"

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace vask {

//! The slots of the ids base .. base + span - 1. A plain value for row loops, with the find() of
//! oid_lookup.
struct slot_table {
    const BUN *slots_plus_one = nullptr; // 0: no such group
    oid base = 0;
    BUN span = 0;

    //! The slot of a group, or a number that is no slot.
    VASK_ALWAYS_INLINE BUN find(oid gid) const noexcept {
        const BUN i = gid - base;
        return i < span ? slots_plus_one[i] - 1 : NO_BUN;
    }
};

//! Owns the table of one call's extents. Its memory is not the kernel's: the kernel accounts for
//! what the operators hold, and this is no part of an operator's result or state.
class slot_table_owner {
public:
    //! Fills the table from the head of the extents, unless it would not pay for the lookups of
    //! `rows` rows by so many tasks or could give another answer than the kernel's hash: a head
    //! that is dense needs none, one whose ids lie too far apart would take too much memory, and
    //! one that holds an id twice leaves it to the order of a chain which row is found.
    slot_table_owner(const BAT &extents, BUN rows, std::uint64_t tasks);

    //! Null if there is no table.
    const slot_table *get() const noexcept {
        return table_.slots_plus_one == nullptr ? nullptr : &table_;
    }

private:
    struct free_block {
        void operator()(BUN *block) const noexcept { std::free(block); }
    };

    std::unique_ptr<BUN[], free_block> block_;
    slot_table table_;
};

} // namespace vask
