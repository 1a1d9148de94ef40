// Tasks over the row ranges of grouping and refinement.
#pragma once

#include "kernel/frame.h"
#include "rows/row_ranges.h"

#include <cstddef>

namespace vask {

//! Runs `task(number, range)` for every range, each as a task with a copy of its own of everything
//! that `task` holds, started in ascending order, and waits for all.
template <class Task>
void run_ranges(const gdk_vector<vask_row_range> &ranges, const Task &task) {
    task_set tasks;
    for (std::size_t i = 0; i < ranges.size(); ++i)
        tasks.spawn([task, i, range = ranges[i]] { task(i, range); });
    tasks.wait();
}

} // namespace vask
