#include "statistics/order_statistics.h"

#include <array>

namespace vask {

int vask_percentile_at(dbl *result, stat_flag *flag, std::span<dbl> values, bte type,
                       const void *parameter) {
    if (parameter == nullptr)
        return 0;
    *flag = 0;
    const dbl p = *static_cast<const dbl *>(parameter);
    const auto n = static_cast<lng>(values.size());
    const auto span = static_cast<dbl>(n - 1);
    // The rank from the top: 1 for p = 1, n for p = 0. A NaN has none.
    const dbl rank = (1.0 - p) * span + 1.0;
    const lng k = rank >= 1.0 ? static_cast<lng>(rank) : 0;
    std::array<dbl, 2> found{};
    const int done = vask_select_kth(found.data(), flag, values, type, &k, true);
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

int vask_median_functor(dbl *result, stat_flag *flag, std::span<dbl> values, bte type,
                        const void *) {
    constexpr dbl half = 0.5;
    return vask_percentile_at(result, flag, values, type, &half);
}

int vask_quartile_functor(dbl *result, stat_flag *flag, std::span<dbl> values, bte type,
                          const void *parameter) {
    if (parameter == nullptr)
        return 0;
    const dbl p = static_cast<dbl>(*static_cast<const bte *>(parameter)) * 0.25;
    return vask_percentile_at(result, flag, values, type, &p);
}

} // namespace vask
