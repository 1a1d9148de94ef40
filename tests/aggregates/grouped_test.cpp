// What the grouped operators have in common, seen through the grouped sum.

#include "aggregates/grouped.h"

#include "aggregates/grouped_check.h"
#include "vask/ops.h"

#include <numeric>

#include <gtest/gtest.h>

namespace {

using refkernel::bat;
using refkernel::make_column;
using refkernel::instrumentation::operation;
using refkernel::instrumentation::watch;
using support::kernel_settings;

//! Extents with a stored head that is not dense.
bat make_extents(const std::vector<oid> &ids, bool dense = false, oid seqbase = 0) {
    return make_column(std::vector<std::int64_t>(ids.size(), 1),
                       {.type = TYPE_wrd,
                        .stored_head = true,
                        .seqbase = seqbase,
                        .head_oids = ids,
                        .head = {.sorted = dense, .dense = dense}});
}

bat one_to_ten() {
    return make_column(std::vector<std::int32_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
}
//! The odd ones are of group 5, the even ones of group 9.
bat odd_and_even() {
    return make_column(std::vector<oid>{5, 9, 5, 9, 5, 9, 5, 9, 5, 9});
}

TEST(GroupedFrame, TheHashIsBuiltForTheFirstValueAndNotForADenseHead) {
    const kernel_settings settings(1);
    const bat map = odd_and_even();
    watch kernel;
    const bat nils = make_column(std::vector<std::int32_t>(10, refkernel::nil_of<std::int32_t>()));
    support::call_grouped(vask_grp_sum, nils, map, make_extents({9, 5}));
    EXPECT_EQ(kernel.calls(operation::bat_hash), 0U) << "nobody was looked up";
    const bat values = one_to_ten();
    support::call_grouped(vask_grp_sum, values, map, make_extents({5, 6, 7, 8, 9}, true, 5));
    EXPECT_EQ(kernel.calls(operation::bat_hash), 0U) << "dense";
    const bat extents = make_extents({9, 5});
    support::call_grouped(vask_grp_sum, values, map, extents);
    support::call_grouped(vask_grp_sum, values, map, extents);
    EXPECT_EQ(kernel.calls(operation::bat_hash), 1U) << "it stays for the next call";
    // Dense by its marks, but of nils: stored oids count then.
    const bat nil_base = make_extents({5, 9}, true, oid_nil);
    const bat result = support::call_grouped(vask_grp_sum, values, map, nil_base);
    EXPECT_EQ(kernel.calls(operation::bat_hash), 2U);
    EXPECT_EQ(result.values<std::int64_t>()[0], 25);
}

TEST(GroupedFrame, AHashThatCannotBeBuiltIsFatalUnderTheNumbersOwnName) {
    const kernel_settings settings(1);
    const bat values = one_to_ten();
    const bat map = odd_and_even();
    const bat extents = make_extents({9, 5});
    const bat exchanged = make_column(std::vector<oid>{9, 5}); // its mirror has extents' head
    const auto record = [](const bat &b) { return BBParr[b.id() >> 16][b.id() & 0xffff]; };
    static std::string message;
    const auto before = refkernel::set_fatal_handler([](const char *text) {
        message = text;
        return 0;
    });
    for (const auto &[number, name] : {std::pair(extents.id(), record(extents).logical_name),
                                       std::pair(-exchanged.id(), record(exchanged).mirror_name)}) {
        watch kernel;
        kernel.fail_at(operation::bat_hash, 1);
        std::int32_t result = 0;
        ASSERT_EQ(vask_grp_sum(&result, values.slot(), map.slot(), &number), nullptr);
        EXPECT_EQ(message, std::string("HASHfnd_oid: hash build failed on ") + name + ".\n");
        // A kernel that goes on sees the task end as for an unknown group.
        const bat sums = bat::adopt(result);
        EXPECT_TRUE(sums.is_nil(0) && sums.is_nil(1));
    }
    refkernel::set_fatal_handler(before);
}

// What lies behind the map's rows would pass for groups.
TEST(GroupedFrame, RowsBeyondTheMapHaveNoGroup) {
    const bat values = make_column(std::vector<std::int32_t>(1000, 1));
    const bat memory = make_column(std::vector<oid>(1000, 5));
    for (const BUN mapped : {0U, 1U, 400U, 999U})
        for (const std::int32_t threads : {1, 3}) {
            const kernel_settings settings(threads);
            const bat map = refkernel::view_rows(memory, 0, mapped);
            const bat sums = support::call_grouped(vask_grp_sum, values, map, make_extents({5}));
            EXPECT_EQ(support::unless_nil(sums.values<lng>()[0]).value_or(0), mapped)
                << threads << " threads";
        }
}

TEST(GroupedFrame, WithoutGroupsTheResultIsEmptyAndNothingIsRead) {
    const bat values = one_to_ten();
    const bat map = odd_and_even();
    const bat none = make_extents({});
    watch kernel;
    const bat result = support::call_grouped(vask_grp_sum, values, map, none);
    EXPECT_EQ(kernel.calls(operation::bat_access), 0U);
    support::expect_grouped_shape(result, none, TYPE_lng, false);
}

// The table is what the generated cases go by, so it is held against the contract here.
TEST(ResultTypes, AreThoseOfTheContract) {
    for (const int type : {TYPE_bte, TYPE_sht, TYPE_int, TYPE_lng}) {
        EXPECT_EQ(vask::sum_result<lng>::code(type), TYPE_lng);
        EXPECT_EQ(vask::extreme_result<lng>::code(type), type);
    }
    for (const int type : {TYPE_wrd, TYPE_flt, TYPE_dbl})
        EXPECT_EQ(vask::sum_result<dbl>::code(type), type);
    EXPECT_EQ(vask::extreme_result<lng>::code(refkernel::type_timestamp), TYPE_lng);
    EXPECT_EQ(vask::count_result<flt>::code(TYPE_flt), TYPE_wrd);
    EXPECT_EQ(vask::statistic_result<bte>::code(TYPE_bte), TYPE_dbl);
    EXPECT_TRUE((std::is_same_v<vask::sum_result<bte>::type, lng>));
    EXPECT_TRUE((std::is_same_v<vask::sum_result<flt>::type, flt>));
}

} // namespace
