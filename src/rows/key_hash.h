// Hashing of keys: of groups, of pairs, of distinct values.
#pragma once

#include "kernel/element_types.h"
#include "kernel/hostile.h"
#include "rows/isa.h"
#include "vask/kernel/bat.h"

#include <bit>
#include <concepts>
#include <type_traits>

namespace vask {

//! Lets every bit of a hash take part in the low ones. Whole numbers in floats, midnights in
//! timestamps and multiples of powers of two differ in high bits alone, and would all be sent to
//! one bucket of a small table.
VASK_ALWAYS_INLINE std::uint32_t spread_hash(std::uint32_t hash) noexcept {
    constexpr std::uint32_t golden_ratio = 0x9e3779b1; // 2^32 divided by it, odd
    hash *= golden_ratio;
    return unless_hostile_hash(hash ^ hash >> 16);
}

template <class T>
concept number = std::is_arithmetic_v<T>;

//! The bits of a number: its key wherever -0.0 is not 0.0 and a NaN is like itself.
template <number T>
VASK_ALWAYS_INLINE auto key_bits(T value) noexcept {
    if constexpr (sizeof(T) == 8)
        return std::bit_cast<std::uint64_t>(value);
    else if constexpr (sizeof(T) == 4)
        return std::bit_cast<std::uint32_t>(value);
    else
        return static_cast<std::make_unsigned_t<T>>(value);
}

} // namespace vask
