#include "aggregates/column_check.h"
#include "aggregates/grouped_check.h"
#include "vask/ops.h"

#include <gtest/gtest.h>

namespace {

using refkernel::make_column;
using refkernel::nil_of;
using refkernel::instrumentation::operation;
using support::call_on_column;

refkernel::bat make_timestamps(const std::vector<std::int64_t> &values) {
    return make_column(std::span<const std::int64_t>(values), {.type = refkernel::type_timestamp});
}

TEST(MinMax, AgreeWithThePlainLoopWhateverTheName) {
    support::check_column<plain::min>(vask_min_bte);
    support::check_column<plain::max>(vask_max_timestamp);
}

TEST(MinMax, FloatsKeepTheOutcomeOfTheOrderOfTests) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const support::kernel_settings settings(1);
    const auto min = [](std::vector<double> v) {
        return call_on_column<double>(vask_min_dbl, make_column(std::move(v)));
    };
    const double nil = nil_of<double>();
    EXPECT_TRUE(std::isnan(min({nil, nan, 1, 2}))) << "met first, stays";
    EXPECT_EQ(min({3, nan, 1, nan}), 1) << "met later, is passed over";
    // The first zero stays, wherever it stands among vectors of rows and whatever came before.
    for (std::size_t at = 0; at < 40; ++at) {
        for (const double zero : {0.0, -0.0}) {
            std::vector<double> values(60, 5.0);
            values[at] = zero;
            values[at + 1 + at % 17] = -zero;
            EXPECT_EQ(std::signbit(min(values)), std::signbit(zero)) << at;
            for (double &v : values)
                v = v == 5.0 ? -5.0 : v;
            EXPECT_EQ(
                std::signbit(call_on_column<double>(vask_max_flt, make_column(std::move(values)))),
                std::signbit(zero))
                << at;
        }
    }
}

// Whatever a loop takes for worse than any value may be a value.
TEST(MinMax, TheWorstValueIsAValue) {
    const auto check = []<class T>(int type) {
        if constexpr (!std::is_floating_point_v<T>) {
            const T nil = nil_of<T>();
            for (const T worst : {std::numeric_limits<T>::max(), static_cast<T>(nil + 1)})
                for (const std::size_t nils : {0U, 1U, 200U}) {
                    std::vector<T> values(nils, nil);
                    values.insert(values.end(), {worst, nil});
                    const auto column = make_column(std::span<const T>(values), {.type = type});
                    EXPECT_EQ(call_on_column<T>(vask_min_int, column), worst);
                    EXPECT_EQ(call_on_column<T>(vask_max_int, column), worst);
                }
        }
    };
    support::for_each_arithmetic_type(check);
}

TEST(MinMax, UserAtomsRunByRawValueUnderTheirOwnNil) {
    using bytes = std::string;
    constexpr std::int64_t own_nil = 123;
    const int type = refkernel::register_atom(
        {"odd_nil", TYPE_lng, bytes(reinterpret_cast<const char *>(&own_nil), sizeof own_nil)});
    const refkernel::column_options b{.type = type};
    const auto column = [&](std::vector<std::int64_t> v) { return make_column(std::move(v), b); };
    EXPECT_EQ(call_on_column<std::int64_t>(vask_min_timestamp, column({own_nil, 200, 150})), 150);
    for (const auto &values : {std::vector<std::int64_t>{}, {own_nil, own_nil}})
        EXPECT_EQ(call_on_column<std::int64_t>(vask_max_lng, column(values)), nil_of<lng>())
            << "the nil of the storage, not the atom's";
    EXPECT_EQ(call_on_column<std::int64_t>(vask_max_timestamp, make_timestamps({-5, -9})), -5);
    // oids are ints to this kernel.
    EXPECT_EQ(call_on_column<std::int32_t>(vask_max_oid, make_column(std::vector<oid>{7, 9, 8})),
              9);
}

TEST(MinMax, OfAVoidColumnNeedNoRows) {
    refkernel::instrumentation::watch kernel;
    const auto both = [](const refkernel::bat &column) {
        return std::pair(call_on_column<oid>(vask_min_oid, column),
                         call_on_column<oid>(vask_max_oid, column));
    };
    EXPECT_EQ(both(refkernel::make_void_column(4, 5)), std::pair(oid{5}, oid{8}));
    EXPECT_EQ(both(refkernel::make_void_column(4, oid_nil)), std::pair(oid_nil, oid_nil));
    EXPECT_EQ(both(refkernel::make_void_column(0, 5)), std::pair(oid_nil, oid_nil));
    EXPECT_EQ(kernel.calls(operation::bat_access), 0U);
}

TEST(GroupedMinMax, AgreeWithThePlainLoopOnAllShapes) {
    support::check_grouped<plain::min>(vask_grp_min);
    support::check_grouped<plain::max>(vask_grp_max);
}

TEST(GroupedMinMax, OfRowsThatAreGroupsAreTheValue) {
    support::for_each_arithmetic_type([]<class T>(int type) {
        for (const auto name : {vask_grp_min, vask_grp_max})
            support::check_row_groups<vask::extreme_result<T>, T>(name, type,
                                                                  [](T v) { return v; });
    });
}

TEST(GroupedMinMax, OfTimestampsAreLng) {
    const auto map = make_column(std::vector<oid>{0, 0, 1});
    const auto extents = refkernel::make_void_column(2);
    const auto result =
        support::call_grouped(vask_grp_min, make_timestamps({50, -7, 3}), map, extents);
    support::expect_grouped_shape(result, extents, TYPE_lng, false);
    EXPECT_EQ(result.values<std::int64_t>()[0], -7);
}

} // namespace
