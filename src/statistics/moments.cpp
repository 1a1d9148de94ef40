#include "statistics/moments.h"

#include "aggregates/whole_column.h"
#include "kernel/element_types.h"
#include "vask/ops.h"

#include <array>
#include <cmath>

namespace vask {

// The order of the operations in both formulas is part of what they mean: it fixes the last bits.

dbl spread_of_values::operator()(const power_sums<2> &total) const noexcept {
    const auto [s1, s2, n] = total;
    const auto m = static_cast<dbl>(n);
    if ((population ? 0.0 : 1.0) >= m)
        return dbl_nil();
    const dbl numerator = m * s2 - s1 * s1;
    const dbl denominator = population ? m * m : (m - 1.0) * m;
    dbl v = numerator / denominator;
    if (0.0 > v)
        v = 0.0;
    return variance ? v : std::sqrt(v);
}

dbl vask_skew_from_sums(const power_sums<3> &total, bool population) {
    // Below this the spread counts as rounding. Changing it changes which columns have a skewness.
    constexpr dbl smallest_spread = 1e-7;

    const auto [s1, s2, s3, n] = total;
    const auto m = static_cast<dbl>(n);
    if ((population ? 1.0 : 2.0) >= m)
        return dbl_nil();
    const dbl q = m * m;
    dbl d = q * s2 - (s1 * s1) * m;
    if (smallest_spread > d)
        d = 0.0;
    const dbl w = std::pow(d, 1.5);
    const dbl c = population ? std::sqrt(m) : (std::sqrt(m - 1.0) * m) / (m - 2.0);
    if (w == 0.0)
        return dbl_nil();
    const dbl numerator = ((q * m) * s3 - ((q * 3.0) * s1) * s2) + ((s1 * s1) * s1) * (m * 2.0);
    return (numerator * c) / w;
}

namespace {

char *vask_1_arg_statistical_func(dbl *result, const std::int32_t *bid, stat_kind kind) {
    return run_wrapper(
        "vask_1_arg_statistical_func", input_bats(bid), [=](const auto &inputs) -> const char * {
            BAT *b = inputs[0];
            if (!is_admitted(*b->tail))
                return failure::unsupported_tail;
            if (b->info->count == 0) {
                *result = dbl_nil();
                return nullptr;
            }
            const std::uint64_t nparts = partition_count(b->info->count);
            return visit_moment(kind, failure::operation_failed, [&](auto moment) {
                return visit_storage_class(
                    storage_of(*b->tail), failure::operation_failed,
                    [&]<class T>(std::type_identity<T>) {
                        reduce_columns<typename decltype(moment)::aggregate, column_rows<T>>(
                            std::array{b}, nparts,
                            [=](const auto &total) { *result = moment(total); });
                        return static_cast<const char *>(nullptr);
                    });
            });
        });
}

} // namespace

} // namespace vask

char *vask_stdev(double *result, const int32_t *bid) {
    return vask::vask_1_arg_statistical_func(result, bid, vask::stat_kind::stdev);
}
char *vask_stdevp(double *result, const int32_t *bid) {
    return vask::vask_1_arg_statistical_func(result, bid, vask::stat_kind::stdevp);
}
char *vask_variance(double *result, const int32_t *bid) {
    return vask::vask_1_arg_statistical_func(result, bid, vask::stat_kind::variance);
}
char *vask_variancep(double *result, const int32_t *bid) {
    return vask::vask_1_arg_statistical_func(result, bid, vask::stat_kind::variancep);
}
char *vask_skews(double *result, const int32_t *bid) {
    return vask::vask_1_arg_statistical_func(result, bid, vask::stat_kind::skews);
}
char *vask_skewp(double *result, const int32_t *bid) {
    return vask::vask_1_arg_statistical_func(result, bid, vask::stat_kind::skewp);
}
