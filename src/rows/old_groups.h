// The old groups of a refinement, numbered by their rows in the old extents.
#pragma once

#include "rows/gdk_vector.h"
#include "rows/oid_lookup.h"
#include "vask/kernel/bat.h"

#include <cstdint>
#include <optional>

namespace vask {

//! The position of an old group in the old extents, or NO_BUN.
VASK_ALWAYS_INLINE BUN vask_find_histo_row(const oid_lookup &histo, oid group) noexcept {
    return histo.find(group);
}

//! Numbers groups by their ids. Where those lie close together, as the first rows of a column do, a
//! table of the numbers by id is asked; walking the chains of the kernel's hash for every row took
//! three times as long. Can be read from any number of tasks.
class old_groups {
public:
    //! Throws like gdk_vector.
    explicit old_groups(BAT &histo);

    BUN count() const noexcept { return count_; }

    //! Numbers of the groups of n ids; false when the extents lack one of them. An id that stands
    //! in them twice has one of its numbers.
    bool number(const oid *ids, BUN n, BUN *numbers) const;

private:
    void make_table(const oid_reader &ids, oid least, BUN places);

    BUN count_;
    BUN first_;
    oid least_ = 0;
    // By distance from the least id; the last place is that of all ids that are not there.
    gdk_vector<BUN> table_;
    std::optional<oid_lookup> lookup_; // where there is no table
};

} // namespace vask
