#include "statistics/order_statistics.h"

#include <array>

namespace vask {

namespace {

//! The value at the share p of the sorted values: position p·(n − 1), counted from 0, interpolated
//! linearly between the values at the whole positions around it. 0 for a NaN.
int vask_percentile_at(dbl *result, stat_flag *flag, std::span<dbl> values, bte type, dbl p) {
    *flag = 0;
    const auto n = static_cast<lng>(values.size());
    const auto span = static_cast<dbl>(n - 1);
    // The rank from the top: 1 for p = 1, n for p = 0. A NaN has none.
    const dbl rank = (1.0 - p) * span + 1.0;
    const lng k = rank >= 1.0 ? static_cast<lng>(rank) : 0;
    std::array<dbl, 2> found{};
    const int done = vask_select_kth(found.data(), flag, values, type, k, true);
    if (done != 1)
        return done;
    const auto [upper, lower] = found;
    if (lower == upper) {
        *result = lower;
        return done;
    }
    // The order of the operations fixes the last bits.
    const dbl hi = static_cast<dbl>(n - k) / span;
    const dbl lo = static_cast<dbl>(n - k - 1) / span;
    *result = ((p - lo) / (hi - lo)) * (upper - lower) + lower;
    return done;
}

} // namespace

stat_functor<dbl> vask_percentile_functor(dbl p) {
    return [p](dbl *result, stat_flag *flag, std::span<dbl> values, bte type) {
        return vask_percentile_at(result, flag, values, type, p);
    };
}

stat_functor<dbl> vask_median_functor() {
    return vask_percentile_functor(0.5);
}

stat_functor<dbl> vask_quartile_functor(bte quartile) {
    return vask_percentile_functor(static_cast<dbl>(quartile) * 0.25);
}

} // namespace vask
