#include "aggregates/grouped_check.h"
#include "statistics/plain_statistics.h"
#include "support/failing_calls.h"
#include "support/leak_guard.h"
#include "support/other_host.h"
#include "vask/ops.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>
#include <numeric>

namespace {

using namespace support;
using refkernel::bat;
using refkernel::nil_of;
using refkernel::instrumentation::operation;
using refkernel::instrumentation::watch;

using wrapper = std::function<char *(std::int32_t *, const std::int32_t *, const std::int32_t *,
                                     const std::int32_t *)>;

//! The inputs of one call, and the values of every group as told from outside.
template <class T>
struct grouped_case {
    const bat &b;
    const bat &g;
    const bat &e;
    std::vector<std::vector<T>> members;
    bool good = true; // whether the extents hold the groups of all rows
};

template <class R, class T, class Expected>
void expect_one(const wrapper &statistic, const grouped_case<T> &c, Expected expected) {
    std::int32_t id = 5;
    const leak_guard leaks;
    const auto failure = call(statistic(&id, c.b.slot(), c.g.slot(), c.e.slot()));
    ASSERT_EQ(failure, c.good ? success : refused("operation failed"));
    if (c.good)
        expect_groups<R>(bat::adopt(id), c.e, refkernel::type_code_of<R>, c.members,
                         [&](const std::vector<T> &values) {
                             return unless_nil(values.empty() ? nil_of<R>() : expected(values));
                         });
    else
        EXPECT_EQ(id, 5);
}

//! All five statistics, with drawn parameters.
template <class T>
void expect_all(const grouped_case<T> &c, std::mt19937 &random) {
    const auto q = static_cast<bte>(random() % 5);
    const double p = random_share(random);
    const lng k = random() % 3 == 0 ? 1 : random() % 20 + 1;
    const bat qs = parameter(q);
    const bat ps = parameter(p);
    const bat ks = parameter(k);
    const auto with = [](auto statistic, const bat &value) -> wrapper {
        return [=, slot = value.slot()](auto *result, auto *b, auto *g, auto *e) {
            return statistic(result, b, slot, g, e);
        };
    };
    using values = std::vector<T>;
    expect_one<double>(vask_grp_median, c,
                       [](const values &v) { return plain_percentile(v, 0.5); });
    expect_one<double>(with(vask_grp_quartile, qs), c,
                       [=](const values &v) { return plain_percentile(v, q / 4.0); });
    expect_one<double>(with(vask_grp_percentile, ps), c,
                       [=](const values &v) { return plain_percentile(v, p); });
    expect_one<T>(with(vask_grp_largest, ks), c,
                  [=](const values &v) { return plain_largest(v, k, nil_of<T>()); });
    expect_one<T>(vask_grp_mode, c, [](const values &v) { return plain_mode(v, nil_of<T>()); });
}

constexpr std::int32_t thread_counts[] = {1, 2, 3, 8, 300};

template <class T>
std::vector<T> reordered(std::span<const T> values, const std::vector<oid> &order) {
    std::vector<T> moved;
    for (const oid row : order)
        moved.push_back(values[row]);
    return moved;
}

TEST(GroupedOrderStatistics, MapsThatAreAlignedOrLookedUp) {
    std::size_t turn = 0;
    for (const grouped_shape &shape : grouped_shapes()) {
        grouped_inputs inputs(shape);
        std::size_t type = 0;
        for_each_number_type([&]<class T>(T) {
            if (type++ != turn % 6)
                return;
            SCOPED_TRACE(testing::Message() << shape << ", " << sizeof(T) << " bytes");
            const std::uint32_t distinct[] = {1, 5, 100, 1'000'000};
            const auto values =
                statistic_values<T>(shape.rows, distinct[shape.seed % 4], 0, inputs.random());
            const auto rows = inputs.rows_by_group(1, [](BUN) { return true; });
            std::vector<std::vector<T>> members(rows.size());
            std::size_t found = 0;
            for (std::size_t j = 0; j < rows.size(); ++j, found += members[j - 1].size())
                for (const BUN row : rows[j][0])
                    members[j].push_back(values[row]);
            const bool good = found == shape.rows;

            std::vector<oid> order(shape.rows);
            std::iota(order.begin(), order.end(), 0);
            std::shuffle(order.begin(), order.end(), inputs.random());
            const refkernel::column_options moved{
                .tail = {.nonil = true}, .stored_head = true, .head_oids = order, .first = 3};
            const bat b = nonil_column(values, shape.seed % 2 * 9);
            const bat moved_b = column_of(reordered(std::span(values), order), moved);
            const bat moved_g = column_of(reordered(inputs.map.values<oid>(), order), moved);
            const kernel_settings settings(thread_counts[turn % 5]);
            expect_all<T>({b, inputs.map, inputs.extents, members, good}, inputs.random());
            expect_all<T>({moved_b, inputs.map, inputs.extents, members, good}, inputs.random());
            expect_all<T>({b, moved_g, inputs.extents, members, good}, inputs.random());
        });
        ++turn;
        if (HasFatalFailure())
            return;
    }
}

// Groups of sizes around the 8192 values at which a task has enough, with empty ones between; the
// extents are a view that starts behind other rows.
TEST(GroupedOrderStatistics, RunsOfGroups) {
    std::mt19937 random(99);
    std::vector<std::size_t> one_giant(600, 5);
    one_giant[300] = 20000;
    const std::vector<std::vector<std::size_t>> cases = {
        one_giant,
        {0, 8191, 1, 0, 0, 8192, 0, 8193, 4096, 4095, 1, 20000, 0},
        {8192},
        {0, 0, 1},
        std::vector<std::size_t>(9000, 1),
        std::vector<std::size_t>(3000, 7),
    };
    for (const auto &sizes : cases) {
        std::vector<oid> gids;
        for (std::size_t j = 0; j < sizes.size(); ++j)
            gids.insert(gids.end(), sizes[j], static_cast<oid>(50 + j));
        std::shuffle(gids.begin(), gids.end(), random);
        const auto values = statistic_values<double>(gids.size(), 500, 0, random);
        std::vector<std::vector<double>> members(sizes.size());
        for (std::size_t row = 0; row < gids.size(); ++row)
            members[gids[row] - 50].push_back(values[row]);
        const bat b = nonil_column(values);
        const bat g = column_of(gids);
        const auto groups = static_cast<BUN>(sizes.size());
        const bat all = refkernel::make_void_column(groups + 6, 0, {.seqbase = 46});
        const bat e = refkernel::view_rows(all, 4, groups);
        for (const std::int32_t threads : thread_counts) {
            SCOPED_TRACE(testing::Message() << groups << " groups, " << threads << " threads");
            const kernel_settings settings(threads, 1'000'000); // no partitions of the frame
            expect_all<double>({b, g, e, members}, random);
        }
    }
}

TEST(GroupedOrderStatistics, VoidMapsHoldTheOidsThatTheyCount) {
    std::mt19937 random(7);
    const std::vector<std::int16_t> values{4, -3, 9, 7};
    const std::vector<oid> order{2, 0, 3, 1};
    const bat b = nonil_column(values, 5);
    const bat moved = column_of(reordered(std::span(values), order),
                                {.tail = {.nonil = true}, .stored_head = true, .head_oids = order});
    const bat e = refkernel::make_void_column(4, 0, {.seqbase = 12});
    const bat more = refkernel::make_void_column(6, 0, {.seqbase = 11});
    for (const std::int32_t threads : {1, 3}) {
        const kernel_settings settings(threads);
        const bat g = refkernel::make_void_column(4, 12, {.first = 2});
        expect_all<std::int16_t>({b, g, e, {{4}, {-3}, {9}, {7}}}, random);
        expect_all<std::int16_t>({moved, g, e, {{4}, {-3}, {9}, {7}}}, random);
        expect_all<std::int16_t>({b, g, more, {{}, {4}, {-3}, {9}, {7}, {}}}, random);
        // One group beyond the extents, and no group at all.
        const bat beyond = refkernel::make_void_column(4, 13);
        expect_all<std::int16_t>({b, beyond, e, {}, false}, random);
        const bat nils = refkernel::make_void_column(4, oid_nil);
        expect_all<std::int16_t>({b, nils, e, {}, false}, random);
    }
}

TEST(GroupedOrderStatistics, RowsThatTheMapLacksAndEmptyInputs) {
    std::mt19937 random(8);
    const std::vector<float> values{1, 2, 3};
    const std::vector<std::vector<float>> none(2);
    const bat e = refkernel::make_void_column(2);
    const bat no_groups = refkernel::make_void_column(0);
    const bat g = column_of(std::vector<oid>{0, 1, 0});
    const bat no_rows = column_of(std::vector<oid>());
    const bat b = nonil_column(values);
    const bat elsewhere = column_of(values, {.tail = {.nonil = true}, .seqbase = 1});
    const bat nowhere = column_of(values, {.tail = {.nonil = true}, .seqbase = oid_nil});
    const bat empty = nonil_column(std::vector<float>());
    expect_all<float>({elsewhere, g, e, {}, false}, random);
    expect_all<float>({nowhere, g, e, {}, false}, random);
    expect_all<float>({b, g, no_groups, {}, false}, random);
    expect_all<float>({column_of(values, {.look_for_nils = false}), g, e, {}, false}, random);
    expect_all<float>(
        {column_of(std::vector<float>(), {.look_for_nils = false}), no_rows, e, {}, false}, random);
    expect_all<float>({empty, no_rows, no_groups, {}}, random);
    const kernel_settings settings(0);
    expect_all<float>({empty, no_rows, e, none}, random);
    expect_all<float>({b, g, e, {}, false}, random);
}

// What lies behind a view's rows would pass for groups. Rows without a group are none that may be
// left out, whatever their range.
TEST(GroupedOrderStatistics, RowsBeyondAMapThatIsCalledAligned) {
    std::mt19937 random(9);
    const bat b = nonil_column(std::vector<std::int32_t>(1000, 4), 3);
    const bat e = refkernel::make_void_column(2);
    const bat stored = column_of(std::vector<oid>(1000, 1));
    const bat counted = refkernel::make_void_column(1000);
    const bat all_groups = refkernel::make_void_column(1000);
    const everything_aligned claim;
    for (const std::int32_t threads : {1, 3, 300}) {
        const kernel_settings settings(threads);
        for (const BUN mapped : {999U, 500U, 0U}) {
            SCOPED_TRACE(testing::Message() << mapped << " rows, " << threads << " threads");
            const bat short_map = refkernel::view_rows(stored, 0, mapped);
            expect_all<std::int32_t>({b, short_map, e, {}, false}, random);
            const bat short_count = refkernel::view_rows(counted, 0, mapped);
            expect_all<std::int32_t>({b, short_count, all_groups, {}, false}, random);
        }
    }
}

// Few ranks are kept while the rows go by and more are not; nor where a value has the lowest key of
// all, which stands for a missing one. Ties, NaNs and infinities; groups smaller than the rank.
TEST(GroupedOrderStatistics, LargestOnBothSidesOfWhatIsKept) {
    std::mt19937 random(21);
    for_each_number_type([&]<class T>(T) {
        for (int round = 0; round < 24; ++round) {
            constexpr std::size_t groups = 40;
            auto values = statistic_values<T>(2000, round % 2 == 0 ? 9 : 5000, 0, random, true);
            const bool with_lowest = round % 3 == 0;
            if (with_lowest) {
                T lowest = std::numeric_limits<T>::min();
                if constexpr (std::is_floating_point_v<T>)
                    std::memset(&lowest, 0xff, sizeof lowest); // the last NaN of the negative ones
                values[random() % values.size()] = lowest;
            }
            std::vector<oid> gids(values.size());
            std::vector<std::vector<T>> members(groups);
            for (std::size_t row = 0; row < values.size(); ++row) {
                // The first groups have a row or two, or none.
                gids[row] = static_cast<oid>(row < 12 ? row % 8 : 10 + random() % (groups - 10));
                members[gids[row]].push_back(values[row]);
            }
            const bat b = nonil_column(values, static_cast<BUN>(round % 4));
            const bat g = column_of(gids);
            const bat e = refkernel::make_void_column(groups);
            const kernel_settings settings(round % 2 == 0 ? 1 : 5);
            for (const lng k : {1, 2, 3, 8, 9, 50, 60, 100}) {
                SCOPED_TRACE(testing::Message() << "round " << round << ", rank " << k << ", "
                                                << sizeof(T) << " bytes");
                const bat rank = parameter(k);
                std::int32_t id = 0;
                ASSERT_EQ(call(vask_grp_largest(&id, b.slot(), rank.slot(), g.slot(), e.slot())),
                          success);
                const bat result = bat::adopt(id);
                for (std::size_t j = 0; j < groups; ++j)
                    ASSERT_TRUE(same_bits(result.values<T>()[j],
                                          plain_largest(members[j], k, refkernel::nil_of<T>())))
                        << "group " << j;
                EXPECT_EQ(result->tail->nil, 1);
            }
        }
    });
}

// What stands for a missing value is one of the NaNs, and may be all that a group has.
TEST(GroupedOrderStatistics, LargestOfValuesThatLookMissing) {
    const auto check = [](auto lowest) {
        std::memset(&lowest, 0xff, sizeof lowest);
        const std::vector values{lowest, decltype(lowest){1}, decltype(lowest){2}, lowest};
        const bat b = nonil_column(values);
        const bat g = column_of(std::vector<oid>{0, 1, 1, 2});
        const bat e = refkernel::make_void_column(3);
        const bat rank = parameter<lng>(1);
        const kernel_settings settings(1);
        std::int32_t id = 0;
        ASSERT_EQ(call(vask_grp_largest(&id, b.slot(), rank.slot(), g.slot(), e.slot())), success);
        const bat result = bat::adopt(id);
        for (const std::size_t group : {0U, 2U})
            EXPECT_TRUE(same_bits(result.values<decltype(lowest)>()[group], lowest)) << group;
    };
    check(float());
    check(double());
}

// Exceptions of the tasks and of the calling thread are caught, whichever allocation it is.
TEST(GroupedOrderStatistics, FailingAllocations) {
    struct inputs {
        bat b = nonil_column(std::vector<double>{1, 2, 3, 4, 5, 6});
        bat g = column_of(std::vector<oid>{0, 1, 0, 1, 2, 2}, {.stored_head = true});
        bat e = refkernel::make_void_column(3);
    };
    for (const operation op : {operation::gdk_malloc, operation::bat_new})
        for (const std::int32_t threads : {1, 2}) {
            const kernel_settings settings(threads);
            fail_each_call(
                op, [] { return inputs(); },
                [](const inputs &in, const watch &kernel, auto failed) {
                    const std::uint64_t held = kernel.bytes_outstanding();
                    const refkernel::checkpoint before;
                    std::int32_t id = 5;
                    const auto failure =
                        call(vask_grp_median(&id, in.b.slot(), in.g.slot(), in.e.slot()));
                    ASSERT_EQ(failure, failed() ? refused("operation failed") : success);
                    if (failed())
                        ASSERT_EQ(id, 5);
                    else
                        EXPECT_EQ(bat::adopt(id).values<double>()[2], 5.5);
                    EXPECT_EQ(before.leaks(), "");
                    EXPECT_EQ(kernel.bytes_outstanding(), held);
                });
        }
}

TEST(GroupedOrderStatistics, AnswerInTheColumnsType) {
    const bat g = column_of(std::vector<oid>{0, 1, 0});
    const bat e = refkernel::make_void_column(2);
    // Compared as signed numbers, with the nil of the oids.
    const bat oids = nonil_column(std::vector<oid>{7, 3, 0xfffffff0});
    const bat second = parameter<lng>(2);
    std::int32_t id = 0;
    ASSERT_EQ(call(vask_grp_largest(&id, oids.slot(), second.slot(), g.slot(), e.slot())), success);
    const bat result = bat::adopt(id);
    EXPECT_EQ(result.values<oid>()[0], 0xfffffff0);
    EXPECT_EQ(result.values<oid>()[1], oid_nil);
    expect_grouped_shape(result, e, TYPE_oid, true);
}

} // namespace
