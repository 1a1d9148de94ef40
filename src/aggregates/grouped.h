// The frame of the grouped operators: private states per partition and group, merged group by group
// in partition order, written under the head of the extents.
#pragma once

#include "aggregates/dealt_groups.h"
#include "aggregates/group_scan.h"
#include "kernel/frame.h"
#include "kernel/shared_mark.h"

#include <array>
#include <new>
#include <optional>
#include <tuple>

namespace vask {

//! What a family's wrapper does around its body: the BATs of values, group map and extents are
//! fetched in this order, `body(place, b, g, e, nparts)` puts the result BAT in its place and gives
//! 1, and the result's number goes to the caller.
template <class Body>
char *run_grouped_wrapper(const char *name, std::int32_t *result, const std::int32_t *bid,
                          const std::int32_t *gid, const std::int32_t *eid, Body body) {
    return run_wrapper(name, input_bats(bid, gid, eid), [=](const auto &inputs) {
        BAT *b = inputs[0];
        BAT *view = nullptr;
        if (body(&view, b, inputs[1], inputs[2], partition_count(b->info->count)) != 1)
            return failure::operation_failed;
        hand_over(result, *view);
        return static_cast<const char *>(nullptr);
    });
}

//! A new BAT under the head of the extents, to be filled with one element per group; null when
//! BATnew fails.
inline BAT *make_grouped_result(int head_type, int tail_type, BAT *e,
                                marked place = marked::in_view) {
    BAT *result = BATnew(head_type, tail_type, e->info->count);
    if (result != nullptr)
        vask_grp_result_view(&result, e, place);
    return result;
}

//! The inputs of a grouped operator: the BATs of values, of which the first has the rows that are
//! partitioned; the group map, whose tail has the id of each row's group at the same position; and
//! the extents, whose head has the ids of the groups, from position 0 on.
template <std::size_t N>
struct grouped_inputs {
    std::array<BAT *, N> values;
    BAT *map;
    BAT *extents;

    void access(int load) const {
        for (BAT *b : values)
            BATaccess(b, 2, 0, load);
        BATaccess(map, 2, 0, load);
        BATaccess(extents, 2, 0, load);
    }
};

//! Scans the rows where they lie, each partition with a block of states for all groups.
template <class Aggregate, class Rows, class Finish>
bool aggregate_in_place(const Rows &rows, const partition_plan &plan, const BAT &map, BAT &extents,
                        const Finish &finish) {
    using partial = typename Aggregate::partial;
    const BUN groups = extents.info->count;
    const slot_table_owner table(extents, plan.end - plan.part_base, plan.nparts);
    state_blocks<partial> blocks(plan.nparts);
    run_partitions(plan, [=, &map, &extents, &blocks, slots = table.get()](std::uint64_t part,
                                                                           vask_row_range r) {
        blocks[part].allocate(groups);
        scan_partition<Aggregate>(rows, map, extents, slots, blocks[part], r);
    });
    shared_mark any;
    run_row_loop(groups, [&, nparts = plan.nparts](vask_row_range r) {
        bool mine = false;
        for (BUN j = r.begin; j < r.end; ++j) {
            partial total{};
            for (std::uint64_t part = 0; part < nparts; ++part)
                merge_partial<Aggregate>(total, blocks[part].load(j));
            mine |= finish(j, total);
        }
        if (mine)
            any.set();
    });
    return any.is_set();
}

//! Deals the rows out to buckets of groups, where that pays and can be done.
template <class Aggregate, class Rows, class Finish>
std::optional<bool> aggregate_dealt(const Rows &rows, const partition_plan &plan, const BAT &map,
                                    BAT &extents, const Finish &finish) {
    // A source that asks the kernel about each row asks once.
    if constexpr (!asks_kernel<Rows>) {
        const BUN groups = extents.info->count;
        const oid *ids = rows_of<const oid>(*extents.head);
        if (extents.head->type != TYPE_void && extents.info->first == 0 &&
            suits_dealing(plan.end - plan.part_base, groups, ids[groups - 1] - ids[0])) {
            try {
                return dealt_groups<Aggregate, Rows>(rows, plan, map, extents).run(finish);
            } catch (const std::bad_alloc &) {
                // In place it takes less memory.
            }
        }
    }
    return std::nullopt;
}

//! Gathers the rows of a plan's partitions into one Aggregate::partial per group, and hands each
//! group's to `finish(j, total)`, from tasks, which may do so twice. Whether one of them gave true,
//! which means a nil. The partial can be any plain struct that starts at zero: every field of it
//! gets a zeroed block of one element per group from each task. The map must have a stored tail.
template <class Aggregate, class Rows, class Finish>
bool aggregate_rows(const Rows &rows, const partition_plan &plan, const BAT &map, BAT &extents,
                    const Finish &finish) {
    const std::optional<bool> dealt = aggregate_dealt<Aggregate>(rows, plan, map, extents, finish);
    return dealt ? *dealt : aggregate_in_place<Aggregate>(rows, plan, map, extents, finish);
}

//! The same of the values of an operator, read as Rows.
template <class Aggregate, class Rows, std::size_t N, class Finish>
bool aggregate_groups(const grouped_inputs<N> &inputs, std::uint64_t nparts, Finish finish) {
    inputs.access(1);
    bool any = false;
    try {
        any = aggregate_rows<Aggregate>(
            std::apply([](const auto *...b) { return Rows(*b...); }, inputs.values),
            partition_plan(*inputs.values[0], nparts), *inputs.map, *inputs.extents, finish);
    } catch (...) { // a kernel that throws when it runs out of memory loses nothing
        inputs.access(-1);
        throw;
    }
    inputs.access(-1);
    return any;
}

//! Runs a row loop over the values, under a map in which every row is a group of its own:
//! `make_row()` gives a `row(i)` that writes row i of the result and says whether that is a nil, in
//! which case the result is marked as one with nils. The values are read from position 0 on
//! whatever their first position, and there are as many of them as groups: the caller answers for
//! both. Values beyond the groups have no place to go.
template <class MakeRow>
void for_each_row_group(BAT *b, BAT *result, MakeRow make_row) {
    BATaccess(b, 2, 0, 1);
    BATaccess(result, 2, 0, 1);
    shared_mark has_nil;
    run_row_loop(std::min(b->info->count, result->info->count),
                 [&has_nil, row = make_row()](vask_row_range r) {
                     bool any = false;
                     for (BUN i = r.begin; i < r.end; ++i)
                         any |= row(i);
                     if (any)
                         has_nil.set();
                 });
    if (has_nil.is_set())
        mark_nil(*result->tail);
    BATaccess(b, 2, 0, -1);
    BATaccess(result, 2, 0, -1);
}

//! The row loop of the aggregates of which a single value is the value itself.
template <class Rows, class Result>
void copy_row_groups(BAT *b, BAT *result, Result nil) {
    for_each_row_group(b, result, [=] {
        return [rows = Rows(*b), out = rows_of<Result>(*result->tail), nil](BUN i) {
            const bool is_nil = rows.is_nil(i);
            out[i] = is_nil ? nil : static_cast<Result>(rows[i]);
            return is_nil;
        };
    });
}

//! The row loop of the counts.
template <class Rows>
void count_row_groups(BAT *b, BAT *result) {
    for_each_row_group(b, result, [=] {
        return [rows = Rows(*b), out = rows_of<wrd>(*result->tail)](BUN i) {
            out[i] = !rows.is_nil(i);
            return false;
        };
    });
}

//! The typed body of a grouped aggregate of b, read as Rows. Gives 1, or 0 when the result cannot
//! be made.
template <class Aggregate, class Rows>
int aggregate_into(BAT **place, BAT *b, BAT *g, BAT *e, std::uint64_t nparts) {
    using result = typename Aggregate::accumulator;
    const int result_type = Aggregate::result::code(b->tail->type);
    BAT *view = make_grouped_result(e->head->type, result_type, e);
    if (view == nullptr)
        return 0;
    *place = view;
    const result nil = nil_of<result>(result_type);
    if (g->tail->type == TYPE_void) {
        if constexpr (tells_seen<Aggregate>)
            copy_row_groups<Rows>(b, view, nil);
        else
            count_row_groups<Rows>(b, view);
        return 1;
    }
    if (e->info->count == 0)
        return 1;

    BATcol &tail = *view->tail;
    const bool has_nil = aggregate_groups<Aggregate, Rows>(
        grouped_inputs<1>{{b}, g, e}, nparts,
        [nil, out = rows_of<result>(tail)](BUN j, const typename Aggregate::partial &total) {
            const bool is_nil = has_no_value<Aggregate>(total);
            out[j] = is_nil ? nil : total.value;
            return is_nil;
        });
    if (has_nil)
        mark_nil(tail);
    return 1;
}

} // namespace vask
