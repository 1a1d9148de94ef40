// The values of each group of a column, one list per group.
#pragma once

#include "kernel/bat.h"

#include <cstdint>

namespace vask {

//! The values of one group, in one partition or of the whole column, in row order. Plain, because
//! a zeroed block of them is an array of empty lists.
template <class T>
struct vask_value_list {
    T *values;
    std::uint64_t size;
    std::uint64_t room;
};

//! What the lists are gathered from. Rows of `b` and `g` belong together by equal heads, not by
//! position; `groups` holds every group's id in its head.
struct grouped_values {
    BAT *b;
    BAT *g;
    BAT *groups;
};

//! Fills `lists`, one empty list for each row of inputs.groups, with the values of b: stored as T,
//! or for T = const char * by the place of the text in b's heap. A row of b without a row in g is
//! skipped. False when memory runs out, when a head of b or g is not ascending, when a group is not
//! there, or when the kernel has no threads; the lists can then hold blocks all the same, which are
//! the caller's to free. The rows are scattered by tasks, each into lists of its own, and gathered
//! on the calling thread in row order.
template <class T>
bool gather_value_lists(const grouped_values &inputs, vask_value_list<T> *lists);

} // namespace vask
