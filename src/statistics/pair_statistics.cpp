#include "statistics/pair_statistics.h"

#include "aggregates/whole_column.h"
#include "vask/ops.h"

#include <array>

namespace vask {

namespace {

char *vask_2_args_statistical_func(dbl *result, const std::int32_t *first_id,
                                   const std::int32_t *second_id, stat_kind kind) {
    return run_wrapper(
        "vask_2_args_statistical_func", input_bats(first_id, second_id),
        [=](const auto &inputs) -> const char * {
            BAT *first = inputs[0];
            BAT *second = inputs[1];
            if (const char *refusal = refusal_of_pair(*first, *second))
                return refusal;
            if (first->info->count == 0) {
                *result = dbl_nil();
                return nullptr;
            }
            const std::uint64_t nparts = partition_count(first->info->count);
            if (!class_pair_of(*first->tail, *second->tail))
                return failure::operation_failed;
            return visit_pair_statistic(
                kind, failure::operation_failed, [&]<class Statistic>(Statistic statistic) {
                    return visit_rows_of<Statistic>(
                        *first, *second, [&]<class Rows>(std::type_identity<Rows>) {
                            reduce_columns<pair_sums<typename Statistic::sums>, Rows>(
                                std::array{first, second}, nparts, [=](const auto &total) {
                                    *result =
                                        std::optional<dbl>(statistic(total)).value_or(dbl_nil());
                                });
                            return static_cast<const char *>(nullptr);
                        });
                });
        });
}

} // namespace

} // namespace vask

char *vask_covars(double *result, const int32_t *a, const int32_t *b) {
    return vask::vask_2_args_statistical_func(result, a, b, vask::stat_kind::covars);
}
char *vask_covarp(double *result, const int32_t *a, const int32_t *b) {
    return vask::vask_2_args_statistical_func(result, a, b, vask::stat_kind::covarp);
}
char *vask_correl(double *result, const int32_t *a, const int32_t *b) {
    return vask::vask_2_args_statistical_func(result, a, b, vask::stat_kind::correl);
}
// The line is that of a as a function of b, so b comes first: it is x.
char *vask_slope(double *result, const int32_t *a, const int32_t *b) {
    return vask::vask_2_args_statistical_func(result, b, a, vask::stat_kind::slope);
}
char *vask_intercept(double *result, const int32_t *a, const int32_t *b) {
    return vask::vask_2_args_statistical_func(result, b, a, vask::stat_kind::intercept);
}
