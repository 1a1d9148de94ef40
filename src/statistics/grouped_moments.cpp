#include "statistics/grouped_statistic.h"
#include "statistics/moments.h"
#include "statistics/statistic.h"
#include "vask/ops.h"

namespace vask {

namespace {

//! One value has no spread: its variance is 0 as a population and none as a sample.
template <class T>
int vask_grp_moments2_body(BAT **place, const grouped_inputs<1> &inputs, std::uint64_t nparts,
                           bool population, bool variance) {
    return grouped_statistic_body<moment_sums<2>, column_rows<T>>(
        place, inputs, nparts,
        [=](const power_sums<2> &sums) { return variance_from_sums(sums, population, variance); },
        [&](BAT *r) {
            if (population)
                vask_fill_zero_or_nil<column_rows<T>>(r, inputs.values);
            else
                vask_fill_nil(r, dbl_nil());
        });
}

//! One value has no skewness in either form.
template <class T>
int vask_grp_moments3_body(BAT **place, const grouped_inputs<1> &inputs, std::uint64_t nparts,
                           bool population) {
    return grouped_statistic_body<moment_sums<3>, column_rows<T>>(
        place, inputs, nparts,
        [=](const power_sums<3> &sums) { return vask_skew_from_sums(sums, population); },
        [](BAT *r) { vask_fill_nil(r, dbl_nil()); });
}

char *vask_grp_1_arg_statistical_func(std::int32_t *result, const std::int32_t *bid,
                                      const std::int32_t *gid, const std::int32_t *eid,
                                      stat_kind kind) {
    return run_wrapper(
        "vask_grp_1_arg_statistical_func", input_bats(bid, gid, eid),
        [=](const auto &inputs) -> const char * {
            BAT *b = inputs[0];
            if (!is_admitted(*b->tail))
                return failure::unsupported_tail;
            const std::uint64_t nparts = partition_count(b->info->count);
            const std::optional<moment> m = moment_of(kind);
            if (!m)
                return failure::operation_failed;
            const grouped_inputs<1> columns{{b}, inputs[1], inputs[2]};
            BAT *view = nullptr;
            const int done =
                visit_storage_class(storage_of(*b->tail), 0, [&]<class T>(std::type_identity<T>) {
                    return m->power == 2
                               ? vask_grp_moments2_body<T>(&view, columns, nparts, m->population,
                                                           m->variance)
                               : vask_grp_moments3_body<T>(&view, columns, nparts, m->population);
                });
            if (done != 1)
                return failure::operation_failed;
            // Other than the order statistics', this result is not sealed: it stays as it was made.
            hand_over(result, *view);
            return nullptr;
        });
}

} // namespace

} // namespace vask

char *vask_grp_stdev(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    return vask::vask_grp_1_arg_statistical_func(result, bid, gid, eid, vask::stat_kind::stdev);
}
char *vask_grp_stdevp(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    return vask::vask_grp_1_arg_statistical_func(result, bid, gid, eid, vask::stat_kind::stdevp);
}
char *vask_grp_variance(int32_t *result, const int32_t *bid, const int32_t *gid,
                        const int32_t *eid) {
    return vask::vask_grp_1_arg_statistical_func(result, bid, gid, eid, vask::stat_kind::variance);
}
char *vask_grp_variancep(int32_t *result, const int32_t *bid, const int32_t *gid,
                         const int32_t *eid) {
    return vask::vask_grp_1_arg_statistical_func(result, bid, gid, eid, vask::stat_kind::variancep);
}
char *vask_grp_skews(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    return vask::vask_grp_1_arg_statistical_func(result, bid, gid, eid, vask::stat_kind::skews);
}
char *vask_grp_skewp(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    return vask::vask_grp_1_arg_statistical_func(result, bid, gid, eid, vask::stat_kind::skewp);
}
