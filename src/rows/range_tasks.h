// Tasks by number and by range of rows.
#pragma once

#include "kernel/frame.h"
#include "rows/row_ranges.h"

#include <cstddef>
#include <functional>

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

//! The same for the numbers 0 .. n - 1; `task(number)` stays where it is.
template <class Task>
void run_numbered(std::size_t n, const Task &task) {
    task_set tasks;
    for (std::size_t i = 0; i < n; ++i)
        tasks.spawn([&task, i] { task(i); });
    tasks.wait();
}

//! The same, as groupings call it.
inline void run_as_tasks(std::size_t n, const std::function<void(std::size_t)> &task) {
    run_numbered(n, task);
}

} // namespace vask
