#include "grouping/sort/sort_group.h"

#include "grouping/path_check.h"
#include "grouping/sort/sorted_runs.h"
#include "kernel/hostile.h"
#include "support/failing_calls.h"
#include "support/kernel_settings.h"
#include "support/leak_guard.h"
#include "vask/refkernel/instrumentation.h"

#include <algorithm>

#include <gtest/gtest.h>

namespace {

using namespace vask;
using namespace support;
using refkernel::bat;
using refkernel::instrumentation::operation;
using refkernel::instrumentation::watch;

//! The path's answer for a column with an ascending dense head. Values in order are grouped by runs
//! once more, under the mark that says so.
template <class T>
void check_path(const std::vector<T> &values, heads kind, oid base, int threads) {
    SCOPED_TRACE(std::to_string(values.size()) + " rows of " + std::to_string(sizeof(T)) +
                 " bytes, head " + std::to_string(static_cast<int>(kind)) + ", " +
                 std::to_string(threads) + " threads");
    const kernel_settings settings(threads);
    const std::vector<oid> oids = head_oids(kind, values.size(), base, 0);
    const auto expected = in_order_of_id(group_rows(keys_by_number(values), oids));
    refkernel::column_options options = head_options(kind, oids);
    for (const bool marked : {false, true}) {
        if (marked && !std::is_sorted(values.begin(), values.end()))
            break;
        options.tail.sorted = marked;
        const bat b = refkernel::make_column<T>(std::span<const T>(values), options);
        expect_path(vask_sort_group, b, expected, oids, SORTED_ASCENDING);
    }
}

TEST(SortGroup, AgreesWithThePlainWay) {
    std::uint64_t seed = 0;
    for (const std::size_t rows : {1U, 2U, 100U, 499U, 500U, 5000U})
        for (const std::uint64_t distinct : {1U, 2U, 40U, 1000000U})
            for (const int nils : {0, 3, 90, 100})
                for (const heads kind : {heads::void_head, heads::dense})
                    for_each_number_type([&]<class T>(T) {
                        const int threads[] = {1, 2, 3, 8};
                        ++seed;
                        std::vector<T> values = random_values<T>(rows, distinct, nils, seed);
                        const oid base = seed % 2 == 0 ? 0 : 1000;
                        check_path(values, kind, base, threads[seed / 6 % 4]);
                        std::sort(values.begin(), values.end());
                        check_path(values, kind, base, threads[seed / 6 % 4]);
                    });
}

// Large enough for several buckets, and for extents that are sorted in parallel.
TEST(SortGroup, LargeColumnsOfAnyShape) {
    constexpr std::size_t rows = unless_hostile(70000, 7000);
    for_each_number_type([&]<class T>(T) {
        for (const int threads : {2, 5}) {
            check_path(random_values<T>(rows, ~0ULL, 1, 5), heads::void_head, 12, threads);
            check_path(random_values<T>(rows, 20000, 1, 6), heads::dense, 12, threads);
            // Nearly all values in one of the buckets, a few far away.
            std::vector<T> skewed = random_values<T>(rows, 50, 0, 7);
            for (std::size_t i = 0; i < rows; ++i)
                if (i % 1000 != 0)
                    skewed[i] = static_cast<T>(i % 30000);
            check_path(skewed, heads::void_head, 0, threads);
            check_path(std::vector<T>(rows, T(1)), heads::void_head, 0, threads);
        }
    });
}

TEST(SortGroup, ZerosOfBothSignsAreOneGroupAndInfinitiesTwo) {
    const double inf = std::numeric_limits<double>::infinity();
    std::vector<double> values;
    for (int i = 0; i < 2000; ++i)
        values.insert(values.end(), {0.0, -0.0, inf, -inf, 1e-310, -1e-310});
    check_path(values, heads::void_head, 3, 4);
}

TEST(SortGroup, LongRunsLeaveSlotsEmpty) {
    for (const std::size_t at : {0U, 1U, 300U, 999U}) {
        std::vector<std::int32_t> values(1000, 500);
        for (std::size_t i = 0; i < at; ++i)
            values[i] = static_cast<std::int32_t>(i); // the long run is the end of the sorted copy
        check_path(values, heads::void_head, 0, 16);
    }
}

// One of the rows has the nil for an oid, and no place.
TEST(SortGroup, AHeadThatRunsAcrossTheNilFails) {
    const kernel_settings settings(2);
    for (const bool sorted : {false, true}) {
        const std::vector<std::int32_t> values{1, 2, 3, 4, 5, 6};
        const bat b = refkernel::make_column<std::int32_t>(
            std::span<const std::int32_t>(values),
            {.tail = {.sorted = sorted}, .seqbase = oid_nil - 2});
        const leak_guard leaks;
        group_results made(b);
        EXPECT_EQ(vask_sort_group(made.ext.record(), made.grp.record(), b.record()), 0);
    }
}

TEST(SortGroup, ANanFailsAtOnceAndSaysSo) {
    const kernel_settings settings(3);
    for (const std::size_t rows : {1U, 600U, 70000U})
        for (const std::size_t at : {std::size_t{0}, rows / 2, rows - 1}) {
            std::vector<float> values = random_values<float>(rows, 100000, 0, rows);
            values[at] = std::numeric_limits<float>::quiet_NaN();
            const bat b = refkernel::make_column<float>(values);
            const leak_guard leaks;
            refkernel::clear_error_buffer();
            {
                group_results made(b);
                EXPECT_EQ(vask_sort_group(made.ext.record(), made.grp.record(), b.record()), 0);
            }
            EXPECT_EQ(refkernel::error_buffer(), "bunfastins: bat too large\n");
        }
    refkernel::clear_error_buffer();
}

// The n-th call of an operation fails, for all n there are. A failure is reported and leaves
// nothing behind, but for the working arrays, whose exception takes the path's BATs with it.
TEST(SortGroup, FailingKernelCalls) {
    const kernel_settings settings(4);
    const bat b =
        refkernel::make_column(random_values<lng>(unless_hostile(70000, 7000), 60000, 0, 1));
    const refkernel::checkpoint before;
    for (const operation op : {operation::bat_copy, operation::bat_materialize, operation::bat_new,
                               operation::bat_extend, operation::gdk_malloc}) {
        fail_each_call(
            op, [&] { return group_results(b); },
            [&](group_results &made, const watch &, auto failed) {
                int result = -1;
                try {
                    result = vask_sort_group(made.ext.record(), made.grp.record(), b.record());
                } catch (const std::bad_alloc &e) {
                    EXPECT_STREQ(e.what(), "bad allocation");
                }
                EXPECT_EQ(result, !failed() ? 1 : op == operation::gdk_malloc ? -1 : 0);
            });
        if (op != operation::gdk_malloc) {
            EXPECT_EQ(before.leaks(), "") << operation_name(op);
        }
    }
}

TEST(SplitAtRuns, BalancesWithoutCuttingARun) {
    std::mt19937 random(11);
    for (int round = 0; round < 300; ++round) {
        const auto rows = static_cast<BUN>(random() % 400 + 1);
        const auto first = static_cast<BUN>(random() % 3);
        const auto n = static_cast<std::uint32_t>(random() % 10);
        std::vector<std::int16_t> values(rows);
        for (std::int16_t &value : values)
            value = static_cast<std::int16_t>(random() % (round % 2 == 0 ? 5 : 10000));
        std::sort(values.begin(), values.end());
        const bat copy = refkernel::make_column<std::int16_t>(values, {.first = first});

        const auto ranges = vask_split_at_runs<std::int16_t>(*copy.record(), n);
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_LE(ranges.size(), n);
        ASSERT_EQ(ranges.empty(), n == 0);
        BUN next = first;
        for (std::size_t i = 0; i < ranges.size(); ++i) {
            ASSERT_EQ(ranges[i].begin, next);
            ASSERT_GT(ranges[i].end, next);
            next = ranges[i].end;
            const BUN end = next - first;
            ASSERT_LE(end, rows);
            if (end == rows)
                continue;
            ASSERT_NE(values[end - 1], values[end]);
            // The range ends with the run that its share of what was left ends in.
            const std::size_t share = (rows - 1 - (ranges[i].begin - first)) / (n - i);
            ASSERT_EQ(values[ranges[i].begin - first + share], values[end - 1]);
        }
        if (n != 0) {
            ASSERT_EQ(next, first + rows);
        }
    }
}

TEST(GroupRuns, AnOidOutsideTheNumberingFails) {
    for (const oid stray : {oid{99}, oid{103}, oid_nil}) {
        const std::vector<oid> oids{100, 101, 102};
        const bat copy = refkernel::make_column(std::vector<std::int32_t>{1, 1, 2},
                                                head_options(heads::dense, oids));
        static_cast<oid *>(copy->head->base)[2] = stray;
        group_results made(copy);
        BAT *slot = made.ext.record();
        EXPECT_FALSE(
            vask_group_runs<std::int32_t>(*copy.record(), {0, 3}, slot, *made.grp.record()));
    }
}

} // namespace
