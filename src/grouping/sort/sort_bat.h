// Sorting a BAT in place.
#pragma once

#include "grouping/sort/bat_view.h"
#include "kernel/cancelled.h"

#include <tbb/parallel_sort.h>

namespace vask {

//! Sorts the rows of `b` in place by Cmp, head and tail together, on the scheduler's pool; below
//! 500 rows serially. Rows that Cmp holds equal come in an order that can change from run to run.
//! From 500 rows on, a BAT that is in order already is read once and not written.
//!
//! `b` must have a stored oid head and a tail stored as T, writable memory of its own, and nobody
//! else may use it meanwhile. Its marks and its count stay as they are. Allocates nothing per row.
template <class T, template <class> class Cmp>
void vask_sort_bat(BAT *b) {
    using iterator = BATview_RAiterator<T, Cmp<T>>;
    tbb::parallel_sort(iterator(b, b->info->first), iterator(b, end_position(*b)));
    end_if_cancelled();
}

} // namespace vask
