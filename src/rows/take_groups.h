// Handing groups that are known to a sink.
#pragma once

#include "kernel/frame.h"
#include "rows/grouping_rows.h"

namespace vask {

//! Gives the groups, which stand in the order of their first rows, to the sink.
inline grouping_outcome take_groups(const gdk_vector<new_group> &groups, const group_sink &sink) {
    extents_rows rows;
    if (sink.take && !sink.take(0, groups.data(), groups.size()))
        return grouping_outcome::failed;
    if (!sink.make_room(static_cast<BUN>(groups.size()), rows))
        return grouping_outcome::failed;
    if (rows.ids != nullptr)
        run_row_loop(static_cast<BUN>(groups.size()), [&groups, rows](vask_row_range r) {
            for (BUN i = r.begin; i < r.end; ++i) {
                rows.ids[i] = groups[i].id;
                rows.counts[i] = groups[i].count;
            }
        });
    return grouping_outcome::done;
}

} // namespace vask
