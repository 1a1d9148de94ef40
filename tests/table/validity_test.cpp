#include "table/validity.h"

#include "support/instruction_sets.h"
#include "table/guarded_memory.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace vask::table;
template <class T>
using guarded = support::guarded_memory<T>;

// On either side of a word, and of a task.
constexpr std::int64_t task = validity_task_rows;
constexpr std::int64_t row_counts[] = {0,  1,  7,        8,    9,        63,
                                       64, 65, task - 1, task, task + 1, 3 * task + 70};

bool bit_at(const std::uint8_t *bits, std::int64_t i) {
    return (bits[i / 8] >> i % 8 & 1) != 0;
}

//! Bits of which a share, in 16ths, is 1, with nothing behind the last row's byte.
guarded<std::uint8_t> draw_bits(std::int64_t rows, unsigned ones, std::mt19937 &random) {
    std::vector<std::uint8_t> bits(static_cast<std::size_t>((rows + 7) / 8));
    for (std::uint8_t &byte : bits)
        for (unsigned bit = 0; bit < 8; ++bit)
            byte = static_cast<std::uint8_t>(byte | (random() % 16 < ones ? 1U << bit : 0U));
    return guarded<std::uint8_t>(bits);
}

//! Calls `body(rows, first_bit, ones, random)` for the shapes of columns on each instruction set.
template <class Body>
void for_each_shape(Body body) {
    std::uint64_t turn = 0;
    for (const std::int64_t rows : row_counts)
        for (const std::int64_t first_bit : {0, 3, 64, 77})
            for (const unsigned ones : {0U, 8U, 15U, 16U}) {
                const support::instruction_set_of_turn set(++turn);
                SCOPED_TRACE(std::to_string(rows) + " rows from bit " + std::to_string(first_bit) +
                             ", " + std::to_string(ones) + " of 16 bits are 1");
                std::mt19937 random(static_cast<unsigned>(turn));
                body(rows, first_bit, ones, random);
                if (testing::Test::HasFatalFailure())
                    return;
            }
}

template <class From, class To>
void check_copy(const std::string &name, To nil) {
    SCOPED_TRACE(name);
    for_each_shape(
        [&](std::int64_t rows, std::int64_t first_bit, unsigned ones, std::mt19937 &random) {
            const auto bits = draw_bits(first_bit + rows, ones, random);
            const guarded<From> values(static_cast<std::size_t>(rows));
            for (std::size_t i = 0; i < values.size(); ++i)
                values[i] = static_cast<From>(static_cast<std::int64_t>(random()) - 0x7fffffff);
            const guarded<To> to(values.size());
            for (const bool all : {false, true}) {
                copy_with_nils(values.data(), all ? nullptr : bits.data(), first_bit, rows, nil,
                               to.data());
                std::int64_t wrong = 0;
                for (std::int64_t i = 0; i < rows; ++i) {
                    const auto at = static_cast<std::size_t>(i);
                    const bool valid = all || bit_at(bits.data(), first_bit + i);
                    wrong += to[at] != (valid ? static_cast<To>(values[at]) : nil);
                }
                ASSERT_EQ(wrong, 0);
            }

            // The way back.
            copy_with_nils(values.data(), bits.data(), first_bit, rows, nil, to.data());
            const guarded<std::uint8_t> back(static_cast<std::size_t>((rows + 7) / 8));
            std::fill_n(back.data(), back.size(), std::uint8_t{0xa5});
            const std::int64_t nils = bitmap_of(to.data(), rows, nil, back.data());
            std::int64_t expected_nils = 0;
            std::int64_t wrong = 0;
            for (std::int64_t i = 0; i < static_cast<std::int64_t>(back.size()) * 8; ++i) {
                const bool is_nil = i < rows && to[static_cast<std::size_t>(i)] == nil;
                expected_nils += is_nil;
                wrong += bit_at(back.data(), i) != (i < rows && !is_nil);
            }
            ASSERT_EQ(wrong, 0);
            ASSERT_EQ(nils, expected_nils);
        });
}

TEST(Validity, CopiesBecomeNilsAndBitsAgain) {
    check_copy<std::int8_t>("int8", std::int8_t{-128});
    check_copy<std::int16_t>("int16", std::int16_t{-32768});
    check_copy<std::int32_t>("int32", std::numeric_limits<std::int32_t>::min());
    check_copy<std::int64_t>("int64", std::numeric_limits<std::int64_t>::min());
    check_copy<float>("float", std::numeric_limits<float>::lowest());
    check_copy<double>("double", std::numeric_limits<double>::lowest());
}

TEST(Validity, CopiesWiden) {
    check_copy<std::int8_t>("int8", std::int16_t{-32768});
    check_copy<std::uint8_t>("uint8", std::int16_t{-32768});
    check_copy<std::int16_t>("int16", std::numeric_limits<std::int32_t>::min());
    check_copy<std::uint16_t>("uint16", std::numeric_limits<std::int32_t>::min());
    check_copy<std::int32_t>("int32", std::numeric_limits<std::int64_t>::min());
    check_copy<std::uint32_t>("uint32", std::numeric_limits<std::int64_t>::min());
    check_copy<std::uint8_t>("uint8 to int64", std::numeric_limits<std::int64_t>::min());
    check_copy<float>("float", std::numeric_limits<double>::lowest());
}

TEST(Validity, BooleansOfBits) {
    for_each_shape(
        [](std::int64_t rows, std::int64_t first_bit, unsigned ones, std::mt19937 &random) {
            const std::int64_t first_value = random() % 70;
            const auto values = draw_bits(first_value + rows, 8, random);
            const auto validity = draw_bits(first_bit + rows, ones, random);
            const guarded<std::int8_t> to(static_cast<std::size_t>(rows));
            for (const bool all : {false, true}) {
                copy_bits_with_nils(values.data(), first_value, all ? nullptr : validity.data(),
                                    first_bit, rows, -128, to.data());
                std::int64_t wrong = 0;
                for (std::int64_t i = 0; i < rows; ++i) {
                    const bool valid = all || bit_at(validity.data(), first_bit + i);
                    const int expected = valid ? bit_at(values.data(), first_value + i) : -128;
                    wrong += to[static_cast<std::size_t>(i)] != expected;
                }
                ASSERT_EQ(wrong, 0);
            }

            std::int64_t count = 0;
            for (std::int64_t i = 0; i < rows; ++i)
                count += bit_at(validity.data(), first_bit + i);
            ASSERT_EQ(count_bits(validity.data(), first_bit, rows), count);
        });
}

} // namespace
