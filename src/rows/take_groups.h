// Handing groups that are known to a sink.
#pragma once

#include "rows/grouping_rows.h"

namespace vask {

//! Gives the groups, which stand in the order of their first rows, to the sink.
inline grouping_outcome take_groups(const grouping_rows &rows, const gdk_vector<new_group> &groups,
                                    const group_sink &sink) {
    extents_rows extents;
    if (sink.take && !sink.take(0, groups.data(), groups.size()))
        return grouping_outcome::failed;
    if (!sink.make_room(static_cast<BUN>(groups.size()), extents))
        return grouping_outcome::failed;
    if (extents.ids != nullptr)
        rows.run_shares(groups.size(), [&groups, extents](vask_row_range r) {
            for (BUN i = r.begin; i < r.end; ++i) {
                extents.ids[i] = groups[i].id;
                extents.counts[i] = groups[i].count;
            }
        });
    return grouping_outcome::done;
}

} // namespace vask
