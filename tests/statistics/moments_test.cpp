#include "statistics/moments.h"

#include "kernel/isa.h"
#include "refkernel/embed.h"
#include "refkernel/instrumentation.h"
#include "statistics/plain_statistics.h"
#include "support/kernel_settings.h"
#include "vask_ops.h"

#include <gtest/gtest.h>

namespace {

using namespace support;
using refkernel::bat;
using refkernel::nil_of;
using refkernel::take_exception;
using refkernel::instrumentation::operation;
using refkernel::instrumentation::watch;

using column_statistic = char *(*)(double *, const std::int32_t *);

// In the order of plain_moments.
constexpr column_statistic statistics[] = {vask_stdev,     vask_stdevp, vask_variance,
                                           vask_variancep, vask_skews,  vask_skewp};

//! Rows added up in partitions of the plan, and those in order.
template <class T>
plain_sums partitioned_sums(const std::vector<T> &values, std::size_t parts) {
    plain_sums total;
    const std::size_t size = values.size() / parts;
    for (std::size_t part = 0; part < parts; ++part) {
        plain_sums partial;
        const std::size_t end = part + 1 == parts ? values.size() : (part + 1) * size;
        for (std::size_t i = part * size; i < end; ++i)
            if (values[i] != nil_of<T>())
                partial.add(static_cast<double>(values[i]));
        total.add(partial);
    }
    return total;
}

template <class T>
double run(column_statistic statistic, const std::vector<T> &values) {
    const bat b = column_of(values);
    double result = 0;
    EXPECT_EQ(take_exception(statistic(&result, b.slot())), refkernel::exception{});
    return result;
}

TEST(Moments, AgreeBitForBitWithAPlainLoop) {
    std::uint32_t seed = 0;
    for_each_stat_class([&seed]<class T>(T) {
        for (const std::size_t rows : {1U, 2U, 3U, 4U, 5U, 63U, 1000U, 20011U})
            for (const std::uint32_t nils : {0U, 3U, 50U, 95U, 100U}) {
                std::mt19937 random(++seed);
                const std::size_t threads = random() % 7 + 1;
                const kernel_settings settings(static_cast<std::int32_t>(threads));
                SCOPED_TRACE("seed " + std::to_string(seed));
                const std::size_t first = random() % 9;
                auto values = statistic_values<T>(rows + first, 1'000'000, nils, random);
                const bat whole = column_of(values);
                const bat b =
                    refkernel::slice(whole, static_cast<BUN>(first), static_cast<BUN>(rows));
                values.erase(values.begin(), values.begin() + static_cast<long>(first));
                const plain_sums sums =
                    partitioned_sums(values, std::min(threads, rows > 1 ? rows : 1));
                const watch kernel;
                const refkernel::checkpoint before;
                for (std::size_t i = 0; i < std::size(statistics); ++i) {
                    double result = 0;
                    ASSERT_EQ(take_exception(statistics[i](&result, b.slot())),
                              refkernel::exception{});
                    EXPECT_TRUE(same_bits(result, plain_moments[i].of(sums)))
                        << plain_moments[i].name << " of " << rows << " rows, " << nils << "% nil, "
                        << threads << " threads: " << result << " and not "
                        << plain_moments[i].of(sums);
                }
                EXPECT_EQ(before.leaks(), "");
            }
    });
}

TEST(Moments, AreWhatTheTextbookSays) {
    std::mt19937 random(5);
    std::vector<std::int16_t> values(999);
    long double mean = 0;
    for (auto &v : values)
        mean += v = static_cast<std::int16_t>(random() % 100 * (random() % 10));
    mean /= 999;
    long double m2 = 0;
    long double m3 = 0;
    for (const auto v : values) {
        m2 += (v - mean) * (v - mean);
        m3 += (v - mean) * (v - mean) * (v - mean);
    }
    const long double n = 999;
    const long double g1 = (m3 / n) / std::pow(m2 / n, 1.5L);
    const long double expected[] = {std::sqrt(m2 / (n - 1)),
                                    std::sqrt(m2 / n),
                                    m2 / (n - 1),
                                    m2 / n,
                                    g1 * std::sqrt(n * (n - 1)) / (n - 2),
                                    g1};
    for (std::size_t i = 0; i < std::size(statistics); ++i)
        EXPECT_NEAR(run(statistics[i], values), static_cast<double>(expected[i]),
                    1e-9 * std::fabs(static_cast<double>(expected[i])))
            << plain_moments[i].name;
}

TEST(Moments, KnownValues) {
    const double nil = nil_of<double>();
    const std::vector<std::int32_t> four{1, 2, 3, 4};
    EXPECT_EQ(run(vask_variance, four), 1.6666666666666667);
    EXPECT_EQ(run(vask_variancep, four), 1.25);
    EXPECT_EQ(run(vask_stdevp, four), 1.118033988749895);
    EXPECT_EQ(run(vask_skews, four), 0);
    EXPECT_EQ(run(vask_skewp, four), 0);
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

TEST(Moments, AllInstructionSetsGiveTheSameBits) {
    std::mt19937 random(3);
    const auto values = statistic_values<float>(10'007, 1'000'000, 10, random);
    for (const column_statistic statistic : statistics) {
        const double widest = run(statistic, values);
        for (const auto set : {vask::instruction_set::baseline, vask::instruction_set::avx2}) {
            vask::limit_instruction_set(set);
            EXPECT_TRUE(same_bits(run(statistic, values), widest));
        }
        vask::limit_instruction_set(vask::widest_instruction_set());
    }
}

TEST(Moments, EmptyAndRefusedColumns) {
    const auto refused = [](const char *text) {
        return refkernel::exception{"vask_1_arg_statistical_func", text};
    };
    const bat empty = refkernel::make_column(std::vector<std::int8_t>());
    const bat no_oids = refkernel::make_void_column(0, 10);
    const bat oids = refkernel::make_void_column(3, 10);
    const bat nils = refkernel::make_void_column(0, oid_nil);
    const bat texts = refkernel::make_text_column(std::vector<std::string_view>{"a"});
    const bat times = refkernel::make_column(std::vector<std::int64_t>{1, 2},
                                             {.type = refkernel::type_timestamp});
    const std::int32_t nobody = 0;
    const refkernel::checkpoint before;
    for (const column_statistic statistic : statistics) {
        for (const bat *b : {&empty, &no_oids}) {
            double result = 0;
            EXPECT_EQ(take_exception(statistic(&result, b->slot())), refkernel::exception{});
            EXPECT_EQ(result, nil_of<double>());
        }
        double result = 3;
        EXPECT_EQ(take_exception(statistic(&result, &nobody)), refused("Object not found"));
        EXPECT_EQ(take_exception(statistic(&result, oids.slot())), refused("operation failed"));
        for (const bat *b : {&nils, &texts, &times})
            EXPECT_EQ(take_exception(statistic(&result, b->slot())),
                      refused("Unsupported tail type"));
        EXPECT_EQ(result, 3);
    }
    EXPECT_EQ(before.leaks(), "");
}

TEST(Moments, WhatTheKernelSees) {
    const kernel_settings settings(3);
    const bat b = refkernel::make_column(std::vector<double>{1, 2, 3});
    watch kernel;
    kernel.record(true);
    double result = 0;
    EXPECT_EQ(take_exception(vask_skews(&result, b.slot())), refkernel::exception{});
    std::vector<operation> seen;
    for (const auto &c : kernel.recorded())
        seen.push_back(c.op);
    using enum operation;
    const std::vector<operation> expected{bbp_incref, gdk_zalloc, gdk_zalloc, gdk_zalloc,
                                          gdk_zalloc, bat_access, gdk_free,   gdk_free,
                                          gdk_free,   gdk_free,   bat_access, bbp_releaseref};
    EXPECT_EQ(seen, expected);
}

} // namespace
