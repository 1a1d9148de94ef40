#include "statistics/pair_statistics.h"

#include "aggregates/whole_column.h"
#include "vask/ops.h"

#include <array>
#include <cmath>

namespace vask {

namespace {

// Below this a product of spreads counts as rounding. It is not scaled by the values: columns of
// very small numbers have no correlation and no line. Changing it changes which columns have one.
constexpr dbl smallest_spread = 1e-7;

} // namespace

// The order of the operations in the formulas is part of what they mean: it fixes the last bits.

std::optional<dbl> covariance::operator()(const covariance_sums &total) const noexcept {
    const auto [x, y, xy, pairs] = total;
    const auto n = static_cast<lng>(pairs);
    const lng m = n - (population ? 0 : 1);
    if (m <= 0)
        return std::nullopt;
    return (static_cast<dbl>(n) * xy - y * x) / static_cast<dbl>(m * n);
}

dbl vask_correlation_from_sums(const correlation_sums &total) {
    const auto [x, y, xy, xx, yy, pairs] = total;
    if (pairs == 0)
        return dbl_nil();
    const auto n = static_cast<dbl>(pairs);
    const auto nn = static_cast<dbl>(pairs * pairs);
    // The product of the numerators of both variances, written out. A NaN passes both tests below.
    dbl d = nn * xx * yy - n * xx * (y * y) - x * x * n * yy + x * x * (y * y);
    if (smallest_spread > d)
        d = 0.0;
    const dbl root = std::sqrt(d);
    if (root == 0.0)
        return dbl_nil();
    const dbl r = (n * xy - x * y) / root;
    if (r > 1.0)
        return 1.0;
    return r < -1.0 ? -1.0 : r;
}

dbl regression::operator()(const regression_sums &total) const noexcept {
    const auto [x, y, xy, xx, pairs] = total;
    if (pairs == 0)
        return dbl_nil();
    const auto n = static_cast<dbl>(pairs);
    const dbl numerator = slope ? n * xy - y * x : xx * y - xy * x;
    const dbl d = n * xx - x * x;
    return std::fabs(d) < smallest_spread ? dbl_nil() : numerator / d;
}

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
