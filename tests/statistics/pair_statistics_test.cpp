#include "statistics/pair_statistics.h"

#include "aggregates/grouped_check.h"
#include "statistics/paired_columns.h"
#include "support/instruction_sets.h"
#include "support/replaced_comparison.h"
#include "vask/ops.h"

#include <algorithm>
#include <random>

#include <gtest/gtest.h>

namespace {

using namespace support;
using refkernel::bat;
using refkernel::nil_of;
using refkernel::take_exception;
using refkernel::instrumentation::watch;

using pair_statistic = char *(*)(double *, const std::int32_t *, const std::int32_t *);

// In the order of plain_pair_statistics.
constexpr pair_statistic statistics[] = {vask_covars, vask_covarp, vask_correl, vask_slope,
                                         vask_intercept};

using grouped_pair_statistic = char *(*)(std::int32_t *, const std::int32_t *, const std::int32_t *,
                                         const std::int32_t *, const std::int32_t *);

constexpr grouped_pair_statistic grouped_statistics[] = {
    vask_grp_covars, vask_grp_covarp, vask_grp_correl, vask_grp_slope, vask_grp_intercept};

refkernel::operator_failure refused(const char *text) {
    return {"vask_2_args_statistical_func", text};
}

//! The call with x and y in the places that make them the first and the second column.
refkernel::operator_failure call(std::size_t i, double *result, const bat &x, const bat &y) {
    const bool is_line = plain_pair_statistics[i].is_line;
    const bat &a = is_line ? y : x;
    const bat &b = is_line ? x : y;
    return take_exception(statistics[i](result, a.slot(), b.slot()));
}

template <class T, class U>
double run(std::size_t i, const std::vector<T> &x, const std::vector<U> &y) {
    double result = 0;
    EXPECT_EQ(call(i, &result, column_of(x), column_of(y)), success);
    return result;
}

bat run_grouped(std::size_t i, const bat &x, const bat &y, const bat &g, const bat &e) {
    const bool is_line = plain_pair_statistics[i].is_line;
    const bat &a = is_line ? y : x;
    const bat &b = is_line ? x : y;
    std::int32_t id = 0;
    EXPECT_EQ(take_exception(grouped_statistics[i](&id, a.slot(), b.slot(), g.slot(), e.slot())),
              success);
    return bat::adopt(id);
}

// Every pair of types, each statistic whole and one of them by group.
TEST(PairStatistics, AgreeBitForBitWithPlainLoopsWholeAndByGroup) {
    constexpr std::size_t types = std::size(statistic_types);
    std::size_t turn = 0;
    for (const grouped_shape &shape : grouped_shapes()) {
        grouped_inputs inputs(shape);
        std::mt19937 &random = inputs.random();
        for (const std::size_t draw : {0U, 1U, 2U, 3U, 4U}) {
            const int type_x = statistic_types[turn % types];
            const int type_y = statistic_types[turn / types % types];
            const std::size_t grouped = (draw + turn / (types * types)) % std::size(statistics);
            const instruction_set_of_turn instructions(turn++);
            const std::uint32_t nils = std::array{0U, 2U, 30U, 100U}[random() % 4];
            const std::int32_t threads = std::array{1, 2, 3, 8, 300}[random() % 5];
            const BUN partitions = plain_partitions(shape.rows, threads);
            const bool specials = random() % 3 == 0; // NaNs and infinities
            const BUN other_first = random() % 3 == 0 ? 4 : shape.first;
            const auto classes = plain_classes(type_x, type_y);
            column_pair columns{
                any_column(type_x, shape.rows, shape.first, shape.first, nils, random, specials),
                any_column(type_y, shape.rows, other_first, shape.first, nils, random, specials),
                classes.value_or(std::pair(0, 0)), false};
            const bat &x = columns.x.view;
            const bat &y = columns.y.view;
            const auto counts = [&](BUN row) { return !columns.dropped(row); };
            const auto add = [&](BUN row, plain_pair_sums &sums) { columns.add(row, sums); };
            const kernel_settings settings(threads);
            for (std::size_t i = 0; i < std::size(statistics); ++i) {
                const plain_pair_statistic &plain = plain_pair_statistics[i];
                SCOPED_TRACE(testing::Message()
                             << plain.name << " of types " << type_x << " and " << type_y << ", "
                             << shape << " and " << other_first << ", " << nils << "% nil, "
                             << threads << " threads");
                columns.is_line = plain.is_line;
                const watch kernel;
                const leak_guard leaks;
                double result = 3;
                const auto failure = call(i, &result, x, y);
                if (!classes) { // of no rows nobody asks
                    ASSERT_EQ(failure, shape.rows == 0 ? success : refused("operation failed"));
                    ASSERT_EQ(result, shape.rows == 0 ? nil_of<double>() : 3);
                    continue;
                }
                ASSERT_EQ(failure, success);
                const double expected = plain.of(sums_of<plain_pair_sums>(
                    rows_by_partition(shape.rows, partitions, counts), add));
                ASSERT_TRUE(same_value(result, expected)) << result << " and not " << expected;
                if (i != grouped)
                    continue;
                const bat by_group = run_grouped(i, x, y, inputs.map, inputs.extents);
                expect_groups<double>(
                    by_group, inputs.extents, TYPE_dbl, inputs.rows_by_group(partitions, counts),
                    [&](const auto &group) {
                        return unless_nil(plain.of(sums_of<plain_pair_sums>(group, add)));
                    });
            }
        }
    }
}

TEST(PairStatistics, KnownValues) {
    enum { covars, covarp, correl, slope, intercept };
    const double nil = nil_of<double>();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    using ints = std::vector<std::int32_t>;
    using doubles = std::vector<double>;
    struct {
        doubles x, y;
        double expected[5];
    } const cases[] = {
        {{5}, {7}, {nil, 0, nil, nil, nil}},
        {{1, 3}, {2, 6}, {4, 2, 1, 2, 0}},
        {{1, 3, nil, 9}, {6, 2, 9, nil}, {-4, -2, -1, -2, 8}},
        {{nil, nil}, {1, 2}, {nil, nil, nil, nil, nil}},
        {{2, 2, 2}, {1, 2, 3}, {0, 0, nil, nil, nil}},
        {{1, 2, 3}, {2, 2, 2}, {0, 0, nil, 0, 2}},
        // n·Sxx − Sx² is 1.6e-7, and of 0.0003 below it is 9e-8.
        {{0, 0.0004}, {0, 1000}, {0.2, 0.1, 1, 2.5e6, 0}},
    };
    for (const auto &c : cases)
        for (int i = 0; i < 5; ++i)
            EXPECT_NEAR(run(static_cast<std::size_t>(i), c.x, c.y), c.expected[i],
                        std::fabs(c.expected[i]) * 1e-12)
                << plain_pair_statistics[i].name << " of " << c.x.size() << " rows";
    const doubles close{0, 0.0003};
    EXPECT_EQ(run(correl, close, close), nil);
    EXPECT_EQ(run(slope, close, close), nil);
    EXPECT_EQ(run(intercept, close, close), nil);
    EXPECT_GT(run(covars, close, close), 0);
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(std::isnan(run(static_cast<std::size_t>(i), doubles{1, nan, 4}, ints{1, 2, 3})))
            << plain_pair_statistics[i].name;
    // Rounding takes the quotient beyond 1 or below −1 now and then; the result is cut.
    int cut = 0;
    for (std::uint32_t seed = 0; seed < 300; ++seed) {
        std::mt19937 random(seed);
        const double factor = seed % 2 == 0 ? 3 : -3;
        doubles x(random() % 20 + 2);
        doubles y;
        for (double &v : x)
            y.push_back(factor * (v = 10 * random_share(random)));
        const double r = run(correl, x, y);
        EXPECT_NEAR(r, factor / 3, 1e-9) << "seed " << seed;
        EXPECT_LE(std::fabs(r), 1) << "seed " << seed;
        cut += std::fabs(r) == 1;
    }
    EXPECT_GT(cut, 20);
    // Where all x are equal, rounding makes n·Sxx − Sx² anything; if it is far from 0, on either
    // side, there is a line.
    int negative = 0;
    for (std::uint32_t seed = 0; seed < 200; ++seed) {
        std::mt19937 random(seed);
        const doubles x(random() % 20 + 3, 1e8 + random_share(random));
        const doubles y(x.size(), 2.5);
        plain_pair_sums sums;
        for (std::size_t row = 0; row < x.size(); ++row)
            sums.add(x[row], y[row]);
        negative += sums.n * sums.xx - sums.x * sums.x < -1;
        EXPECT_EQ(run(slope, x, y), sums.line(true)) << "seed " << seed;
        EXPECT_EQ(run(intercept, x, y), sums.line(false)) << "seed " << seed;
    }
    EXPECT_GT(negative, 20);
    // As doubles these are one number, yet only one of them is the nil.
    constexpr lng least = std::numeric_limits<lng>::min();
    const std::vector<lng> far{least, least + 1, 0, 0};
    EXPECT_EQ(run(covarp, far, ints{3, 3, 0, 0}),
              run(covarp, doubles{-0x1p63, 0, 0}, ints{3, 0, 0}));
    EXPECT_EQ(run(slope, far, ints{3, 3, 0, 0}), run(slope, doubles{-0x1p63, 0, 0}, ints{3, 0, 0}));
}

std::vector<const void *> compared;

int noting_comparison(const void *nil, const void *element) {
    EXPECT_EQ(nil, BATatoms[TYPE_int].atom_null);
    compared.push_back(element);
    return *static_cast<const int *>(nil) != *static_cast<const int *>(element);
}

//! Integers are added up in any order as long as doubles hold their sums, so they have to give what
//! the same numbers give as doubles, which are added in the order of rows.
TEST(PairStatistics, OfIntegersAreThoseOfTheSameDoubles) {
    std::mt19937 random(20);
    for (const std::uint32_t largest : {5U, 1U << 13, 1U << 21, 1U << 27, 1U << 31})
        for (const std::size_t rows : {7UL, 4095UL, 70001UL}) {
            std::vector<std::int32_t> x(rows);
            std::vector<std::int32_t> y(rows);
            for (std::size_t row = 0; row < rows; ++row) {
                // The large ones come late in each partition.
                const std::uint32_t span = row % 8000 < 6000 ? std::min(largest, 1000U) : largest;
                x[row] = static_cast<std::int32_t>(random() % span - span / 2);
                y[row] = static_cast<std::int32_t>(random() % span + x[row] % 3);
                if (random() % 1000 == 0)
                    (row % 2 == 0 ? x : y)[row] = nil_of<std::int32_t>();
            }
            const auto as_doubles = [](const std::vector<std::int32_t> &of) {
                std::vector<double> made(of.size());
                std::transform(of.begin(), of.end(), made.begin(), [](std::int32_t value) {
                    return value == nil_of<std::int32_t>() ? nil_of<double>() : value;
                });
                return made;
            };
            for (std::size_t i = 0; i < std::size(statistics); ++i)
                EXPECT_EQ(run(i, x, y), run(i, as_doubles(x), as_doubles(y)))
                    << i << " of " << rows << " rows up to " << largest;
            for (const auto moment :
                 {vask_stdev, vask_stdevp, vask_variance, vask_variancep, vask_skews, vask_skewp}) {
                double of_integers = 0;
                double of_doubles = 0;
                EXPECT_EQ(take_exception(moment(&of_integers, column_of(x).slot())), success);
                EXPECT_EQ(take_exception(moment(&of_doubles, column_of(as_doubles(x)).slot())),
                          success);
                EXPECT_EQ(of_integers, of_doubles) << rows << " rows up to " << largest;
            }
        }
}

TEST(PairStatistics, TheTypesOwnComparisonSeesEachElementOnce) {
    const int nil = nil_of<int>();
    const bat x = column_of(std::vector{1, nil, 3, nil});
    const bat y = column_of(std::vector{nil, 2, 3, nil});
    const int *in_x = x.values<int>().data();
    const int *in_y = y.values<int>().data();
    const kernel_settings settings(1);
    const replaced_comparison noting(TYPE_int, noting_comparison);
    for (std::size_t i = 0; i < std::size(statistics); ++i) {
        double result = 0;
        compared.clear();
        EXPECT_EQ(call(i, &result, x, y), success);
        const std::vector<const void *> each{in_x, in_y, in_x + 1, in_x + 2, in_y + 2, in_x + 3};
        EXPECT_EQ(compared, plain_pair_statistics[i].is_line ? std::vector<const void *>{} : each)
            << plain_pair_statistics[i].name;
    }
}

TEST(PairStatistics, OfNoRowsAreNil) {
    const bat none = column_of(std::vector<std::int8_t>());
    const bat no_oids = refkernel::make_void_column(0, 10);
    for (std::size_t i = 0; i < std::size(statistics); ++i)
        for (const bat *empty : {&none, &no_oids}) {
            double result = 3;
            EXPECT_EQ(call(i, &result, *empty, none), success);
            EXPECT_EQ(result, nil_of<double>());
        }
}

TEST(GroupedPairStatistics, OfRowsThatAreGroups) {
    constexpr BUN rows = 5000;
    std::mt19937 random(11);
    for (const int type_x : {TYPE_bit, TYPE_int, TYPE_dbl})
        for (const int type_y : {TYPE_int, TYPE_lng, TYPE_flt}) {
            const any_column x(type_x, rows, 0, 0, 20, random);
            const any_column y(type_y, rows, 0, 0, 20, random);
            const auto classes = *plain_classes(type_x, type_y);
            // Positions count from 0, not from the view's first, and the marks say no nil whatever
            // there is: both intended.
            const bat view = refkernel::view_rows(x.view, 2, rows - 2);
            const bat map = refkernel::make_void_column(rows - 2, 7);
            const bat other = refkernel::view_rows(y.view, 0, rows - 2);
            for (std::size_t i = 0; i < std::size(grouped_statistics); ++i) {
                const watch kernel;
                const leak_guard leaks;
                const bat result = run_grouped(i, view, other, map, map);
                for (BUN j = 0; j < rows - 2; ++j) {
                    const bool zero = i == 1 && !x.equals_nil(j, classes.first) &&
                                      !y.equals_nil(j, classes.second);
                    ASSERT_EQ(result.values<double>()[j], zero ? 0 : nil_of<double>())
                        << plain_pair_statistics[i].name << ", types " << type_x << " and "
                        << type_y << ", row " << j;
                }
                expect_grouped_shape(result, map, TYPE_dbl, false);
            }
        }
}

TEST(GroupedPairStatistics, TheTypesOwnComparisonSeesNoMoreThanItMust) {
    const int nil = nil_of<int>();
    const bat x = column_of(std::vector{nil, 1, 2, 3, nil, 5});
    const bat y = column_of(std::vector{1, nil, 4, 9, 1, 25});
    const bat map = column_of(std::vector<oid>{77, 77, 1, 0, 77, 77}); // 77 is no group
    const bat extents = refkernel::make_void_column(2, 0);
    const kernel_settings settings(1);
    const replaced_comparison noting(TYPE_int, noting_comparison);
    for (std::size_t i = 0; i < 3; ++i) {
        compared.clear();
        run_grouped(i, x, y, map, extents);
        EXPECT_EQ(compared.size(), 1U + 2 + 2 + 2 + 1 + 2) << plain_pair_statistics[i].name;
        const bat first_unknown = column_of(std::vector<oid>{1, 1, 77, 0, 0, 0});
        compared.clear();
        run_grouped(i, x, y, first_unknown, extents);
        EXPECT_EQ(compared.size(), 1U + 2 + 2) << plain_pair_statistics[i].name;
    }
}

TEST(GroupedPairStatistics, OfNoRowsAreNilAndOfNoGroupsNothing) {
    const bat three = column_of(std::vector<float>{1, 2, 3});
    const bat none = column_of(std::vector<std::int16_t>());
    const bat map = column_of(std::vector<oid>{0, 1, 0});
    const bat extents = refkernel::make_void_column(2, 0);
    const bat no_extents = refkernel::make_void_column(0, 0);
    for (std::size_t i = 0; i < std::size(grouped_statistics); ++i) {
        const watch kernel;
        const leak_guard leaks;
        const bat nils = run_grouped(i, none, none, map, extents);
        for (const double v : nils.values<double>())
            EXPECT_EQ(v, nil_of<double>());
        expect_grouped_shape(nils, extents, TYPE_dbl, true);
        expect_grouped_shape(run_grouped(i, three, three, map, no_extents), no_extents, TYPE_dbl,
                             false);
    }
}

} // namespace
