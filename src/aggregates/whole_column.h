// Reduction of a whole column: private partial results per partition, merged in partition order.
#pragma once

#include "aggregates/aggregate.h"
#include "aggregates/lanes.h"
#include "kernel/frame.h"

#include <algorithm>
#include <array>
#include <tuple>

namespace vask {

//! The aggregate of the rows of a plan's partitions. Merging in ascending partition order makes the
//! result independent of task timing; of floats it depends on the number of partitions, as they are
//! summed apart. Neither nonil nor sorted is consulted: the marks are hints of the kernel, every
//! row counts by its value.
template <class Aggregate, class Rows>
typename Aggregate::partial reduce_rows(const Rows &rows, const partition_plan &plan) {
    using partial = typename Aggregate::partial;

    std::array<partial, max_partitions> partials{};
    const std::uint64_t in_lanes =
        adds_in_any_order<Aggregate>(rows) ? 0 : partitions_in_lanes<Aggregate, Rows>(plan.nparts);
    task_set tasks;
    if constexpr (adds_lanes<Aggregate, Rows>) {
        for (std::uint64_t part = 0; part < in_lanes; part += lane_count)
            tasks.spawn([rows, &plan, to = &partials[part], part] {
                std::array<vask_row_range, lane_count> ranges;
                for (std::size_t lane = 0; lane < lane_count; ++lane)
                    ranges[lane] = plan.partition(part + lane);
                const auto made = scan_in_lanes<Aggregate>(rows, ranges);
                std::copy(made.begin(), made.end(), to);
            });
    }
    for (std::uint64_t part = in_lanes; part < plan.nparts; ++part)
        tasks.spawn([rows, r = plan.partition(part), to = &partials[part]] {
            if constexpr (knows_integers<Aggregate, Rows>) {
                if (rows.are_integers()) {
                    *to = scan_integers<Aggregate>(rows, r);
                    return;
                }
            }
            // The partial stays in registers during the loop: neighbouring ones belong to other
            // tasks.
            *to = with_best_instruction_set([=]() __attribute__((always_inline)) {
                return Aggregate::scan(rows, r);
            });
        });
    tasks.wait();

    partial total{};
    for (std::uint64_t part = 0; part < plan.nparts; ++part)
        merge_partial<Aggregate>(total, partials[part]);
    return total;
}

//! The aggregate of all rows of `inputs`, read as Rows(inputs...), in nparts partitions; the first
//! has the rows that are partitioned. `store(total)` hands the result on while the columns are
//! still open for reading.
template <class Aggregate, class Rows, std::size_t N, class Store>
void reduce_columns(const std::array<BAT *, N> &inputs, std::uint64_t nparts, Store store) {
    for (BAT *b : inputs)
        BATaccess(b, 2, 0, 1);
    try {
        store(
            reduce_rows<Aggregate>(std::apply([](const auto *...b) { return Rows(*b...); }, inputs),
                                   partition_plan(*inputs[0], nparts)));
    } catch (...) { // of work that was cancelled
        for (BAT *b : inputs)
            BATaccess(b, 2, 0, -1);
        throw;
    }
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
