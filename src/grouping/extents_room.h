// Rows of extents, appended many at a time.
#pragma once

#include "rows/grouping_rows.h"
#include "vask/kernel/bat.h"

namespace vask {

//! Appends groups to extents as if each went through vask_bunfastins: the kernel is asked for the
//! same room at the same counts, and the BAT holds what it would hold. One thread at a time.
class extents_room {
public:
    explicit extents_room(BAT &ext) noexcept;

    //! Counts the rows of so many groups; `rows` is where they are to be written before finish().
    //! False as vask_bunfastins says.
    [[nodiscard]] bool make(BUN groups, extents_rows &rows);

    //! False as vask_bunfastins says.
    [[nodiscard]] bool finish();

private:
    BAT *ext_;
    // Where the kernel does not store both types as plain copies, rows wait here for the appends.
    bool plain_;
    gdk_vector<oid> ids_;
    gdk_vector<wrd> counts_;
};

//! Appends groups, as by vask_bunfastins. False as that says.
[[nodiscard]] bool append_groups(BAT &ext, const new_group *groups, std::size_t n);

//! A sink whose groups go to the extents in the order of their first rows.
group_sink sink_into(extents_room &room);

} // namespace vask
