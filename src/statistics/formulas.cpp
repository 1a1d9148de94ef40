// What sums of powers come to. The order of the operations is part of what the formulas mean: it
// fixes the last bits.
#include "statistics/moments.h"
#include "statistics/pair_statistics.h"

#include <cmath>

namespace vask {

namespace {

// Below this a spread, or a product of two, counts as rounding. It is not scaled by the values:
// columns of very small numbers have no skewness, no correlation and no line. Changing it changes
// which columns have one.
constexpr dbl smallest_spread = 1e-7;

} // namespace

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

} // namespace vask
