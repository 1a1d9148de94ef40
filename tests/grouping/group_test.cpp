#include "vask/ops.h"

#include "grouping/group_select.h"
#include "grouping/plain_groups.h"
#include "support/failing_calls.h"
#include "support/kernel_calls.h"
#include "support/kernel_settings.h"
#include "support/leak_guard.h"
#include "vask/refkernel/instrumentation.h"

#include <functional>

#include <gtest/gtest.h>

namespace {

using namespace vask;
using namespace support;
using refkernel::bat;
using refkernel::operator_failure;
using refkernel::take_exception;
using refkernel::instrumentation::operation;
using refkernel::instrumentation::watch;

// The operators read these once in the life of the process, so they are set before it begins. A
// sample takes in all rows of these tests, which makes the path certain.
constexpr BUN serial_rows = 1000;
constexpr std::uint32_t few_groups = 100;
[[maybe_unused]] const bool settings_are_made = [] {
    GDKgroup_algo_select_vask_size = serial_rows;
    GDKgroup_algo_select_sample_size = 100000;
    GDKgroup_algo_select_uniqueness_thresh = few_groups;
    return true;
}();

const operator_failure none{};

struct grouping {
    bat ext;
    bat map;
    operator_failure failure;

    explicit grouping(std::int32_t id) {
        std::int32_t ids[] = {unset, unset};
        failure = take_exception(VASKgroup(&ids[0], &ids[1], &id));
        EXPECT_EQ(ids[0] == unset, failure != none);
        EXPECT_EQ(ids[1] == unset, failure != none);
        if (ids[0] != unset && ids[1] != unset) {
            ext = bat::adopt(ids[0]);
            map = bat::adopt(ids[1]);
        }
    }

private:
    static constexpr std::int32_t unset = -77;
};

//! Values 0 .. distinct - 1 over and over.
template <class T = std::int32_t>
bat cycle(BUN rows, std::uint32_t distinct, const refkernel::column_options &options = {}) {
    std::vector<T> values(rows);
    for (BUN row = 0; row < rows; ++row)
        values[row] = static_cast<T>(row % distinct);
    return refkernel::make_column<T>(std::span<const T>(values), options);
}

bat text_cycle(BUN rows, std::uint32_t distinct, int type = TYPE_str, BUN first = 0) {
    refkernel::text_options stored;
    stored.type = type;
    refkernel::text_builder builder(stored);
    for (BUN row = 0; row < rows; ++row)
        builder.append(std::to_string(row % distinct));
    return builder.finish({.first = first});
}

struct selection_case {
    const char *what;
    vask_group_strategy expected;
    int threads;
    bool sampled;
    std::function<bat()> column;
};

TEST(GroupSelect, EachTestOnBothSidesOfItsLimit) {
    constexpr BUN rows = serial_rows + 1;
    const std::vector<oid> dense = head_oids(heads::dense, rows, 4, 0);
    const std::vector<oid> shuffled = head_oids(heads::shuffled, rows, 4, 1);
    const selection_case cases[] = {
        {"key", VASK_GROUP_SERIAL, 2, false,
         [&] { return cycle(rows, rows, {.tail = {.key = true}}); }},
        {"few rows", VASK_GROUP_SERIAL, 2, false, [&] { return cycle(serial_rows, 5); }},
        {"few texts", VASK_GROUP_SERIAL, 2, false, [&] { return text_cycle(serial_rows, 5); }},
        {"texts", VASK_GROUP_HASH, 1, false, [&] { return text_cycle(rows, rows); }},
        {"texts in the middle", VASK_GROUP_SERIAL, 2, false,
         [&] { return text_cycle(rows, 5, TYPE_str, 1); }},
        {"int on one thread", VASK_GROUP_SERIAL, 1, false, [&] { return cycle(rows, 5); }},
        {"flt on one thread", VASK_GROUP_HASH, 1, true, [&] { return cycle<flt>(rows, 5); }},
        {"dbl on one thread", VASK_GROUP_SORT, 1, true, [&] { return cycle<dbl>(rows, rows); }},
        {"int on no thread", VASK_GROUP_HASH, 0, true, [&] { return cycle(rows, 5); }},
        {"threshold", VASK_GROUP_HASH, 2, true, [&] { return cycle(rows, few_groups); }},
        {"above", VASK_GROUP_SORT, 2, true, [&] { return cycle(rows, few_groups + 1); }},
        {"few, rows in the middle", VASK_GROUP_SERIAL, 2, true,
         [&] { return cycle(rows, 5, {.first = 3}); }},
        {"many, rows in the middle", VASK_GROUP_SORT, 2, true,
         [&] { return cycle(rows, rows, {.first = 3}); }},
        {"many, stored dense head", VASK_GROUP_SORT, 2, true,
         [&] { return cycle(rows, rows, head_options(heads::dense, dense)); }},
        {"many, other head", VASK_GROUP_SERIAL, 2, true,
         [&] { return cycle(rows, rows, head_options(heads::shuffled, shuffled)); }},
        {"few, other head", VASK_GROUP_HASH, 2, true,
         [&] { return cycle(rows, 5, head_options(heads::shuffled, shuffled)); }},
        {"many, head of nils", VASK_GROUP_SERIAL, 2, true,
         [&] { return cycle(rows, rows, {.seqbase = oid_nil}); }},
        {"few, head of nils", VASK_GROUP_HASH, 2, true,
         [&] { return cycle(rows, 5, {.seqbase = oid_nil}); }},
        {"many, stored as text", VASK_GROUP_SORT, 2, true,
         [&] { return text_cycle(rows, rows, refkernel::type_tag); }},
    };
    for (const selection_case &c : cases) {
        SCOPED_TRACE(c.what);
        const kernel_settings settings(c.threads);
        const bat b = c.column();
        const leak_guard leaks;
        watch kernel;
        EXPECT_EQ(vask_group_select(b.record()), c.expected);
        EXPECT_EQ(kernel.calls(operation::bat_sample), c.sampled ? 1U : 0U);
    }
}

//! BATs and operators' references that a call leaves behind.
std::pair<std::int64_t, std::int64_t> left_behind(auto run) {
    const refkernel::kernel_usage before = refkernel::current_usage();
    run();
    const refkernel::kernel_usage after = refkernel::current_usage();
    return {after.bats - before.bats, after.physical - before.physical};
}

// What the kernel cannot load is lost, with the reference that was taken on it, and no more.
TEST(GroupSelect, AGroupedSampleThatCannotBeLoaded) {
    const kernel_settings settings(2);
    const bat b = cycle(serial_rows + 1, 5);
    refkernel::instrumentation::unload_groupings(true);
    const std::vector<std::int64_t> lost_bats{2, 1, 0}; // histogram and map, the map, none
    for (std::size_t i = 0; i < lost_bats.size(); ++i) {
        watch kernel;
        kernel.fail_at(operation::bbp_descriptor, i + 1);
        const bool lost = lost_bats[i] != 0;
        const auto [bats, references] = left_behind([&] {
            EXPECT_EQ(vask_group_select(b.record()), lost ? VASK_GROUP_FAILED : VASK_GROUP_HASH);
        });
        EXPECT_EQ(bats, lost_bats[i]);
        EXPECT_EQ(references, lost ? 1 : 0);
    }
    refkernel::instrumentation::unload_groupings(false);
}

TEST(GroupSelect, ReadsTheSettingsOnce) {
    const kernel_settings settings(2);
    const bat b = cycle(serial_rows + 1, few_groups);
    EXPECT_EQ(vask_group_select(b.record()), VASK_GROUP_HASH);
    for (std::uint32_t *setting :
         {&GDKgroup_algo_select_vask_size, &GDKgroup_algo_select_uniqueness_thresh,
          &GDKgroup_algo_select_sample_size}) {
        const std::uint32_t kept =
            std::exchange(*setting, setting == &GDKgroup_algo_select_vask_size ? ~0U : 1U);
        EXPECT_EQ(vask_group_select(b.record()), VASK_GROUP_HASH);
        *setting = kept;
    }
}

// Every type and head over all paths there are, with the marks of the results.
TEST(Group, AgreesWithThePlainWay) {
    std::uint64_t seed = 0;
    for (const int threads : {1, 2, 5})
        for (const std::uint64_t distinct : {7U, 500U, 100000U})
            for (const heads kind : all_heads)
                for_each_number_type([&]<class T>(T) {
                    const kernel_settings settings(threads);
                    const std::vector<T> values = random_values<T>(1500, distinct, 5, ++seed);
                    const std::vector<oid> oids = head_oids(kind, values.size(), 3, seed);
                    const bat b = refkernel::make_column<T>(std::span<const T>(values),
                                                            head_options(kind, oids));
                    const leak_guard leaks;
                    const grouping made(b.id());
                    ASSERT_EQ(made.failure, none);
                    const plain_groups expected = group_rows(keys_by_bits(values), oids);
                    ASSERT_EQ(
                        difference(read_groups(*made.map.record(), *made.ext.record(), b.count()),
                                   expected),
                        "")
                        << "seed " << seed;
                    EXPECT_EQ(made.map.count(), b.count());
                    EXPECT_EQ(made.map->head->type, b->head->type);
                    EXPECT_NE(ALIGNsynced(made.map.record(), b.record()), 0);
                });
}

TEST(Group, MarksOfTheResults) {
    const kernel_settings settings(2);
    const std::vector<oid> ascending = head_oids(heads::ascending, 3000, 4, 0);
    const bat columns[] = {cycle(3000, 50),
                           cycle(3000, 50, head_options(heads::ascending, ascending)),
                           cycle(3000, 3000), text_cycle(3000, 3000)};
    for (const bat &b : columns) {
        const grouping made(b.id());
        ASSERT_EQ(made.failure, none);
        const bool all_differ = made.ext.count() == b.count();
        EXPECT_EQ(made.map->tail->sorted, 0);
        EXPECT_EQ(made.map->tail->nonil, 0);
        EXPECT_EQ(made.map->tail->key != 0, all_differ);
        EXPECT_EQ(made.map->state->access, ACCESS_READ);
        EXPECT_EQ(made.ext->head->sorted, SORTED_ASCENDING);
        EXPECT_NE(made.ext->head->key, 0);
        EXPECT_EQ(made.ext->tail->sorted, 0);
        EXPECT_EQ(made.ext->tail->key, 0);
        EXPECT_EQ(made.ext->state->access, ACCESS_READ);
    }
}

TEST(Group, KernelSeesTheStepsInOrder) {
    const kernel_settings settings(2);
    const bat b = text_cycle(2000, 50);
    watch kernel;
    kernel.record(true);
    const grouping made(b.id());
    EXPECT_EQ(
        calls_by_role(kernel, {{b.id(), "b"}, {made.map.id(), "grp"}, {made.ext.id(), "ext"}}),
        "BBPincref(b, 0) BATnew(0, 7, 2000) BATnew(7, 8, 4096) BATsetcount(grp, 2000) "
        "ALIGNsetH(grp, b) BATsetaccess(grp, 1) BATkey(-ext, 0) BATkey(ext, 1) "
        "BATsetaccess(ext, 1) BBPkeepref(grp) BBPkeepref(ext) BBPreleaseref(b)");
}

TEST(Group, GoesOnWithWhatTheSealGives) {
    const kernel_settings settings(2);
    const bat b = text_cycle(2000, 50);
    refkernel::instrumentation::replace_on_setaccess(true);
    const refkernel::checkpoint before;
    {
        const grouping made(b.id());
        EXPECT_EQ(made.failure, none);
        EXPECT_EQ(made.map.count(), 2000U);
        EXPECT_EQ(made.ext.count(), 50U);
        EXPECT_EQ(made.ext->state->access, ACCESS_READ);
        watch kernel;
        kernel.fail_at(operation::bat_setaccess, 2); // of the extents, behind a map in its place
        EXPECT_EQ(grouping(b.id()).failure,
                  (operator_failure{"group.vask_new", "operation failed"}));
    }
    EXPECT_EQ(before.leaks(), "");
    refkernel::instrumentation::replace_on_setaccess(false);
}

TEST(Group, FailuresReleaseWhatTheyHold) {
    const kernel_settings settings(2);
    const bat numbers = cycle(9000, 50);
    const bat texts = text_cycle(9000, 9000); // more groups than the extents have room for at first
    const bat tags = text_cycle(9000, 9000, refkernel::type_tag);
    const bat nils = refkernel::make_void_column(9000, oid_nil);
    const auto place = [](const char *text) { return operator_failure{"group.vask_new", text}; };
    struct {
        std::int32_t id;
        operation op;
        std::uint64_t nth;
        operator_failure expected;
    } const cases[] = {
        {0, operation::gdk_free, 0, place("Object not found")},
        {int_nil, operation::gdk_free, 0, place("Object not found")},
        {BBPsize, operation::gdk_free, 0, place("Object not found")},
        {numbers.id(), operation::bat_sample, 1, place("operation failed to sample BAT")},
        {numbers.id(), operation::grp_group, 1, place("operation failed to sample BAT")},
        {texts.id(), operation::bat_new, 1, place("could not allocate space for grp BAT")},
        {texts.id(), operation::bat_new, 2, place("could not allocate space for ext BAT")},
        {texts.id(), operation::bat_extend, 1, place("operation failed")},
        {texts.id(), operation::bat_setaccess, 1, place("operation failed")},
        {numbers.id(), operation::bat_setaccess, 2, place("operation failed")},
        {tags.id(), operation::gdk_free, 0, place("operation failed")},
        {nils.id(), operation::gdk_free, 0, place("operation failed")},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.expected.text + " on " + std::to_string(c.id));
        const leak_guard leaks;
        watch kernel;
        kernel.fail_at(c.op, c.nth);
        EXPECT_EQ(grouping(c.id).failure, c.expected);
        // The exception string of the kernel's own operator is released, too.
        EXPECT_EQ(kernel.bytes_outstanding(), 0U);
    }
    const kernel_settings no_threads(0);
    EXPECT_EQ(grouping(numbers.id()).failure, place("operation failed"));
}

TEST(Group, OtherHeadsKeepEverythingOrAreTheKernels) {
    const kernel_settings settings(2);
    for (const BUN rows : {serial_rows, serial_rows + 1}) {
        const bat b = refkernel::make_empty(TYPE_int, TYPE_str, rows);
        for (std::int32_t i = 0; i < static_cast<std::int32_t>(rows); ++i) {
            ASSERT_NE(BUNfastins(b.record(), &i, i % 5 == 0 ? "ash" : "oak"), nullptr);
        }
        watch kernel;
        operator_failure failure;
        const auto [bats, references] = left_behind([&] { failure = grouping(b.id()).failure; });
        if (rows == serial_rows) {
            EXPECT_EQ(kernel.calls(operation::grp_group), 1U);
            EXPECT_EQ(kernel.calls(operation::bbp_releaseref), 1U);
        } else {
            EXPECT_EQ(failure, (operator_failure{"group.VASKgroup",
                                                 "Explicit type required(v)oid head required\n"}));
            EXPECT_EQ(bats, 2);
            EXPECT_EQ(references, 3) << "on b and the two new BATs";
        }
    }
}

TEST(Group, AllocationFailuresLeaveAsExceptions) {
    const kernel_settings settings(2);
    const bat b = text_cycle(2000, 50);
    fail_each_call(
        operation::gdk_malloc, [] { return 0; },
        [&](int, const watch &, auto failed) {
            std::int32_t ids[] = {0, 0};
            const auto [bats, references] = left_behind([&] {
                try {
                    EXPECT_EQ(VASKgroup(&ids[0], &ids[1], b.slot()), nullptr);
                } catch (const std::bad_alloc &e) {
                    EXPECT_STREQ(e.what(), "bad allocation");
                }
            });
            EXPECT_EQ(bats, 2);
            if (failed()) {
                EXPECT_EQ(ids[0], 0);
                EXPECT_EQ(references, 3) << "on b and the two new BATs";
            } else {
                EXPECT_EQ(references, 0);
                bat::adopt(ids[0]);
                bat::adopt(ids[1]);
            }
        });
}

TEST(Group, LeavesNoMemoryBehind) {
    const kernel_settings settings(8);
    const bat columns[] = {cycle(2000, 50), cycle<flt>(2000, 50), text_cycle(2000, 1500),
                           cycle(2000, 2000)};
    for (const bat &b : columns) {
        const watch kernel;
        for (int time = 0; time < 10; ++time)
            EXPECT_EQ(grouping(b.id()).failure, none);
        EXPECT_EQ(kernel.bytes_outstanding(), 0U) << "type " << b.type();
    }
}

TEST(Group, Traces) {
    const kernel_settings settings(2);
    const bat parallel = text_cycle(2000, 50);
    const bat serial = text_cycle(5, 2);
    for (const bat *b : {&parallel, &serial})
        for (const bool traced : {false, true}) {
            GDKdebug = traced ? std::uint32_t{DEBUG_GROUP_TIMING} : 0;
            const refkernel::output_capture output;
            const grouping made(b->id());
            const std::string call = "# VASKgroup ( bid=" + std::to_string(b->id()) + " )";
            std::string expected = traced ? call + "\n" : "";
            if (traced && b == &parallel) {
                expected += call + " -> ( rethisto=" + std::to_string(made.ext.id()) +
                            " , retbid=" + std::to_string(made.map.id()) + " ) {0.";
                expected += output.text().substr(expected.size(), 6) + " s}\n"; // microseconds
            }
            EXPECT_EQ(output.text(), expected);
        }
}

} // namespace
