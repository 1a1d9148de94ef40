// Statistics of a group's values, which they may put in another order.
#pragma once

#include "table/answer.h"

#include "vask/kernel/bat.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <optional>
#include <span>
#include <vector>

namespace vask::table {

// As the operators have it: position p(n - 1), interpolated linearly.
struct place_in_order {
    std::size_t below;
    double share; // of the next value

    place_in_order(double p, std::size_t n) {
        const double position = p * static_cast<double>(n - 1);
        below = static_cast<std::size_t>(position);
        share = position - static_cast<double>(below);
    }
};

// The values at several fractions, ascending; each selects in what lies above the one before.
template <class T>
void select_quantiles(std::span<T> values, std::span<const double> fractions,
                      std::span<std::array<T, 2>> found, std::span<double> shares) {
    std::size_t sorted_to = 0; // values below stand where they would in order
    for (std::size_t i = 0; i < fractions.size(); ++i) {
        const place_in_order place(fractions[i], values.size());
        const auto at = [&](std::size_t n) {
            return values.begin() + static_cast<std::ptrdiff_t>(n);
        };
        if (place.below >= sorted_to) {
            std::nth_element(at(sorted_to), at(place.below), values.end());
            sorted_to = place.below + 1;
        }
        T above = values[place.below];
        if (place.share > 0) {
            if (place.below + 1 >= sorted_to) {
                const auto least = std::min_element(at(place.below + 1), values.end());
                std::iter_swap(at(place.below + 1), least);
                sorted_to = place.below + 2;
            }
            above = values[place.below + 1];
        }
        found[i] = {values[place.below], above};
        shares[i] = place.share;
    }
}

template <class T>
double between(const std::array<T, 2> &found, double share) {
    const auto low = static_cast<double>(found[0]);
    const auto high = static_cast<double>(found[1]);
    return share == 0 ? low : low + share * (high - low);
}

// The same for 64-bit times, of which a dbl would lose digits. Halves go away from zero.
inline lng between_times(const std::array<lng, 2> &found, double share) {
    const auto distance = static_cast<long double>(static_cast<wide_integer>(found[1]) - found[0]);
    const long double way = distance * static_cast<long double>(share);
    const auto below = found[0] + static_cast<wide_integer>(way);
    const long double rest = way - std::floor(way);
    return static_cast<lng>(below + (rest > 0.5L || (rest == 0.5L && below >= 0) ? 1 : 0));
}

template <class T>
double median_distance(std::span<T> values) {
    const std::array<double, 1> half{0.5};
    std::array<std::array<T, 2>, 1> found{};
    std::array<double, 1> share{};
    select_quantiles<T>(values, half, found, share);
    const double median = between(found[0], share[0]);
    std::vector<double> distances(values.size());
    std::transform(values.begin(), values.end(), distances.begin(),
                   [median](T value) { return std::abs(static_cast<double>(value) - median); });
    std::array<std::array<double, 2>, 1> middle{};
    select_quantiles<double>(distances, half, middle, share);
    return between(middle[0], share[0]);
}

template <class T>
std::optional<T> most_frequent(std::span<T> values) {
    std::sort(values.begin(), values.end());
    std::optional<T> mode;
    std::size_t longest = 1;
    for (std::size_t run = 0; run < values.size();) {
        std::size_t end = run + 1;
        while (end < values.size() && values[end] == values[run])
            ++end;
        if (end - run > longest) {
            longest = end - run;
            mode = values[run];
        }
        run = end;
    }
    return mode;
}

} // namespace vask::table
