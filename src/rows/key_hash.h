// Hashing of keys: of groups, of pairs, of distinct values.
#pragma once

#include "kernel/hostile.h"
#include "rows/isa.h"
#include "vask/kernel/bat.h"

#include <bit>
#include <concepts>
#include <type_traits>

namespace vask {

//! A text key: the address of its first byte in the column's heap.
using str = const char *;

//! Spreads 32 bits over the low ones, by which tables pick their buckets. Rotates to the left
//! where the kernel's own bucket function of oids rotates to the right: its chains are the kernel's
//! interface, these are not, and neither may become the other.
VASK_ALWAYS_INLINE std::uint32_t vask_hash_mix(std::uint32_t x) noexcept {
    return unless_hostile_hash(std::rotl(x, 7) ^ (((x >> 8) ^ x) >> 13) ^ x);
}

//! Lets every bit of a hash take part in the low ones. Whole numbers in floats, midnights in
//! timestamps and multiples of powers of two differ in high bits alone, and would all be sent to
//! one bucket of a small table.
VASK_ALWAYS_INLINE std::uint32_t spread_hash(std::uint32_t hash) noexcept {
    constexpr std::uint32_t golden_ratio = 0x9e3779b1; // 2^32 divided by it, odd
    hash *= golden_ratio;
    return unless_hostile_hash(hash ^ hash >> 16);
}

//! Polynomial hash of a zero-terminated text with the customary factor 31, over signed bytes, in
//! wrapping 32-bit arithmetic. The empty text gives 0.
VASK_ALWAYS_INLINE std::uint32_t vask_str_hash(str s) noexcept {
    constexpr std::uint32_t factor = 31;
    auto signed_byte = [](char c) {
        return static_cast<std::uint32_t>(static_cast<std::int32_t>(static_cast<signed char>(c)));
    };
    std::uint32_t h = signed_byte(*s);
    if (h != 0)
        while (*++s != '\0')
            h = h * factor + signed_byte(*s);
    return h;
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

//! The 32 bits by which a value takes part in a bucket: narrow integers sign-extended, of eight
//! bytes the halves folded, of a text its hash.
template <class T>
VASK_ALWAYS_INLINE std::uint32_t hash_word(T value) noexcept {
    if constexpr (std::same_as<T, str>) {
        return vask_str_hash(value);
    } else if constexpr (sizeof(T) == 8) {
        const std::uint64_t bits = key_bits(value);
        return static_cast<std::uint32_t>(bits >> 32) ^ static_cast<std::uint32_t>(bits);
    } else if constexpr (std::integral<T>) {
        return static_cast<std::uint32_t>(static_cast<std::int32_t>(value));
    } else {
        return key_bits(value);
    }
}

} // namespace vask
