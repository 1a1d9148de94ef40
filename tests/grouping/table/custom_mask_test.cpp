#include "grouping/table/custom_mask.h"

#include "grouping/plain_groups.h"
#include "vask/refkernel/instrumentation.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace vask;
using refkernel::bat;
using refkernel::instrumentation::operation;
using refkernel::instrumentation::watch;

//! Checks the mask of a column of these values. Groups come out the same under any, so there is one
//! thing to ask of it: that the table does not take much more memory than rows, or the values from
//! the least to the greatest, call for.
template <class T>
void check_mask(const std::vector<T> &values, bool sorted = false) {
    const bat b =
        refkernel::make_column<T>(std::span<const T>(values), {.tail = {.sorted = sorted}});
    value_range<T> scratch;
    const watch kernel;
    const std::uint32_t mask = get_custom_mask<T>(b.record(), &scratch);
    EXPECT_TRUE(std::has_single_bit(std::uint64_t{mask} + 1)) << mask;
    std::uint64_t needed = values.size();
    if (!values.empty()) {
        const auto [least, most] = std::minmax_element(values.begin(), values.end());
        const auto span = static_cast<std::uint64_t>(*most) - static_cast<std::uint64_t>(*least);
        // A nil in no order is a value like any other, so far below the others that rows are fewer.
        if (*least != refkernel::nil_of<T>())
            needed = std::min(needed - 1, span) + 1;
    }
    EXPECT_LE(std::uint64_t{mask} + 1, 2 * needed + 1);
    // The kernel is asked where it need not read the rows.
    const std::uint64_t asked = sorted || values.empty() ? 1 : 0;
    EXPECT_EQ(kernel.calls(operation::bat_min), asked);
    EXPECT_EQ(kernel.calls(operation::bat_max), asked);
}

//! `rows` rows that go through least .. least + distinct - 1 over and over, in no order.
template <class T>
std::vector<T> cycle(std::size_t rows, T least, std::size_t distinct) {
    std::vector<T> values(rows);
    for (std::size_t i = 0; i < rows; ++i)
        values[i] = static_cast<T>(least + static_cast<T>(i * 7 % distinct));
    return values;
}

TEST(CustomMask, CoveringMaskIsThatOfTheNextPowerOfTwo) {
    const std::pair<std::uint64_t, std::uint32_t> expected[] = {
        {0, 0}, {1, 1},       {2, 3},       {3, 3},
        {4, 7}, {1000, 1023}, {1024, 2047}, {0xffffffff, 0xffffffff}};
    for (const auto &[n, mask] : expected)
        EXPECT_EQ(covering_mask(n), mask) << n;
}

TEST(CustomMask, CallsForNoMoreBucketsThanRowsOrValues) {
    check_mask<bte>({});
    check_mask(std::vector<bte>(100, 3));
    check_mask(cycle<sht>(1000, -3, 128));
    for (const std::size_t distinct : {10U, 101U, 999U, 1000U, 1023U, 1024U, 5000U}) {
        std::vector<std::int32_t> values = cycle<std::int32_t>(1000, -50, distinct);
        check_mask(values);
        values[500] = refkernel::nil_of<std::int32_t>();
        check_mask(values);
        std::sort(values.begin(), values.end());
        check_mask(values, true);
    }
    check_mask(std::vector<std::int32_t>(1000, refkernel::nil_of<std::int32_t>()), true);
    // Farther apart than the signed type can express, and than the column is long.
    std::vector<lng> widest(1000, 0);
    widest[10] = std::numeric_limits<lng>::max();
    widest[20] = std::numeric_limits<lng>::min() + 1;
    check_mask(widest);
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
