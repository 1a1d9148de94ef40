#include "statistics/moments.h"

#include "refkernel/embed.h"
#include "refkernel/instrumentation.h"
#include "statistics/plain_statistics.h"
#include "support/grouped_reference.h"
#include "support/instruction_sets.h"
#include "support/kernel_settings.h"
#include "support/leak_guard.h"
#include "vask_ops.h"

#include <gtest/gtest.h>

namespace {

using namespace support;
using refkernel::bat;
using refkernel::nil_of;
using refkernel::instrumentation::watch;

using column_statistic = char *(*)(double *, const std::int32_t *);

// In the order of plain_moments.
constexpr column_statistic statistics[] = {vask_stdev,     vask_stdevp, vask_variance,
                                           vask_variancep, vask_skews,  vask_skewp};

double run(column_statistic statistic, const bat &b) {
    double result = 0;
    EXPECT_EQ(call(statistic(&result, b.slot())), success);
    return result;
}

template <class T>
double run(column_statistic statistic, const std::vector<T> &values) {
    return run(statistic, column_of(values));
}

TEST(Moments, AgreeBitForBitWithAPlainLoop) {
    std::uint32_t seed = 0;
    for_each_number_type([&seed]<class T>(T) {
        for (const std::size_t rows : {1U, 2U, 3U, 4U, 5U, 63U, 1000U, 20011U})
            for (const std::uint32_t nils : {0U, 3U, 50U, 95U, 100U}) {
                std::mt19937 random(++seed);
                const auto threads = static_cast<std::int32_t>(random() % 7 + 1);
                const kernel_settings settings(threads);
                SCOPED_TRACE("seed " + std::to_string(seed));
                const std::size_t first = random() % 9;
                auto values = statistic_values<T>(rows + first, 1'000'000, nils, random);
                const bat whole = column_of(values);
                const bat b =
                    refkernel::slice(whole, static_cast<BUN>(first), static_cast<BUN>(rows));
                values.erase(values.begin(), values.begin() + static_cast<long>(first));
                const auto parts = rows_by_partition(
                    static_cast<BUN>(rows), plain_partitions(static_cast<BUN>(rows), threads),
                    [&](BUN row) { return values[row] != nil_of<T>(); });
                const auto sums = sums_of<plain_sums>(parts, [&](BUN row, plain_sums &partial) {
                    partial.add(static_cast<double>(values[row]));
                });
                const instruction_set_of_turn instructions(seed);
                const watch kernel;
                const leak_guard leaks;
                for (std::size_t i = 0; i < std::size(statistics); ++i) {
                    const double result = run(statistics[i], b);
                    EXPECT_TRUE(same_bits(result, plain_moments[i].of(sums)))
                        << plain_moments[i].name << " of " << rows << " rows, " << nils << "% nil, "
                        << threads << " threads: " << result << " and not "
                        << plain_moments[i].of(sums);
                }
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

} // namespace
