// Reduction of a whole column: private partial results per partition, merged in partition order.
#pragma once

#include "aggregates/aggregate.h"
#include "kernel/frame.h"

namespace vask {

//! The aggregate of b's tail, read as Rows, in nparts partitions. Merging in ascending partition
//! order makes the result independent of task timing; of floats it depends on nparts, as partitions
//! are summed apart. Neither nonil nor sorted is consulted: the marks are hints of the kernel,
//! every row counts by its value. `store(total)` hands the result on while the column is still open
//! for reading.
template <class Aggregate, class Rows, class Store>
void reduce_column(BAT *b, std::uint64_t nparts, Store store) {
    using accumulator = typename Aggregate::accumulator;
    using partial = typename Aggregate::partial;

    accumulator *partials = zeroed_array<accumulator>(nparts);
    bte *seen = nullptr;
    if constexpr (tells_seen<Aggregate>)
        seen = zeroed_array<bte>(nparts);
    BATaccess(b, 2, 0, 1);

    run_partitions(partition_plan(*b, nparts),
                   [partials, seen, rows = Rows(*b)](std::uint64_t part, row_range r) {
                       // The partial stays in registers during the loop: neighbouring slots belong
                       // to other tasks.
                       const partial result = with_best_instruction_set([=
                       ]() __attribute__((always_inline)) { return Aggregate::scan(rows, r); });
                       partials[part] = result.value;
                       if constexpr (tells_seen<Aggregate>)
                           seen[part] = result.seen;
                   });

    partial total{};
    for (std::uint64_t part = 0; part < nparts; ++part) {
        if constexpr (tells_seen<Aggregate>)
            merge_partial<Aggregate>(total, partial{partials[part], seen[part] != 0});
        else
            merge_partial<Aggregate>(total, partial{partials[part]});
    }

    GDKfree(partials);
    if constexpr (tells_seen<Aggregate>)
        GDKfree(seen);
    store(total);
    BATaccess(b, 2, 0, -1);
}

//! The typed body of an aggregate whose result has the type `result_type` of its accumulator's
//! width: the value into the slot, or that type's nil if no row holds one.
template <class Aggregate, class Rows>
int store_reduced(void *slot, BAT *b, std::uint64_t nparts, int result_type) {
    using accumulator = typename Aggregate::accumulator;
    reduce_column<Aggregate, Rows>(b, nparts, [=](const typename Aggregate::partial &total) {
        store_result(slot, has_no_value<Aggregate>(total) ? nil_of<accumulator>(result_type)
                                                          : total.value);
    });
    return 1;
}

} // namespace vask
