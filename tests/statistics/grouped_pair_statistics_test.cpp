#include "aggregates/grouped_check.h"
#include "statistics/paired_columns.h"
#include "support/leak_guard.h"
#include "support/replaced_comparison.h"
#include "vask_ops.h"

#include <atomic>

#include <gtest/gtest.h>

namespace {

using namespace support;
using refkernel::bat;
using refkernel::nil_of;
using refkernel::instrumentation::watch;

using grouped_pair_statistic = char *(*)(std::int32_t *, const std::int32_t *, const std::int32_t *,
                                         const std::int32_t *, const std::int32_t *);

// In the order of plain_pair_statistics.
constexpr grouped_pair_statistic statistics[] = {vask_grp_covars, vask_grp_covarp, vask_grp_correl,
                                                 vask_grp_slope, vask_grp_intercept};

bat run(std::size_t i, const bat &x, const bat &y, const bat &g, const bat &e) {
    const bool is_line = plain_pair_statistics[i].is_line;
    const bat &a = is_line ? y : x;
    const bat &b = is_line ? x : y;
    std::int32_t id = 0;
    EXPECT_EQ(call(statistics[i](&id, a.slot(), b.slot(), g.slot(), e.slot())), success);
    return bat::adopt(id);
}

TEST(GroupedPairStatistics, AgreeBitForBitWithPlainLoops) {
    for (const grouped_shape &shape : grouped_shapes()) {
        grouped_inputs inputs(shape);
        std::mt19937 &random = inputs.random();
        for (std::size_t i = 0; i < std::size(statistics); ++i) {
            const int type_x = statistic_types[random() % std::size(statistic_types)];
            const int type_y = statistic_types[random() % std::size(statistic_types)];
            const auto classes = plain_classes(type_x, type_y);
            if (!classes)
                continue;
            const std::uint32_t nils = std::array{0U, 2U, 30U, 100U}[random() % 4];
            const std::int32_t threads = std::array{1, 2, 3, 8, 300}[random() % 5];
            const bool specials = random() % 3 == 0; // NaNs and infinities
            const BUN other_first = random() % 3 == 0 ? 4 : shape.first;
            const column_pair columns{
                any_column(type_x, shape.rows, shape.first, shape.first, nils, random, specials),
                any_column(type_y, shape.rows, other_first, shape.first, nils, random, specials),
                *classes, plain_pair_statistics[i].is_line};
            const auto rows = inputs.rows_by_group(plain_partitions(shape.rows, threads),
                                                   [&](BUN row) { return !columns.dropped(row); });
            const kernel_settings settings(threads);
            const watch kernel;
            SCOPED_TRACE(testing::Message()
                         << plain_pair_statistics[i].name << " of types " << type_x << " and "
                         << type_y << ", " << shape << " and " << other_first << ", " << nils
                         << "% nil, " << threads << " threads");
            const leak_guard leaks;
            const bat result = run(i, columns.x.view, columns.y.view, inputs.map, inputs.extents);
            expect_groups<double>(result, inputs.extents, TYPE_dbl, rows, [&](const auto &group) {
                return unless_nil(plain_pair_statistics[i].of(sums_of<plain_pair_sums>(
                    group, [&](BUN row, plain_pair_sums &sums) { columns.add(row, sums); })));
            });
        }
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
            const bat view = refkernel::slice(x.view, 2, rows - 2);
            const bat map = refkernel::make_void_column(rows - 2, 7);
            const bat other = refkernel::slice(y.view, 0, rows - 2);
            for (std::size_t i = 0; i < std::size(statistics); ++i) {
                const watch kernel;
                const leak_guard leaks;
                const bat result = run(i, view, other, map, map);
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

std::atomic<int> comparisons;

int counting_comparison(const void *nil, const void *element) {
    ++comparisons;
    return *static_cast<const int *>(nil) != *static_cast<const int *>(element);
}

TEST(GroupedPairStatistics, TheTypesOwnComparisonSeesNoMoreThanItMust) {
    const int nil = nil_of<int>();
    const bat x = column_of(std::vector{nil, 1, 2, 3, nil, 5});
    const bat y = column_of(std::vector{1, nil, 4, 9, 1, 25});
    const bat map = column_of(std::vector<oid>{77, 77, 1, 0, 77, 77}); // 77 is no group
    const bat extents = refkernel::make_void_column(2, 0);
    const kernel_settings settings(1);
    const replaced_comparison counting(TYPE_int, counting_comparison);
    for (std::size_t i = 0; i < 3; ++i) {
        comparisons = 0;
        run(i, x, y, map, extents);
        EXPECT_EQ(comparisons, 1 + 2 + 2 + 2 + 1 + 2) << plain_pair_statistics[i].name;
        const bat first_unknown = column_of(std::vector<oid>{1, 1, 77, 0, 0, 0});
        comparisons = 0;
        run(i, x, y, first_unknown, extents);
        EXPECT_EQ(comparisons, 1 + 2 + 2) << plain_pair_statistics[i].name;
    }
}

TEST(GroupedPairStatistics, OfNoRowsAreNilAndOfNoGroupsNothing) {
    const bat three = column_of(std::vector<float>{1, 2, 3});
    const bat none = column_of(std::vector<std::int16_t>());
    const bat map = column_of(std::vector<oid>{0, 1, 0});
    const bat extents = refkernel::make_void_column(2, 0);
    const bat no_extents = refkernel::make_void_column(0, 0);
    for (std::size_t i = 0; i < std::size(statistics); ++i) {
        const watch kernel;
        const leak_guard leaks;
        const bat nils = run(i, none, none, map, extents);
        for (const double v : nils.values<double>())
            EXPECT_EQ(v, nil_of<double>());
        expect_grouped_shape(nils, extents, TYPE_dbl, true);
        expect_grouped_shape(run(i, three, three, map, no_extents), no_extents, TYPE_dbl, false);
    }
}

} // namespace
