// A total order of a column's values, as integers.
#pragma once

#include "rows/isa.h"
#include "vask/kernel/bat.h"

#include <bit>
#include <concepts>
#include <type_traits>

namespace vask {

//! The integer that orders a T.
template <class T>
using order_key_t = std::conditional_t<
    std::integral<T>, T,
    std::conditional_t<sizeof(T) == sizeof(std::int32_t), std::int32_t, std::int64_t>>;

//! Integers order themselves. Floats are ordered as their type's < orders them, and where that says
//! nothing by the total order of IEEE 754: -0.0 before 0.0, a NaN before or after all numbers by
//! its sign. So a sort or a selection never meets an inconsistent comparison, however many NaNs
//! there are: it ends, stays inside the array, and what it finds does not depend on where the
//! values stood.
template <std::integral T>
VASK_ALWAYS_INLINE T order_key(T value) noexcept {
    return value;
}

//! Negative floats run against their bits, so all bits below the sign are turned over.
template <std::floating_point T>
VASK_ALWAYS_INLINE order_key_t<T> order_key(T value) noexcept {
    using key = order_key_t<T>;
    using bits = std::make_unsigned_t<key>;
    const auto k = std::bit_cast<key>(value);
    return static_cast<key>(k ^ static_cast<key>(static_cast<bits>(k >> (8 * sizeof(T) - 1)) >> 1));
}

//! The value of a key.
template <class T>
VASK_ALWAYS_INLINE T from_order_key(order_key_t<T> key) noexcept {
    if constexpr (std::integral<T>) {
        return key;
    } else {
        // Turning bits over undoes itself, and the sign stays.
        return std::bit_cast<T>(order_key(std::bit_cast<T>(key)));
    }
}

} // namespace vask
