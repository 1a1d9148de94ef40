#include "statistics/grouped_statistic.h"
#include "statistics/pair_statistics.h"
#include "vask/ops.h"

namespace vask {

namespace {

template <class Statistic>
int vask_grp_pair_body(BAT **place, const grouped_inputs<2> &inputs, std::uint64_t nparts,
                       Statistic statistic) {
    return visit_rows_of<Statistic>(
        *inputs.values[0], *inputs.values[1], [&]<class Rows>(std::type_identity<Rows>) {
            // Where every row is a group, a nil is found by plain comparison, other than in sums.
            return grouped_statistic_body<pair_sums<typename Statistic::sums>, Rows,
                                          plainly_paired_rows>(place, inputs, nparts, statistic);
        });
}

char *vask_grp_2_args_statistical_func(std::int32_t *result, const std::int32_t *first_id,
                                       const std::int32_t *second_id, const std::int32_t *gid,
                                       const std::int32_t *eid, stat_kind kind) {
    return run_wrapper("vask_grp_2_args_statistical_func",
                       input_bats(first_id, second_id, gid, eid),
                       [=](const auto &inputs) -> const char * {
                           BAT *first = inputs[0];
                           BAT *second = inputs[1];
                           if (const char *refusal = refusal_of_pair(*first, *second))
                               return refusal;
                           const std::uint64_t nparts = partition_count(first->info->count);
                           if (!class_pair_of(*first->tail, *second->tail))
                               return failure::operation_failed;
                           const grouped_inputs<2> columns{{first, second}, inputs[2], inputs[3]};
                           BAT *view = nullptr;
                           const int done = visit_pair_statistic(kind, 0, [&](auto statistic) {
                               return vask_grp_pair_body(&view, columns, nparts, statistic);
                           });
                           if (done != 1)
                               return failure::operation_failed;
                           // Like that of the moments, this result is not sealed.
                           hand_over(result, *view);
                           return nullptr;
                       });
}

} // namespace

} // namespace vask

char *vask_grp_covars(int32_t *result, const int32_t *a, const int32_t *b, const int32_t *g,
                      const int32_t *e) {
    return vask::vask_grp_2_args_statistical_func(result, a, b, g, e, vask::stat_kind::covars);
}
char *vask_grp_covarp(int32_t *result, const int32_t *a, const int32_t *b, const int32_t *g,
                      const int32_t *e) {
    return vask::vask_grp_2_args_statistical_func(result, a, b, g, e, vask::stat_kind::covarp);
}
char *vask_grp_correl(int32_t *result, const int32_t *a, const int32_t *b, const int32_t *g,
                      const int32_t *e) {
    return vask::vask_grp_2_args_statistical_func(result, a, b, g, e, vask::stat_kind::correl);
}
// As in the whole-column forms, b is x.
char *vask_grp_slope(int32_t *result, const int32_t *a, const int32_t *b, const int32_t *g,
                     const int32_t *e) {
    return vask::vask_grp_2_args_statistical_func(result, b, a, g, e, vask::stat_kind::slope);
}
char *vask_grp_intercept(int32_t *result, const int32_t *a, const int32_t *b, const int32_t *g,
                         const int32_t *e) {
    return vask::vask_grp_2_args_statistical_func(result, b, a, g, e, vask::stat_kind::intercept);
}
