#include "table/merged_moments.h"

#include <algorithm>
#include <cmath>

namespace vask::table {
namespace {

// Spreads below this count as rounding, as the operators have it.
constexpr double smallest_spread = 1e-7;

} // namespace

std::optional<double> moment_of(const function_rule &rule, const merged_moments &of) {
    const bool population = rule.name.back() == 'p';
    const double n = of.n;
    if (rule.name.substr(0, 4) == "skew") {
        if (n <= (population ? 1 : 2))
            return std::nullopt;
        if (!(n * n * of.m2 >= smallest_spread))
            return of.m2 != of.m2 ? std::optional(of.m2) : std::nullopt;
        const double skew = std::sqrt(n) * of.m3 / std::pow(of.m2, 1.5);
        return population ? skew : skew * std::sqrt(n * (n - 1)) / (n - 2);
    }
    if (n <= (population ? 0 : 1))
        return std::nullopt;
    const double m2 = of.m2 < 0 ? 0 : of.m2;
    const double variance = m2 / (population ? n : n - 1);
    return rule.name.substr(0, 5) == "stdev" ? std::sqrt(variance) : variance;
}

std::optional<double> pair_of(const function_rule &rule, const merged_pairs &of) {
    if (of.n < 1)
        return std::nullopt;
    if (rule.name == "covarp")
        return of.c / of.n;
    if (rule.name == "covars")
        return of.n < 2 ? std::nullopt : std::optional(of.c / (of.n - 1));
    if (rule.name == "correl") {
        if (of.n * of.m2_x * of.n * of.m2_y < smallest_spread)
            return std::nullopt;
        return std::clamp(of.c / std::sqrt(of.m2_x * of.m2_y), -1.0, 1.0);
    }
    if (std::abs(of.n * of.m2_y) < smallest_spread)
        return std::nullopt;
    const double slope = of.c / of.m2_y;
    if (rule.name == "slope")
        return slope;
    return of.centre_x + (of.mean_x - slope * (of.centre_y + of.mean_y));
}

} // namespace vask::table
