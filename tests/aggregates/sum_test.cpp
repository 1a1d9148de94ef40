#include "aggregates/column_check.h"
#include "aggregates/grouped_check.h"
#include "vask/ops.h"

#include <gtest/gtest.h>

namespace {

using refkernel::make_column;
using refkernel::nil_of;
using support::call_on_column;

TEST(Sum, AgreesWithThePlainSumWhateverTheName) {
    support::check_column<plain::sum>(vask_sum_flt);
    for (const auto name : {vask_sum_bte, vask_sum_sht, vask_sum_int, vask_sum_wrd, vask_sum_lng,
                            vask_sum_flt, vask_sum_dbl})
        EXPECT_EQ(
            call_on_column<std::int64_t>(name, make_column(std::vector<std::int16_t>{300, -1})),
            299);
}

TEST(Sum, CancellingValuesGiveZeroAndWrappingMayGiveTheNil) {
    constexpr auto least = std::numeric_limits<std::int64_t>::min();
    const support::kernel_settings settings(2);
    EXPECT_EQ(call_on_column<std::int64_t>(
                  vask_sum_lng, make_column(std::vector<std::int64_t>{5, -5, nil_of<lng>()})),
              0);
    EXPECT_EQ(call_on_column<std::int64_t>(vask_sum_lng,
                                           make_column(std::vector<std::int64_t>{
                                               std::numeric_limits<std::int64_t>::max(), 1})),
              least);
    // Singly, -0.0 must not become the sum of an empty start: 0.0 + -0.0 is 0.0.
    EXPECT_FALSE(std::signbit(
        call_on_column<double>(vask_sum_dbl, make_column(std::vector<double>{-0.0, -0.0}))));
}

// More rows of the largest value than 32 bits can sum up.
TEST(Sum, OfManyNarrowIntegersIsWide) {
    constexpr std::int64_t rows = 70'000;
    const support::kernel_settings settings(1);
    for (const std::int16_t v : {std::int16_t{32767}, std::int16_t{-32767}})
        EXPECT_EQ(call_on_column<std::int64_t>(vask_sum_sht,
                                               make_column(std::vector<std::int16_t>(rows, v))),
                  rows * v);
}

TEST(GroupedSum, AgreesWithThePlainSumOnAllShapes) {
    support::check_grouped<plain::sum>(vask_grp_sum);
}

// Blocks with nils are added up another way once each group has seen a value. The last group sees
// one at `first_value`, if at all.
TEST(GroupedSum, OfGroupsThatSeeTheirFirstValueLate) {
    constexpr BUN rows = 150'000;
    constexpr oid groups = 5;
    const support::kernel_settings settings(1);
    for (const BUN first_value : {BUN{0}, BUN{70'004}, rows - 1, rows}) {
        std::vector<oid> map(rows);
        std::vector<double> values(rows);
        std::vector<double> expected(groups);
        for (BUN row = 0; row < rows; ++row) {
            map[row] = row % groups;
            const bool is_nil = map[row] == groups - 1 ? row < first_value : row % 7 == 0;
            values[row] = is_nil ? nil_of<double>() : 0.1 * row;
            expected[map[row]] += is_nil ? 0 : values[row];
        }
        if (first_value == rows)
            expected[groups - 1] = nil_of<double>();
        const refkernel::bat sums = support::call_grouped(
            vask_grp_sum, make_column(std::move(values)), make_column(std::move(map)),
            make_column(std::vector<std::int64_t>(groups), {.type = TYPE_wrd}));
        for (oid group = 0; group < groups; ++group)
            EXPECT_EQ(sums.values<double>()[group], expected[group])
                << group << ", from row " << first_value;
    }
}

TEST(GroupedSum, OfRowsThatAreGroupsIsTheValue) {
    support::for_each_arithmetic_type([]<class T>(int type) {
        using types = vask::sum_result<T>;
        using result = typename types::type;
        support::check_row_groups<types, T>(vask_grp_sum, type, [](T v) {
            return v == nil_of<T>() ? nil_of<result>() : static_cast<result>(v);
        });
    });
}

} // namespace
