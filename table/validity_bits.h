// Bits in Arrow's order: the lowest of each byte first.
#pragma once

#include "rows/isa.h"

#include <cstdint>
#include <cstring>

namespace vask::table {

//! Bits a load gives, and their rows.
inline constexpr std::int64_t word_bits = 64;

//! The `n` bits, 1 to 64, from bit `first` on, zeros behind them. Reads no byte without one of
//! them.
VASK_ALWAYS_INLINE std::uint64_t load_bits(const std::uint8_t *bits, std::int64_t first,
                                           std::int64_t n) noexcept {
    const std::uint8_t *from = bits + first / 8;
    const auto skipped = static_cast<unsigned>(first % 8);
    const std::int64_t bytes = (skipped + n + 7) / 8;
    std::uint64_t word = 0;
    if (bytes >= 8) [[likely]]
        std::memcpy(&word, from, 8);
    else
        for (std::int64_t i = 0; i < bytes; ++i)
            word |= std::uint64_t{from[i]} << 8 * i;
    word >>= skipped;
    if (bytes > 8)
        word |= std::uint64_t{from[8]} << (word_bits - skipped);
    return n == word_bits ? word : word & ((std::uint64_t{1} << n) - 1);
}

} // namespace vask::table
