// Numbers as most files write them, read eight digits at a time.
#pragma once

#include "rows/isa.h"

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

namespace vask::runner {

/*
 * Both readers take a number of up to 16 (whole) or 8 (decimal) characters behind an optional minus
 * sign, without leading zeros, and refuse every other text: the general readers then decide. Whole
 * numbers are in the spelling in which they are printed, decimals with `as_printed`. `first` tells
 * where memory begins, as up to 16 bytes before `end` are read.
 */

namespace plain_numbers {

inline constexpr std::uint64_t each_byte = 0x0101010101010101;
static_assert(std::endian::native == std::endian::little, "the first byte of a word is its lowest");

//! The last `n` of eight bytes, 1 to 8, with zeros as digits before them.
VASK_ALWAYS_INLINE std::uint64_t last_bytes(const char *end, std::size_t n) noexcept {
    std::uint64_t word = 0;
    std::memcpy(&word, end - sizeof word, sizeof word);
    const std::uint64_t kept = ~std::uint64_t{0} << 8 * (8 - n);
    return (word & kept) | ('0' * each_byte & ~kept);
}

VASK_ALWAYS_INLINE bool are_digits(std::uint64_t word) noexcept {
    constexpr std::uint64_t high = 0xf0 * each_byte;
    // Digits have 3 in their high half, and still do with 6 added.
    return ((word & high) | ((word + 6 * each_byte) & high) >> 4) == 0x33 * each_byte;
}

//! The number of eight digits, by pairs, fours and all.
VASK_ALWAYS_INLINE std::uint32_t number_of_digits(std::uint64_t word) noexcept {
    word -= '0' * each_byte;
    word = word * 10 + (word >> 8);
    constexpr std::uint64_t pairs = 0x000000ff000000ff;
    constexpr std::uint64_t upper = 100 + (std::uint64_t{1000000} << 32);
    constexpr std::uint64_t lower = 1 + (std::uint64_t{10000} << 32);
    return static_cast<std::uint32_t>(((word & pairs) * upper + (word >> 16 & pairs) * lower) >>
                                      32);
}

} // namespace plain_numbers

VASK_ALWAYS_INLINE bool read_plain_integer(const char *begin, const char *end, const char *first,
                                           std::int64_t &value) noexcept {
    using namespace plain_numbers;
    const bool negative = begin != end && *begin == '-';
    begin += negative ? 1 : 0;
    const auto n = static_cast<std::size_t>(end - begin);
    // A lone 0 is fine, but neither -0 nor 07.
    if (n == 0 || n > 16 || end - first < 16 || (*begin == '0' && (n > 1 || negative)))
        return false;
    const std::uint64_t low = last_bytes(end, n < 8 ? n : 8);
    if (!are_digits(low))
        return false;
    value = number_of_digits(low);
    if (n > 8) {
        const std::uint64_t high = last_bytes(end - 8, n - 8);
        if (!are_digits(high))
            return false;
        constexpr std::int64_t eight_digits = 100'000'000;
        value += eight_digits * number_of_digits(high);
    }
    value = negative ? -value : value;
    return true;
}

VASK_ALWAYS_INLINE bool read_plain_decimal(const char *begin, const char *end, const char *first,
                                           bool as_printed, double &value) noexcept {
    using namespace plain_numbers;
    const bool negative = begin != end && *begin == '-';
    begin += negative ? 1 : 0;
    const auto n = static_cast<std::size_t>(end - begin);
    if (n == 0 || n > 8 || end - first < 8)
        return false;
    const std::uint64_t word = last_bytes(end, n);
    const std::uint64_t other = word ^ '.' * each_byte;
    // The lowest byte that is a point is found rightly, and a second one is no digit.
    const std::uint64_t points = (other - each_byte) & ~other & 0x80 * each_byte;
    if (points == 0) {
        if (!are_digits(word) || (*begin == '0' && (n > 1 || negative)))
            return false;
        const double whole = number_of_digits(word);
        value = negative ? -whole : whole;
        return true;
    }
    // The digits before the point move over it.
    const auto bits = static_cast<unsigned>(std::countr_zero(points)) - 7;
    const std::uint64_t before = word & ((std::uint64_t{1} << bits) - 1);
    const std::uint64_t behind = word >> bits >> 8 << bits << 8;
    const std::uint64_t digits = behind | before << 8 | '0';
    const unsigned decimals = 7 - bits / 8;
    // A digit stands on both sides of the point.
    if (!are_digits(digits) || decimals == 0 || decimals + 1 == n ||
        (*begin == '0' && n != decimals + 2))
        return false;
    const std::uint32_t number = number_of_digits(digits);
    static constexpr std::array<double, 8> powers{1, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7};
    // Both are exact, so the quotient is rounded once, as the nearest double is.
    const double quotient = static_cast<double>(number) / powers[decimals];
    constexpr double least_without_exponent = 1e-4;
    if (as_printed && (end[-1] == '0' || quotient < least_without_exponent))
        return false;
    value = negative ? -quotient : quotient;
    return true;
}

} // namespace vask::runner
