// The exported refinement around its paths.
#include "grouping/derive/old_grouping.h"
#include "support/kernel_settings.h"
#include "support/leak_guard.h"
#include "vask/ops.h"
#include "vask/refkernel/instrumentation.h"

#include <optional>
#include <set>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace support;
using refkernel::bat;
using refkernel::checkpoint;
using refkernel::operator_failure;
using refkernel::instrumentation::operation;
using refkernel::instrumentation::watch;

struct derived {
    operator_failure failure;
    bat histo;
    bat map;
};

derived call(const bat &histo, const bat &map, const bat &b) {
    std::int32_t histo_id = int_nil;
    std::int32_t map_id = int_nil;
    derived result;
    result.failure = refkernel::take_exception(
        VASKderive(&histo_id, &map_id, histo.slot(), map.slot(), b.slot()));
    result.histo = bat::adopt(histo_id);
    result.map = bat::adopt(map_id);
    return result;
}

enum class path { serial, pairs, buckets };

//! The path that a watched call took, by what it asked of the kernel.
path path_of(const watch &kernel) {
    if (kernel.calls(operation::align_synced) == 0)
        return path::serial;
    return kernel.calls(operation::bun_fastins) == 0 ? path::pairs : path::buckets;
}

TEST(VaskDerive, SizesAndTheSampleChooseThePath) {
    const struct {
        BUN rows, groups;
        std::uint64_t distinct;
        int threads;
        path expected;
    } cases[] = {
        {8191, 1, 4, 2, path::serial},     {8192, 1, 4, 2, path::pairs},
        {8192, 1, 4, 1, path::serial},     {8193, 1, 4, 2, path::pairs},
        {8192, 1, 5, 2, path::buckets}, // 5 / 8192 is above 0.0005
        {10000, 3000, 1, 2, path::serial}, {10000, 2999, 1, 2, path::buckets},
        {20000, 10, 1, 2, path::pairs},    {20000, 11, 1, 2, path::buckets},
    };
    for (const auto &c : cases) {
        const layout l{.rows = c.rows, .groups = c.groups, .threads = c.threads};
        SCOPED_TRACE(::testing::Message() << l);
        const kernel_settings settings(c.threads);
        const old_grouping old(l);
        const auto values = random_values<std::int32_t>(l.rows, c.distinct, 0, 3);
        const bat b = refkernel::make_column<std::int32_t>(values, head_options(l.head, old.heads));
        watch kernel;
        const derived result = call(old.histo, old.map, b);
        EXPECT_EQ(result.failure, operator_failure());
        EXPECT_EQ(path_of(kernel), c.expected);
        EXPECT_EQ(kernel.unpaired_accesses().size(), c.expected == path::serial ? 3U : 0U);
        EXPECT_EQ(difference(in_order_of_id(
                                 read_groups(*result.map.record(), *result.histo.record(), l.rows)),
                             in_order_of_id(refine_plainly(old, keys_by_bits(values)))),
                  "");
    }
}

TEST(VaskDerive, AnEmptyGroupingGoesToTheKernel) {
    const kernel_settings settings(2);
    const layout l{.rows = 9000, .groups = 2};
    const old_grouping old(l);
    const bat b = refkernel::make_column(std::vector<std::int32_t>(l.rows, 1),
                                         head_options(l.head, old.heads));
    const bat no_rows = refkernel::make_column(std::vector<oid>());
    const bat no_groups = refkernel::make_column(std::vector<wrd>());
    for (const auto &[histo, map] : {std::pair(&old.histo, &no_rows), {&no_groups, &old.map}}) {
        watch kernel;
        call(*histo, *map, b);
        EXPECT_EQ(kernel.calls(operation::bat_sample), 0U);
        EXPECT_EQ(kernel.calls(operation::grp_derive), 1U);
    }
}

TEST(VaskDerive, WhatIsMissingOrWrongIsNamed) {
    const kernel_settings settings(2);
    const layout l{.rows = 9000, .groups = 2};
    const old_grouping old(l);
    const bat b = refkernel::make_column(std::vector<std::int32_t>(l.rows, 1),
                                         head_options(l.head, old.heads));
    const bat oid_tail =
        refkernel::make_column(std::vector<oid>(l.rows, 1), head_options(l.head, old.heads));
    const bat wrong_head = bat::share(-b.id());
    const bat no_storage = refkernel::make_void_column(l.rows, 0, head_options(l.head, old.heads));
    const bat none;
    const char *place = "group.vask_derive";
    const leak_guard leaks;
    EXPECT_EQ(call(old.histo, old.map, none).failure,
              (operator_failure{place, "Object not found"}));
    EXPECT_EQ(call(old.histo, none, b).failure, (operator_failure{place, "Object not found"}));
    EXPECT_EQ(call(none, old.map, b).failure, (operator_failure{place, "Object not found"}));
    EXPECT_EQ(call(none, none, wrong_head).failure,
              (operator_failure{place, "Explicit type required(v)oid head required\n"}));
    EXPECT_EQ(call(old.histo, old.map, no_storage).failure,
              (operator_failure{place, "operation failed"}));
    EXPECT_EQ(call(old.histo, old.map, oid_tail).failure, operator_failure()); // stored as int
}

//! What comes of a call in which one call of an operation fails.
struct failing_operation {
    operation op;
    std::set<std::string> expected; // texts; an empty one is a success all the same
};

const std::string thrown = "an exception";

//! The operations that the paths call and that can fail.
std::vector<failing_operation> operations_of(path taken) {
    const bool by_pairs = taken == path::pairs;
    std::vector<failing_operation> all{
        {operation::bat_sample, {"dispatcher failed"}},
        {operation::grp_group, {"dispatcher failed"}},
        {operation::bat_hash, {"operation failed preparing hash"}},
        {operation::bat_new,
         {"could not allocate space for grp BAT", "could not allocate space for ext BAT"}},
        {operation::bat_setaccess, {"operation failed"}},
        // Only the pairs let an exception pass.
        {operation::gdk_malloc, {by_pairs ? thrown : "operation failed"}},
        {by_pairs ? operation::bat_extend : operation::bun_fastins, {"operation failed"}},
    };
    if (by_pairs) {
        // A second sample tells how many buckets to begin with, and can be done without.
        all.front().expected.insert("");
        all.push_back({operation::grp_derive, {""}});
    }
    return all;
}

//! Refines with the n-th call of an operation failing, and drops the result. Gives the failure's
//! text, nothing if there were fewer calls.
std::optional<std::string> failed_text(const bat &b, const old_grouping &old, operation op,
                                       std::uint64_t nth) {
    watch kernel;
    kernel.fail_at(op, nth);
    derived result;
    try {
        result = call(old.histo, old.map, b);
    } catch (const std::bad_alloc &) {
        EXPECT_EQ(kernel.bytes_outstanding(), 0U);
        return thrown;
    }
    const bool failed = result.failure != operator_failure();
    if (failed) {
        EXPECT_EQ(result.failure.place, "group.vask_derive");
    }
    // What a refinement opens is closed behind its last step but the hand-over.
    const bool closes = !failed || op == operation::bat_setaccess;
    EXPECT_EQ(kernel.unpaired_accesses().size(), closes ? 0U : 3U);
    EXPECT_EQ(kernel.bytes_outstanding(), 0U);
    if (kernel.failures() == 0) {
        EXPECT_FALSE(failed);
        return std::nullopt;
    }
    return result.failure.text;
}

// The n-th call of an operation fails, for all n there are.
TEST(VaskDerive, FailingKernelCalls) {
    const kernel_settings settings(3);
    // By pairs, by counting and by buckets; doubles are counted by numbers of their own.
    const struct {
        BUN groups;
        bool doubles;
        path taken;
    } cases[] = {{1, false, path::pairs},
                 {20, false, path::buckets},
                 {20, true, path::buckets},
                 {500, false, path::buckets}};
    for (const auto &c : cases)
        for (const auto &[op, expected] : operations_of(c.taken)) {
            const layout l{.rows = 20000, .groups = c.groups};
            std::set<std::string> seen;
            std::optional<std::string> text = "";
            for (std::uint64_t nth = 1; text; nth += 1 + nth / 64) {
                SCOPED_TRACE(::testing::Message() << operation_name(op) << ' ' << nth << ", " << l);
                const old_grouping old(l); // anew: a hash that was built stays with it
                const auto options = head_options(l.head, old.heads);
                const bat b =
                    c.doubles
                        ? refkernel::make_column(random_values<double>(l.rows, 6, 0, 1), options)
                        : refkernel::make_column(random_values<std::int32_t>(l.rows, 6, 0, 1),
                                                 options);
                const checkpoint before;
                text = failed_text(b, old, op, nth);
                if (text)
                    seen.insert(*text);
                // An exception loses the references that the call holds.
                if (text != thrown) {
                    EXPECT_EQ(before.leaks(), "");
                }
            }
            EXPECT_EQ(seen, expected) << operation_name(op) << ", " << c.groups << " groups";
        }
}

// What the kernel cannot load is lost, with the reference that was taken on it, and no more.
TEST(VaskDerive, AGroupedSampleThatCannotBeLoaded) {
    const kernel_settings settings(2);
    const layout l{.rows = 20000, .groups = 1};
    const old_grouping old(l);
    const bat b = refkernel::make_column(random_values<std::int32_t>(l.rows, 6, 0, 1),
                                         head_options(l.head, old.heads));
    refkernel::instrumentation::unload_groupings(true);
    // The histogram of the sample that chooses the path, with its map; histogram or map of the one
    // that tells how many buckets to begin with; none.
    const std::vector<std::int64_t> lost_bats{2, 1, 1, 0};
    for (std::size_t i = 0; i < lost_bats.size(); ++i) {
        watch kernel;
        kernel.fail_at(operation::bbp_descriptor, i + 1);
        const refkernel::kernel_usage before = refkernel::current_usage();
        EXPECT_EQ(call(old.histo, old.map, b).failure.text, i == 0 ? "dispatcher failed" : "");
        const refkernel::kernel_usage after = refkernel::current_usage();
        EXPECT_EQ(after.bats - before.bats, lost_bats[i]) << i;
        EXPECT_EQ(after.physical - before.physical, lost_bats[i] != 0 ? 1 : 0) << i;
        EXPECT_EQ(kernel.failures(), lost_bats[i] != 0 ? 1U : 0U);
    }
    refkernel::instrumentation::unload_groupings(false);
}

TEST(VaskDerive, TracesOnRequest) {
    const kernel_settings settings(2);
    GDKdebug = DEBUG_GROUP_TIMING;
    const layout l{.rows = 9000, .groups = 50};
    const old_grouping old(l);
    const bat b = refkernel::make_column(random_values<std::int32_t>(l.rows, 6, 0, 1),
                                         head_options(l.head, old.heads));
    const refkernel::output_capture output;
    const derived result = call(old.histo, old.map, b);
    const auto n = [](const bat &handle) { return std::to_string(handle.id()); };
    const std::string call_text = "# VASKderive ( ct_histoid=" + n(old.histo) +
                                  ", ct_mapid=" + n(old.map) + ", bid=" + n(b) + " )";
    const std::string expected = call_text + "\n" + call_text +
                                 " -> ( rethisto=" + n(result.histo) +
                                 " , retbid=" + n(result.map) + " ) {0.";
    ASSERT_EQ(output.text().substr(0, expected.size()), expected);
    EXPECT_EQ(output.text().substr(expected.size() + 6), " s}\n");
}

} // namespace
