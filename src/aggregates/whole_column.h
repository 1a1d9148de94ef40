// Reduction of a whole column: private partial results per partition, merged in partition order.
//
// An aggregate is a type with
//   element                     the C++ type of a stored element
//   accumulator                 what a partition's result is kept in
//   partial                     plain struct: `accumulator value`, and `bool seen` if the aggregate
//                               must tell "no value" from a neutral one
//   scan(rows, n, nil)          partial of n consecutive elements; always inlined, no calls
//   merge(total, partial)       folds a later partition's partial into the total
#pragma once

#include "kernel/frame.h"

namespace vask {

template <class Aggregate>
concept tells_seen = requires(typename Aggregate::partial p) {
    p.seen;
};

//! The aggregate of b's tail in nparts partitions. Merging in ascending partition order makes the
//! result independent of task timing; of floats it depends on nparts, as partitions are summed
//! apart. Neither nonil nor sorted is consulted: the marks are hints of the kernel, every row
//! counts by its value. `store(total)` hands the result on while the column is still open for
//! reading.
template <class Aggregate, class Store>
void reduce_column(BAT *b, std::uint64_t nparts, Store store) {
    using element = typename Aggregate::element;
    using accumulator = typename Aggregate::accumulator;
    using partial = typename Aggregate::partial;

    auto *partials = zeroed_array<accumulator>(nparts);
    bte *seen = nullptr;
    if constexpr (tells_seen<Aggregate>)
        seen = zeroed_array<bte>(nparts);
    BATaccess(b, 2, 0, 1);

    run_partitions(partition_plan(*b, nparts),
                   [partials, seen, rows = rows_of<const element>(*b->tail),
                    nil = nil_of<element>(b->tail->type)](std::uint64_t part, row_range r) {
                       // The partial stays in registers during the loop: neighbouring slots belong
                       // to other tasks.
                       const partial result =
                           with_best_instruction_set([=]() __attribute__((always_inline)) {
                               return Aggregate::scan(rows + r.begin, r.size(), nil);
                           });
                       partials[part] = result.value;
                       if constexpr (tells_seen<Aggregate>)
                           seen[part] = result.seen;
                   });

    partial total{};
    for (std::uint64_t part = 0; part < nparts; ++part) {
        if constexpr (tells_seen<Aggregate>) {
            if (seen[part])
                Aggregate::merge(total, partial{partials[part], true});
        } else {
            Aggregate::merge(total, partial{partials[part]});
        }
    }

    GDKfree(partials);
    if constexpr (tells_seen<Aggregate>)
        GDKfree(seen);
    store(total);
    BATaccess(b, 2, 0, -1);
}

} // namespace vask
