// The typed body that the grouped statistics of one and of two columns share.
#pragma once

#include "aggregates/grouped.h"
#include "aggregates/result_types.h"
#include "statistics/statistic.h"

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>

namespace vask {

// ---- every row a group of its own -------------------------------------------------------------
// Unlike those of the aggregates, these results keep saying that they hold no nil, whatever they
// hold. That is intended.

//! Every row of r gets the value.
inline void vask_fill_nil(BAT *r, dbl value) {
    BATaccess(r, 2, 0, 1);
    run_row_loop(r->info->count, [value, results = rows_of<dbl>(*r->tail)](vask_row_range rows) {
        std::fill(results + rows.begin, results + rows.end, value);
    });
    BATaccess(r, 2, 0, -1);
}

//! Row i of r gets the nil if row i of the values, read as Rows, is one, else 0.0. Positions run
//! from 0, in the values too. The caller gives as many extents as rows; were there fewer, the rows
//! beyond them have no place to go.
template <class Rows, std::size_t N>
void vask_fill_zero_or_nil(BAT *r, const std::array<BAT *, N> &values) {
    for (BAT *b : values)
        BATaccess(b, 2, 0, 1);
    BATaccess(r, 2, 0, 1);
    run_row_loop(std::min(values[0]->info->count, r->info->count),
                 [input = std::apply([](const auto *...b) { return Rows(*b...); }, values),
                  nil = dbl_nil(), results = rows_of<dbl>(*r->tail)](vask_row_range rows) {
                     for_each_block(input, rows,
                                    [=](const Rows &block_input, vask_row_range block) {
                                        for (BUN i = block.begin; i < block.end; ++i)
                                            results[i] = block_input.is_nil(i) ? nil : 0.0;
                                    });
                 });
    for (BAT *b : values)
        BATaccess(b, 2, 0, -1);
    BATaccess(r, 2, 0, -1);
}

// ---- any groups -------------------------------------------------------------------------------

//! `*place` becomes a view of one double per group under the head of the extents: what the
//! statistic makes of the group's Aggregate::partial over the rows of the values, read as Rows: a
//! dbl that can be the nil, or an optional one that is the nil where there is none. A map that
//! stores nothing makes every row a group of its own; then nothing is summed, and each has what the
//! statistic of one row is, by the nils of PlainRows. 0 when the result cannot be made, else 1.
template <class Aggregate, class Rows, class PlainRows, std::size_t N, class Statistic>
int grouped_statistic_body(BAT **place, const grouped_inputs<N> &inputs, std::uint64_t nparts,
                           Statistic statistic) {
    // Statistics of two columns bring their marks into the view.
    BAT *r = make_grouped_result(TYPE_void, statistic_result<dbl>::code(TYPE_dbl), inputs.extents,
                                 N == 2 ? marked::before_view : marked::in_view);
    if (r == nullptr)
        return 0;
    if (inputs.map->tail->type == TYPE_void && statistic.is_zero_of_one_row())
        vask_fill_zero_or_nil<PlainRows>(r, inputs.values);
    else if (inputs.map->tail->type == TYPE_void)
        vask_fill_nil(r, dbl_nil());
    else if (inputs.extents->info->count != 0 &&
             aggregate_groups<Aggregate, Rows>(
                 inputs, nparts,
                 [=, nil = dbl_nil(), results = rows_of<dbl>(*r->tail)](BUN group,
                                                                        const auto &total) {
                     const auto answer = statistic(total);
                     bool is_nil = false;
                     if constexpr (std::same_as<decltype(answer), const dbl>) {
                         results[group] = answer;
                         is_nil = answer == nil;
                     } else {
                         results[group] = answer.value_or(nil);
                         is_nil = !answer;
                     }
                     return is_nil;
                 }))
        mark_nil(*r->tail);
    *place = r;
    return 1;
}

} // namespace vask
