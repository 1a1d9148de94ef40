// Between values beside validity bits and dense arrays in which one number, the nil, is no value.
#pragma once

#include "table/parallel.h"
#include "table/validity_bits.h"

#include "rows/isa.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace vask::table {

// All functions cut many rows into tasks. Validity bits are 1 for values, and null if all rows have
// values; values of other rows are not looked at.

//! Rows of a task; a multiple of the rows whose bits share a cache line.
inline constexpr std::int64_t validity_task_rows = std::int64_t{1} << 17;

//! Calls body(begin, end) for ranges of 0 .. rows - 1 that begin at multiples of 64, as tasks.
template <class Body>
void for_row_ranges(std::int64_t rows, const Body &body) {
    const std::int64_t n = (rows + validity_task_rows - 1) / validity_task_rows;
    for_each_number(static_cast<std::size_t>(n), [&](std::size_t i) {
        const std::int64_t begin = static_cast<std::int64_t>(i) * validity_task_rows;
        body(begin, std::min(begin + validity_task_rows, rows));
    });
}

template <std::size_t Bytes>
using unsigned_of_size = std::conditional_t<
    Bytes == 1, std::uint8_t,
    std::conditional_t<Bytes == 2, std::uint16_t,
                       std::conditional_t<Bytes == 4, std::uint32_t, std::uint64_t>>>;

//! Spreads eight bits over the bytes of a word: 0 or 1 each, the lowest bit first.
VASK_ALWAYS_INLINE std::uint64_t bits_to_bytes(std::uint64_t bits) noexcept {
    constexpr std::uint64_t every_byte = 0x0101010101010101;
    constexpr std::uint64_t bit_of_byte = 0x8040201008040201; // the i-th bit in the i-th byte
    // A byte that is not zero is at most 0x80, and carries into its highest bit alone.
    return (((bits * every_byte & bit_of_byte) + every_byte * 0x7f) >> 7) & every_byte;
}

//! Gathers the lowest bits of the bytes of a word, each 0 or 1.
VASK_ALWAYS_INLINE std::uint64_t bytes_to_bits(std::uint64_t bytes) noexcept {
    return bytes * 0x0102040810204080 >> 56;
}

//! Copies 64 values, or the nil where the bit of `valid` is 0. By way of bytes and masks, which no
//! compiler turns into branches: those took up to 5 ns a row where half of the rows have no value.
template <class To, class From>
VASK_ALWAYS_INLINE void copy_word(const From *values, std::uint64_t valid, To nil,
                                  To *to) noexcept {
    using lane = unsigned_of_size<sizeof(To)>;
    std::uint8_t is_valid[word_bits];
    for (unsigned i = 0; i < word_bits; i += 8) {
        const std::uint64_t bytes = bits_to_bytes(valid >> i & 0xff);
        std::memcpy(is_valid + i, &bytes, sizeof bytes);
    }
    for (unsigned i = 0; i < word_bits; ++i) {
        const auto kept = static_cast<lane>(0 - static_cast<lane>(is_valid[i]));
        to[i] = std::bit_cast<To>(
            static_cast<lane>((std::bit_cast<lane>(static_cast<To>(values[i])) & kept) |
                              (std::bit_cast<lane>(nil) & ~kept)));
    }
}

//! Copies values, widened if To is wider, and the nil where there is no value. `values` and `to` do
//! not overlap. Integers go to integers that hold all of them.
template <class From, class To>
void copy_with_nils(const From *values, const std::uint8_t *validity, std::int64_t first_bit,
                    std::int64_t rows, To nil, To *to) {
    static_assert(std::is_arithmetic_v<From> && std::is_arithmetic_v<To> &&
                  sizeof(From) <= sizeof(To));
    for_row_ranges(rows, [=](std::int64_t begin, std::int64_t end) {
        with_best_instruction_set([=]() __attribute__((always_inline)) {
            std::int64_t row = begin;
            if (validity == nullptr) {
                for (; row < end; ++row)
                    to[row] = static_cast<To>(values[row]);
                return;
            }
            for (; row + word_bits <= end; row += word_bits)
                copy_word(values + row, load_bits(validity, first_bit + row, word_bits), nil,
                          to + row);
            if (row == end)
                return;
            const std::uint64_t valid = load_bits(validity, first_bit + row, end - row);
            for (std::int64_t i = 0; row < end; ++i, ++row)
                to[row] = (valid >> i & 1) != 0 ? static_cast<To>(values[row]) : nil;
        });
    });
}

//! The validity bits of 64 values. By way of bytes, which compilers write without a branch: where
//! bits were set one by one, a row took up to 5 ns when half of the values were nils.
template <class T>
VASK_ALWAYS_INLINE std::uint64_t valid_word(const T *values, T nil) noexcept {
    std::uint8_t valid[word_bits];
    for (unsigned i = 0; i < word_bits; ++i)
        valid[i] = values[i] != nil;
    std::uint64_t word = 0;
    for (unsigned i = 0; i < word_bits; i += 8) {
        std::uint64_t bytes = 0;
        std::memcpy(&bytes, valid + i, sizeof bytes);
        word |= bytes_to_bits(bytes) << i;
    }
    return word;
}

//! Writes validity bits of `rows` values, 0 for those that are the nil (which is no NaN), from bit
//! 0 on. Bits behind them in the last byte are 0. Gives the number of nils.
template <class T>
std::int64_t bitmap_of(const T *values, std::int64_t rows, T nil, std::uint8_t *bits) {
    std::atomic<std::int64_t> nils{0};
    for_row_ranges(rows, [&](std::int64_t begin, std::int64_t end) {
        const std::int64_t here = with_best_instruction_set([=]() __attribute__((always_inline)) {
            std::int64_t valid = 0;
            std::int64_t row = begin;
            for (; row + word_bits <= end; row += word_bits) {
                const std::uint64_t word = valid_word(values + row, nil);
                std::memcpy(bits + row / 8, &word, sizeof word);
                valid += std::popcount(word);
            }
            std::uint64_t word = 0;
            for (std::int64_t i = 0; row + i < end; ++i)
                word |= std::uint64_t{values[row + i] != nil} << i;
            std::memcpy(bits + row / 8, &word, static_cast<std::size_t>((end - row + 7) / 8));
            return end - begin - valid - std::popcount(word);
        });
        nils.fetch_add(here, std::memory_order_relaxed);
    });
    return nils.load(std::memory_order_relaxed);
}

//! Booleans as bits, from bit `first_value` on, to bytes of 0 and 1, and the nil where there is no
//! value.
void copy_bits_with_nils(const std::uint8_t *values, std::int64_t first_value,
                         const std::uint8_t *validity, std::int64_t first_bit, std::int64_t rows,
                         std::int8_t nil, std::int8_t *to);

//! How many of the bits first_bit .. first_bit + rows - 1 are 1.
std::int64_t count_bits(const std::uint8_t *bits, std::int64_t first_bit, std::int64_t rows);

} // namespace vask::table
