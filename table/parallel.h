// Work on rows in tasks. A thread that waits here takes up no work of another query: it may hold
// what that would wait for.
#pragma once

#include "kernel/cancelled.h"

#include <algorithm>
#include <cstddef>
#include <functional>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

namespace vask::table {

inline constexpr std::size_t rows_of_a_task = std::size_t{1} << 16;

//! Calls `work(begin, end)` for parts of 0 .. n - 1, until the work around it is cancelled.
template <class Work>
void for_parts(std::size_t n, std::size_t grain, const Work &work) {
    if (n <= grain) {
        if (n > 0)
            work(std::size_t{0}, n);
        return;
    }
    tbb::this_task_arena::isolate([&] {
        tbb::parallel_for(
            tbb::blocked_range<std::size_t>(0, n, grain),
            [&](const tbb::blocked_range<std::size_t> &part) { work(part.begin(), part.end()); });
    });
    end_if_cancelled();
}

template <class Work>
void for_rows(std::size_t rows, const Work &work) {
    for_parts(rows, rows_of_a_task, work);
}

//! Calls `work(i)` for each i below n, each perhaps as a task.
template <class Work>
void for_each_number(std::size_t n, const Work &work) {
    for_parts(n, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            work(i);
    });
}

//! The same, as the devices of rows call it.
inline void run_in_tasks(std::size_t n, const std::function<void(std::size_t)> &task) {
    for_each_number(n, task);
}

} // namespace vask::table
