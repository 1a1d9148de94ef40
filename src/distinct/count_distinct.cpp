#include "distinct/count_distinct.h"

#include "distinct/pair_count.h"
#include "distinct/window_count.h"
#include "kernel/element_types.h"
#include "kernel/frame.h"
#include "rows/row_ranges.h"
#include "vask/ops.h"

#include <cstdint>
#include <new>
#include <optional>

namespace vask {

namespace {

enum class countd_strategy { parallel, serial, failed };

constexpr BUN sample_rows = 1024;
// Fewer different values than that among the sampled rows, and the serial refinement has so few
// groups that it is the faster way.
constexpr BUN fewest_distinct = 300;

//! The numbers of a histogram and a map that a kernel operator made, dropped at the end.
class grouping_numbers {
public:
    grouping_numbers() = default;
    grouping_numbers(const grouping_numbers &) = delete;
    grouping_numbers &operator=(const grouping_numbers &) = delete;
    ~grouping_numbers() {
        for (const std::int32_t id : {histogram, map})
            if (id != int_nil)
                BBPdecref(id, 1);
    }

    std::int32_t histogram = int_nil;
    std::int32_t map = int_nil;
};

//! Groups a sample and judges by the number of its groups. What a failed GRPgroup says is freed:
//! the caller reports a failure of its own.
countd_strategy strategy_of_sample(BAT *sample) {
    grouping_numbers numbers;
    // A BAT's number is its record's first field, so its address is that of a number variable.
    if (char *const failure = GRPgroup(&numbers.histogram, &numbers.map, &sample->bat_id)) {
        GDKfree(failure);
        return countd_strategy::failed;
    }
    const BAT *histogram = vask_descriptor(numbers.histogram);
    if (histogram == nullptr)
        return countd_strategy::failed;
    const bool few = histogram->info->count < fewest_distinct;
    BBPreleaseref(numbers.histogram);
    tell_plan("%s path: %s values in a sample", few ? "serial" : "parallel", few ? "few" : "many");
    return few ? countd_strategy::serial : countd_strategy::parallel;
}

countd_strategy vask_countd_strategy(BAT *b, const BAT *g, const BAT *e) {
    if (e->info->count > most_groups_counted_in_parallel || !is_ascending(*b->head) ||
        !is_ascending(*g->head)) {
        tell_plan("serial path: %s", e->info->count > most_groups_counted_in_parallel
                                         ? "more than a million groups"
                                         : "the rows are in no order");
        return countd_strategy::serial;
    }
    BAT *sample = BATsample(b, sample_rows);
    if (sample == nullptr)
        return countd_strategy::failed;
    const countd_strategy strategy = strategy_of_sample(sample);
    BBPreclaim(sample);
    return strategy;
}

// ---- serial path ------------------------------------------------------------------------------

char *count_pairs(std::int32_t *result, BAT *histogram, BAT *b, BAT *g, BAT *e, bool &failed);

//! Refines the grouping by the values: each refined group is one distinct pair of group and value,
//! and the pairs are counted per group. Exceptions of the kernel's operators are passed on as they
//! are; `failed` is set when a step gives nothing without one.
char *count_serially(std::int32_t *result, BAT *b, BAT *g, BAT *e, bool &failed) {
    grouping_numbers numbers;
    if (char *exception =
            GRPderive(&numbers.histogram, &numbers.map, &e->bat_id, &g->bat_id, &b->bat_id))
        return exception;
    BAT *histogram = vask_descriptor(numbers.histogram);
    if (histogram == nullptr) {
        failed = true;
        return nullptr;
    }
    char *exception = count_pairs(result, histogram, b, g, e, failed);
    BBPreleaseref(numbers.histogram);
    return exception;
}

//! The refined groups' values, one row for each, counted under the map of the old grouping.
char *count_pairs(std::int32_t *result, BAT *histogram, BAT *b, BAT *g, BAT *e, bool &failed) {
    BAT *pairs = VIEWcombine(histogram);
    BAT *values = pairs == nullptr ? nullptr : BATjoin(pairs, b, NO_BUN);
    BAT *extents = values == nullptr ? nullptr : VIEWcombine(e);
    failed = extents == nullptr;
    char *exception = nullptr;
    if (!failed)
        exception = AX3aggrX3_count3Nils(result, &values->bat_id, &g->bat_id, &extents->bat_id);
    for (BAT *made : {values, pairs, extents})
        if (made != nullptr)
            BBPreclaim(made);
    return exception;
}

// ---- parallel path ----------------------------------------------------------------------------

//! Counts the values of b, which has rows, by bits where it holds integers that lie close together,
//! else by pairs.
bool count_rows(const grouped_rows &inputs, std::uint64_t nranges, wrd *counts) {
    const slot_table_owner table(*inputs.extents, inputs.b->info->count, nranges);
    const std::optional<bool> counted = count_by_window(inputs, table.get(), nranges, counts);
    return counted ? *counted : count_by_pairs(inputs, table.get(), nranges, counts);
}

bool count_in_parallel(const grouped_rows &inputs, wrd *counts) {
    if (!has_keyed_class(storage_of(*inputs.b->tail)))
        return false;
    if (inputs.extents->head->hash == nullptr && !BAThash(inputs.extents, 0))
        return false;
    if (GDKnr_threads == 0)
        return false;
    // One range per thread, whatever its size, and none of an empty column.
    const std::uint64_t nranges = vask_range_count(*inputs.b);
    BATaccess(inputs.b, 3, 0, 1);
    bool counted = true;
    try {
        if (nranges != 0)
            counted = count_rows(inputs, nranges, counts);
    } catch (const std::bad_alloc &) {
        counted = false;
    }
    BATaccess(inputs.b, 3, 0, -1);
    return counted;
}

//! The result under the head of `extents`, zeroed; null when it cannot be made.
BAT *zeroed_counts(BAT *extents) {
    const BUN groups = extents->info->count;
    BAT *result = BATnew(TYPE_void, TYPE_wrd, groups);
    if (result == nullptr)
        return nullptr;
    vask_grp_result_view(&result, extents);
    if (result == nullptr)
        return nullptr;
    wrd *counts = rows_of<wrd>(*result->tail) + result->info->first;
    std::fill_n(counts, groups, wrd{0});
    return result;
}

} // namespace

} // namespace vask

char *AggrX3_countDistinct(int32_t *result, const int32_t *bid, const int32_t *gid,
                           const int32_t *eid) {
    using namespace vask;
    const input_bats inputs(bid, eid, gid);
    char *exception = nullptr;
    bool failed = !inputs.complete();
    BAT *extents = nullptr;
    BAT *counts = nullptr;
    if (!failed) {
        BAT *b = inputs[0];
        BAT *e = inputs[1];
        BAT *g = inputs[2];
        const countd_strategy strategy = vask_countd_strategy(b, g, e);
        failed = strategy == countd_strategy::failed;
        if (strategy == countd_strategy::serial) {
            exception = count_serially(result, b, g, e, failed);
        } else if (strategy == countd_strategy::parallel) {
            tell_ranges(*b);
            extents = VIEWcombine(e);
            counts = extents == nullptr ? nullptr : zeroed_counts(extents);
            if (counts != nullptr && extents->head->hash == nullptr)
                BAThash(extents, 0);
            failed = counts == nullptr ||
                     !count_in_parallel({b, g, extents, map_order::ascending},
                                        rows_of<wrd>(*counts->tail) + counts->info->first);
        }
    }
    inputs.release();
    if (extents != nullptr)
        BBPreclaim(extents);
    if (failed)
        exception = make_exception("aggr.countd", failure::operation_failed);
    if (counts != nullptr) {
        if (failed) {
            BBPreclaim(counts);
        } else {
            hand_over(result, *counts);
        }
    }
    return exception;
}
