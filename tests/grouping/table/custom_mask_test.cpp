#include "grouping/table/custom_mask.h"

#include "grouping/plain_groups.h"

#include <limits>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace vask;
using refkernel::bat;

template <class T>
std::uint32_t mask_of(const std::vector<T> &values, bool sorted = false, BUN first = 0) {
    const bat b = refkernel::make_column<T>(std::span<const T>(values),
                                            {.tail = {.sorted = sorted}, .first = first});
    value_range<T> scratch;
    return get_custom_mask<T>(b.record(), &scratch);
}

//! `rows` rows that go through least .. least + distinct - 1 over and over, in no order.
template <class T>
std::vector<T> cycle(std::size_t rows, T least, std::size_t distinct) {
    std::vector<T> values(rows);
    for (std::size_t i = 0; i < rows; ++i)
        values[i] = static_cast<T>(least + static_cast<T>(i * 7 % distinct));
    return values;
}

TEST(CustomMask, FollowsTheRangeOrTheRows) {
    for (const BUN first : {0U, 5U}) {
        EXPECT_EQ(mask_of<bte>({}), 0U);
        EXPECT_EQ(mask_of(std::vector<bte>(100, 3), false, first), 1U);
        EXPECT_EQ(mask_of(cycle<lng>(1000, 10, 10), false, first), 15U);
        EXPECT_EQ(mask_of(cycle<std::int32_t>(1000, -50, 101), false, first), 127U);
        EXPECT_EQ(mask_of(cycle<sht>(1000, -3, 128), false, first), 255U);
        // As long as the column, and one less.
        EXPECT_EQ(mask_of(cycle<std::int32_t>(1000, 0, 1000), false, first), 1023U);
        EXPECT_EQ(mask_of(cycle<std::int32_t>(1024, 0, 1023), false, first), 1023U);
        EXPECT_EQ(mask_of(cycle<std::int32_t>(1024, 0, 1024), false, first), 2047U);
    }
    std::vector<bte> wide(1000, 0);
    wide[10] = -127;
    wide[20] = 127;
    EXPECT_EQ(mask_of(wide), 255U);
    // Farther apart than the signed type can express, and than the column is long.
    std::vector<lng> widest(1000, 0);
    widest[10] = std::numeric_limits<lng>::max();
    widest[20] = std::numeric_limits<lng>::min() + 1;
    EXPECT_EQ(mask_of(widest), 1023U);
}

TEST(CustomMask, ANilCountsAsAValueUnlessTheTailIsAscending) {
    const std::int32_t nil = refkernel::nil_of<std::int32_t>();
    std::vector<std::int32_t> values = cycle<std::int32_t>(1000, 10, 10);
    values[500] = nil;
    EXPECT_EQ(mask_of(values), 1023U);
    std::sort(values.begin(), values.end());
    EXPECT_EQ(mask_of(values), 1023U);
    EXPECT_EQ(mask_of(values, true), 15U);
    EXPECT_EQ(mask_of(std::vector<std::int32_t>(1000, nil)), 1023U);
    EXPECT_EQ(mask_of(std::vector<std::int32_t>(1000, nil), true), 1023U);
}

TEST(CustomMask, ScanFindsTheEndsAnywhere) {
    const auto check = []<class T>(T) {
        if constexpr (std::is_integral_v<T>)
            for (const std::size_t rows : {1U, 2U, 63U, 64U, 100000U})
                for (const std::size_t at : {std::size_t{0}, rows / 2, rows - 1})
                    for (const bool with_nil : {false, true}) {
                        std::vector<T> values(rows, T{5});
                        values[at] = std::numeric_limits<T>::max();
                        values[rows - 1 - at] = T{-9};
                        const T least = *std::min_element(values.begin(), values.end());
                        const bool nil_fits = with_nil && rows > 3;
                        if (nil_fits)
                            values[rows / 3] = refkernel::nil_of<T>();
                        const bat b = refkernel::make_column<T>(std::span<const T>(values));
                        const value_range<T> range = scan_values<T>(*b.record());
                        EXPECT_EQ(range.min, nil_fits ? refkernel::nil_of<T>() : least);
                        EXPECT_EQ(range.max, *std::max_element(values.begin(), values.end()));
                        EXPECT_EQ(range.least, least);
                    }
    };
    support::for_each_number_type(check);
}

} // namespace
