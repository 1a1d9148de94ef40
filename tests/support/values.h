// Values of every element type for generated cases, and how results are compared.
#pragma once

#include "support/element_types.h"
#include "vask/embed.h"

#include <cmath>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <random>
#include <type_traits>
#include <vector>

namespace support {

//! What values a column holds besides nils: `near` ones, many of them equal, for floats of either
//! zero; `far` ones over the whole range, on which additions wrap or round; `any` has NaN and the
//! infinities too.
enum class spread { near, far, any };

template <class T>
T draw_value(std::mt19937 &random, spread values) {
    if constexpr (std::floating_point<T>) {
        constexpr T odd[] = {T(0.0), T(-0.0), std::numeric_limits<T>::quiet_NaN(),
                             std::numeric_limits<T>::infinity(),
                             -std::numeric_limits<T>::infinity()};
        if (values == spread::near)
            return random() % 4 == 0 ? odd[random() % 2]
                                     : static_cast<T>(static_cast<int>(random() % 9) - 4);
        if (values == spread::any && random() % 8 == 0)
            return odd[random() % 5];
        return static_cast<T>(std::ldexp(1.0 + static_cast<double>(random()) / 4294967296.0,
                                         static_cast<int>(random() % 60) - 30)) *
               (random() % 2 ? T(1) : T(-1));
    } else {
        if (values == spread::near)
            return static_cast<T>(static_cast<int>(random() % 9) - 4);
        return static_cast<T>(std::uint64_t{random()} << 32 | random());
    }
}

//! n values, about `nil_percent` of them nil; 0 and 100 are exact.
template <class T>
std::vector<T> draw_values(std::mt19937 &random, std::size_t n, int nil_percent, spread values) {
    std::vector<T> drawn(n);
    for (T &v : drawn) {
        do
            v = draw_value<T>(random, values);
        while (v == refkernel::nil_of<T>());
        if (static_cast<int>(random() % 100) < nil_percent)
            v = refkernel::nil_of<T>();
    }
    return drawn;
}

//! Nothing for the nil.
template <class T>
std::optional<T> unless_nil(T value) {
    return value == refkernel::nil_of<T>() ? std::nullopt : std::optional(value);
}

//! Equal to the last bit, but for the bits of a NaN.
template <class T>
bool same_value(T a, T b) {
    if constexpr (std::floating_point<T>)
        if (std::isnan(a) || std::isnan(b))
            return std::isnan(a) && std::isnan(b);
    return std::memcmp(&a, &b, sizeof a) == 0;
}

} // namespace support
