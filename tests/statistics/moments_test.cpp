#include "statistics/moments.h"

#include "aggregates/column_check.h"
#include "aggregates/grouped_check.h"
#include "statistics/plain_statistics.h"
#include "vask/ops.h"

#include <utility>

#include <gtest/gtest.h>

namespace {

using namespace support;
using refkernel::bat;
using refkernel::nil_of;

using column_statistic = char *(*)(double *, const std::int32_t *);

// In the order of plain_moments.
constexpr column_statistic statistics[] = {vask_stdev,     vask_stdevp, vask_variance,
                                           vask_variancep, vask_skews,  vask_skewp};
constexpr grouped_function grouped_statistics[] = {vask_grp_stdev,    vask_grp_stdevp,
                                                   vask_grp_variance, vask_grp_variancep,
                                                   vask_grp_skews,    vask_grp_skewp};

double run(column_statistic statistic, const bat &b) {
    double result = 0;
    EXPECT_EQ(call(statistic(&result, b.slot())), success);
    return result;
}

template <class T>
double run(column_statistic statistic, const std::vector<T> &values) {
    return run(statistic, column_of(values));
}

template <std::size_t... place>
void check_moments(std::index_sequence<place...>) {
    (check_column<moment_at<place>::template aggregate>(statistics[place]), ...);
}

template <std::size_t... place>
void check_grouped_moments(std::index_sequence<place...>) {
    // Shapes come by row counts and heads in turn: with 7 turns each moment meets all of both.
    (check_grouped<moment_at<place>::template aggregate>(grouped_statistics[place], std::nullopt,
                                                         place, 7),
     ...);
}

constexpr auto all_places = std::make_index_sequence<std::size(plain_moments)>();

TEST(Moments, AgreeBitForBitWithAPlainLoop) {
    check_moments(all_places);
}

TEST(GroupedMoments, AgreeBitForBitWithPlainLoops) {
    check_grouped_moments(all_places);
}

// Nil exactly where the definition divides by 0.
TEST(Moments, AgreeWithTheTextbookWholeAndByGroup) {
    constexpr BUN groups = 4; // the last one is empty
    const auto expect_near = [](double found, const textbook_moment &textbook) {
        EXPECT_EQ(found == nil_of<double>(), !textbook.value) << found;
        if (textbook.value) {
            EXPECT_NEAR(found, *textbook.value, textbook.accuracy);
        }
    };
    std::uint32_t seed = 0;
    for (const BUN rows : {1U, 2U, 3U, 4U, 7U, 20U, 3000U})
        for (const std::uint32_t distinct : {1U, 2U, 9U, 1'000'000U})
            for_each_number_type([&]<class T>(T) {
                std::mt19937 random(++seed);
                auto values = statistic_values<T>(rows, distinct, seed % 2 * 20, random);
                // Numbers all on one side of 0 as well.
                for (T &v : values)
                    if (seed % 3 == 0 && v != nil_of<T>())
                        v = static_cast<T>(v / 2 + std::numeric_limits<std::int8_t>::max() / 2);
                std::vector<oid> ids;
                std::vector<T> all;
                std::vector<std::vector<T>> members(groups);
                for (const T v : values) {
                    ids.push_back(static_cast<oid>(random() % (groups - 1)));
                    if (v != nil_of<T>()) {
                        all.push_back(v);
                        members[ids.back()].push_back(v);
                    }
                }
                const kernel_settings settings(static_cast<std::int32_t>(seed % 3 + 1));
                const bat column = column_of(values);
                const bat map = column_of(ids);
                const bat extents = refkernel::make_void_column(groups);
                for (std::size_t i = 0; i < std::size(statistics); ++i) {
                    const plain_moment &moment = plain_moments[i];
                    SCOPED_TRACE(testing::Message() << moment.name << " of " << rows << " rows of "
                                                    << sizeof(T) << " bytes, seed " << seed);
                    expect_near(run(statistics[i], column), {moment, all});
                    const bat by_group = call_grouped(grouped_statistics[i], column, map, extents);
                    for (BUN j = 0; j < groups; ++j)
                        expect_near(by_group.values<double>()[j], {moment, members[j]});
                }
            });
}

TEST(Moments, KnownValues) {
    const double nil = nil_of<double>();
    EXPECT_EQ(run(vask_variance, std::vector{1, nil_of<std::int32_t>(), 3}), 2);
    // The spread counts as none below a fixed threshold, whatever the variance.
    const std::vector<double> close{1e-5, 2e-5, 4e-5};
    EXPECT_EQ(run(vask_skews, close), nil);
    EXPECT_GT(run(vask_variance, close), 0);
    // Cancellation makes the numerator negative; the result is clamped.
    for (std::uint32_t seed = 0; seed < 200; ++seed) {
        std::mt19937 random(seed);
        const std::vector<double> same(random() % 20 + 3, 1e8 + random_share(random));
        EXPECT_GE(run(vask_stdev, same), 0) << "seed " << seed;
    }
    EXPECT_TRUE(std::isnan(
        run(vask_variance, std::vector{1.0, std::numeric_limits<double>::quiet_NaN(), 3.0})));
    EXPECT_EQ(run(vask_variancep, std::vector<std::int64_t>{lng{1} << 62, -(lng{1} << 62)}),
              std::pow(2.0, 124));
}

TEST(Moments, OfNoRowsAreNil) {
    const bat empty = refkernel::make_column(std::vector<std::int8_t>());
    const bat no_oids = refkernel::make_void_column(0, 10);
    for (const column_statistic statistic : statistics)
        for (const bat *b : {&empty, &no_oids})
            EXPECT_EQ(run(statistic, *b), nil_of<double>());
}

TEST(GroupedMoments, OfRowsThatAreGroups) {
    const double nil = nil_of<double>();
    const bat values = column_of(std::vector<std::int32_t>{9, 4, nil_of<std::int32_t>(), 7, 8});
    const bat view = refkernel::view_rows(values, 1, 4);
    const bat map = refkernel::make_void_column(4, 7);
    for (std::size_t i = 0; i < std::size(grouped_statistics); ++i) {
        const leak_guard leaks;
        const bat result = call_grouped(grouped_statistics[i], view, map, map);
        const bool zeros = plain_moments[i].population && !plain_moments[i].skewness;
        const double zero = zeros ? 0 : nil;
        // Positions count from 0, not from the view's first, and the marks say no nil whatever
        // there is: both intended.
        for (const BUN j : {0U, 1U, 3U})
            EXPECT_EQ(result.values<double>()[j], zero) << plain_moments[i].name << j;
        EXPECT_EQ(result.values<double>()[2], nil);
        expect_grouped_shape(result, map, TYPE_dbl, false);
    }
}

} // namespace
