#include "statistics/pair_statistics.h"

#include "refkernel/instrumentation.h"
#include "statistics/paired_columns.h"
#include "support/grouped_reference.h"
#include "support/instruction_sets.h"
#include "support/kernel_settings.h"
#include "support/leak_guard.h"
#include "support/replaced_comparison.h"
#include "vask_ops.h"

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

refkernel::exception refused(const char *text) {
    return {"vask_2_args_statistical_func", text};
}

//! The call with x and y in the places that make them the first and the second column.
refkernel::exception call(std::size_t i, double *result, const bat &x, const bat &y) {
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

TEST(PairStatistics, AgreeBitForBitWithAPlainLoopOnAllPairsOfTypes) {
    std::uint32_t seed = 0;
    for (const int type_x : statistic_types)
        for (const int type_y : statistic_types)
            for (const BUN rows : {1U, 2U, 100U, 5003U}) {
                std::mt19937 random(++seed);
                const std::uint32_t nils = std::array{0U, 2U, 50U, 100U}[random() % 4];
                const auto threads = static_cast<std::int32_t>(random() % 7 + 1);
                const auto first = static_cast<BUN>(random() % 3);
                const auto other_first = static_cast<BUN>(random() % 3);
                const kernel_settings settings(threads);
                const auto classes = plain_classes(type_x, type_y);
                column_pair columns{any_column(type_x, rows, first, first, nils, random),
                                    any_column(type_y, rows, other_first, first, nils, random),
                                    classes.value_or(std::pair(0, 0)), false};
                const instruction_set_of_turn instructions(seed);
                const watch kernel;
                const leak_guard leaks;
                for (std::size_t i = 0; i < std::size(statistics); ++i) {
                    const plain_pair_statistic &plain = plain_pair_statistics[i];
                    SCOPED_TRACE(testing::Message()
                                 << plain.name << " of types " << type_x << " and " << type_y
                                 << ", " << rows << " rows from " << first << " and " << other_first
                                 << ", " << nils << "% nil, " << threads << " threads, seed "
                                 << seed);
                    double result = 3;
                    const auto failure = call(i, &result, columns.x.view, columns.y.view);
                    if (!classes) {
                        ASSERT_EQ(failure, refused("operation failed"));
                        ASSERT_EQ(result, 3);
                        continue;
                    }
                    columns.is_line = plain.is_line;
                    const auto parts =
                        rows_by_partition(rows, plain_partitions(rows, threads),
                                          [&](BUN row) { return !columns.dropped(row); });
                    const auto total = sums_of<plain_pair_sums>(
                        parts, [&](BUN row, plain_pair_sums &sums) { columns.add(row, sums); });
                    ASSERT_EQ(failure, success);
                    ASSERT_TRUE(same_bits(result, plain.of(total)))
                        << result << " and not " << plain.of(total);
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

} // namespace
