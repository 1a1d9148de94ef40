// The extents of a refinement, appended as the new groups come to be, and put in order of id while
// the new map is written.
//
// A group's id is the head oid of its first row, and over a dense head the map's cell of that row
// is the row's own oid. So whoever writes the map in row order meets the ids in ascending order,
// and with them the counts, if it knows how many groups the ranges before its own begin.
#pragma once

#include "kernel/bat.h"
#include "kernel/column.h"
#include "rows/gdk_vector.h"

#include <algorithm>
#include <cstddef>

namespace vask {

//! Whether ids are ascending in row order under b's head.
inline bool ids_follow_rows(const BAT &b) noexcept {
    return is_dense(*b.head) && b.head->seqbase != oid_nil;
}

//! Appends new groups to the extents: each has an id and a count. False when that fails. One thread
//! at a time.
template <class Groups>
bool append_refined(BAT &ext, const Groups &groups) {
    return std::all_of(groups.begin(), groups.end(), [&ext](const auto &group) {
        const wrd count = group.count;
        return BUNfastins(&ext, &group.id, &count) != nullptr;
    });
}

//! The extents' rows of one range, to be written over what stands in them.
class ordered_extents {
public:
    //! None: for a head under which they have to be sorted.
    ordered_extents() noexcept = default;

    //! Those of the groups that the range beginning at `row` begins, `before` of them in the ranges
    //! before it and `groups` of its own.
    ordered_extents(const BAT &ext, const BAT &b, BUN row, BUN before, BUN groups) noexcept
        : own_oid_(b.head->seqbase + (row - b.info->first)),
          row_(row),
          left_(groups),
          ids_(rows_of<oid>(*ext.head) + ext.info->first + before),
          counts_(rows_of<wrd>(*ext.tail) + ext.info->first + before) {}

    //! Groups that are still to be met.
    BUN left() const noexcept { return left_; }

    //! Writes the group if the row is its first. Rows come in ascending order.
    VASK_ALWAYS_INLINE void meet(BUN row, oid id, BUN count) noexcept {
        if (id != own_oid_ + (row - row_) || left_ == 0)
            return;
        *ids_++ = id;
        *counts_++ = count;
        --left_;
    }

private:
    oid own_oid_ = 0; // of the range's first row
    BUN row_ = 0;
    BUN left_ = 0;
    oid *ids_ = nullptr;
    wrd *counts_ = nullptr;
};

} // namespace vask
