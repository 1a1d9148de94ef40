#include "aggregates/grouped_check.h"
#include "statistics/plain_statistics.h"
#include "support/leak_guard.h"
#include "vask_ops.h"

#include <gtest/gtest.h>

namespace {

using namespace support;
using refkernel::bat;
using refkernel::nil_of;

// In the order of plain_moments.
constexpr grouped_function statistics[] = {vask_grp_stdev,     vask_grp_stdevp, vask_grp_variance,
                                           vask_grp_variancep, vask_grp_skews,  vask_grp_skewp};

TEST(GroupedMoments, AgreeBitForBitWithPlainLoops) {
    for (const grouped_shape &shape : grouped_shapes()) {
        grouped_inputs inputs(shape);
        const std::uint32_t nils = std::array{0U, 3U, 50U, 100U}[shape.seed % 4];
        const std::int32_t threads = std::array{1, 2, 3, 8, 300}[shape.seed % 5];
        for_each_number_type([&]<class T>(T) {
            const auto values = statistic_values<T>(shape.rows, 1000, nils, inputs.random());
            const auto rows =
                inputs.rows_by_group(plain_partitions(shape.rows, threads),
                                     [&](BUN row) { return values[row] != nil_of<T>(); });
            const bat column = column_of(values, {.first = shape.first});
            const kernel_settings settings(threads);
            const std::size_t i = inputs.random()() % std::size(statistics);
            SCOPED_TRACE(testing::Message() << plain_moments[i].name << ", " << shape << ", "
                                            << nils << "% nil, " << threads << " threads");
            const leak_guard leaks;
            const bat result = call_grouped(statistics[i], column, inputs.map, inputs.extents);
            expect_groups<double>(result, inputs.extents, TYPE_dbl, rows, [&](const auto &group) {
                return unless_nil(plain_moments[i].of(
                    sums_of<plain_sums>(group, [&](BUN row, plain_sums &partial) {
                        partial.add(static_cast<double>(values[row]));
                    })));
            });
        });
    }
}

TEST(GroupedMoments, OfRowsThatAreGroups) {
    const double nil = nil_of<double>();
    const bat values = column_of(std::vector<std::int32_t>{9, 4, nil_of<std::int32_t>(), 7, 8});
    const bat view = refkernel::slice(values, 1, 4);
    const bat map = refkernel::make_void_column(4, 7);
    for (std::size_t i = 0; i < std::size(statistics); ++i) {
        const leak_guard leaks;
        const bat result = call_grouped(statistics[i], view, map, map);
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
