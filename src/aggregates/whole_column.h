// Reduction of a whole column: private partial results per partition, merged in partition order.
#pragma once

#include "aggregates/aggregate.h"
#include "aggregates/state_blocks.h"
#include "kernel/frame.h"

#include <array>
#include <tuple>

namespace vask {

//! The aggregate of all rows of `inputs`, read as Rows(inputs...), in nparts partitions; the first
//! has the rows that are partitioned. Merging in ascending partition order makes the result
//! independent of task timing; of floats it depends on nparts, as partitions are summed apart.
//! Neither nonil nor sorted is consulted: the marks are hints of the kernel, every row counts by
//! its value. `store(total)` hands the result on while the columns are still open for reading.
template <class Aggregate, class Rows, std::size_t N, class Store>
void reduce_columns(const std::array<BAT *, N> &inputs, std::uint64_t nparts, Store store) {
    using partial = typename Aggregate::partial;

    state_columns<partial> partials;
    partials.allocate(nparts);
    for (BAT *b : inputs)
        BATaccess(b, 2, 0, 1);

    const Rows rows = std::apply([](const auto *...b) { return Rows(*b...); }, inputs);
    try {
        run_partitions(partition_plan(*inputs[0], nparts),
                       [partials, rows](std::uint64_t part, vask_row_range r) {
                           // The partial stays in registers during the loop: neighbouring slots
                           // belong to other tasks.
                           const partial result = with_best_instruction_set([=
                           ]() __attribute__((always_inline)) { return Aggregate::scan(rows, r); });
                           partials.store(static_cast<BUN>(part), result);
                       });
    } catch (...) { // of work that was cancelled
        partials.release();
        for (BAT *b : inputs)
            BATaccess(b, 2, 0, -1);
        throw;
    }

    partial total{};
    for (BUN part = 0; part < nparts; ++part)
        merge_partial<Aggregate>(total, partials.load(part));
    partials.release();
    store(total);
    for (BAT *b : inputs)
        BATaccess(b, 2, 0, -1);
}

//! The typed body of an aggregate: the value into the slot, or the result type's nil if no row
//! holds one.
template <class Aggregate, class Rows>
int store_reduced(void *slot, BAT *b, std::uint64_t nparts) {
    using accumulator = typename Aggregate::accumulator;
    const int result_type = Aggregate::result::code(b->tail->type);
    reduce_columns<Aggregate, Rows>(
        std::array{b}, nparts, [=](const typename Aggregate::partial &total) {
            store_result(slot, has_no_value<Aggregate>(total) ? nil_of<accumulator>(result_type)
                                                              : total.value);
        });
    return 1;
}

} // namespace vask
