#include "kernel/frame.h"

#include "support/kernel_settings.h"
#include "support/leak_guard.h"
#include "vask/embed.h"
#include "vask/refkernel/instrumentation.h"

#include <atomic>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace vask;
using support::kernel_settings;

TEST(PartitionCount, FollowsTheSettings) {
    struct {
        std::int32_t threads, min_part, div;
        BUN rows;
        std::uint64_t expected;
    } const cases[] = {
        {4, 1000, 4, 0, 1},
        {4, 1000, 4, 1000, 1},         // not above the smallest size
        {4, 1000, 4, 1001, 1},         // one whole partition fits, not two
        {4, 1000, 4, 2000, 2},         // rows decide
        {4, 1000, 4, 1'000'000, 4},    // threads decide
        {1, 1000, 4, 1'000'000, 1},    // one thread
        {300, 1, 1, 1'000'000, 256},   // the cap
        {300, 1, 4, 200, 200},         // rows decide below the cap
        {64, 1000, 0, 1'000'000, 0},   // a divisor of 0 allows none
        {8, 1, 1'000'000'000, 9, 8},   // the product needs more than 32 bits
        {8, -1, 4, 1'000'000, 1},      // a negative size counts as huge
        {-3, 1000, 4, 1'000'000, 256}, // and so do negative threads
        {-3, 1, 4, 100, 100},
        {4, 1000, -1, 1'000'000, 4}, // and a negative divisor
        {4, 0, 4, 0, 1},             // no rows are never divided
        {0, 1000, 4, 1'000'000, 0},  // no threads: the kernel must not do this
    };
    for (const auto &c : cases) {
        const kernel_settings s(c.threads, c.min_part, c.div);
        EXPECT_EQ(partition_count(c.rows), c.expected)
            << c.threads << " threads, smallest " << c.min_part << ", divisor " << c.div << ", "
            << c.rows << " rows";
    }
}

TEST(PartitionCountDeathTest, ASmallestPartitionOfNoRowsTraps) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const kernel_settings s(4, 0);
    EXPECT_DEATH(partition_count(1), "");
}

TEST(PartitionPlan, CoversEveryRowOnceAndTheLastTakesTheRest) {
    const refkernel::bat whole = refkernel::make_column(std::vector<std::int32_t>(1000, 7));
    for (const BUN first : {0U, 3U}) {
        for (const BUN count : {0U, 1U, 10U, 997U}) {
            const refkernel::bat view = refkernel::view_rows(whole, first, count);
            for (const std::uint64_t nparts : {1U, 2U, 3U, 7U, 256U}) {
                const partition_plan plan(*view.record(), nparts);
                BUN next = first;
                for (std::uint64_t part = 0; part < nparts; ++part) {
                    const vask_row_range r = plan.partition(part);
                    EXPECT_EQ(r.begin, next);
                    next = r.end;
                    if (part + 1 < nparts) {
                        EXPECT_EQ(r.size(), count / nparts);
                    }
                }
                EXPECT_EQ(next, first + count) << count << " rows in " << nparts;
            }
        }
    }
    const refkernel::bat ten = refkernel::view_rows(whole, 0, 10);
    EXPECT_EQ(partition_plan(*ten.record(), 3).partition(2).size(), 4U);
}

TEST(Descriptor, BadNumbersFetchNothingAndAreTracedOnRequest) {
    const kernel_settings s(2, 1000, 4);
    const refkernel::bat column = refkernel::make_column(std::vector<std::int32_t>{1, 2});
    const support::leak_guard leaks;
    for (const std::uint32_t debug : {0U, std::uint32_t{DEBUG_RANGE_ERROR}}) {
        GDKdebug = debug;
        refkernel::output_capture output;
        for (const std::int32_t id : {0, int_nil, BBPsize, -BBPsize, 1 << 30})
            EXPECT_EQ(vask_descriptor(id), nullptr) << id;
        const auto line = [](std::int32_t id) {
            return "#BATdescriptor: range error " + std::to_string(id) + "\n";
        };
        EXPECT_EQ(output.text(), debug == 0 ? "" : line(BBPsize) + line(-BBPsize) + line(1 << 30));
    }
    BAT *mirror = vask_descriptor(-column.id());
    ASSERT_NE(mirror, nullptr);
    EXPECT_EQ(mirror->head, column->tail);
    BBPreleaseref(mirror->bat_id);
}

TEST(Descriptor, ABatThatIsNotInMemoryIsLoaded) {
    using enum refkernel::instrumentation::operation;
    const refkernel::bat column = refkernel::make_column(std::vector<std::int32_t>{1, 2});
    BAT *const record = column.record();
    const support::leak_guard leaks;
    refkernel::instrumentation::watch kernel;
    for (const std::int32_t id : {column.id(), -column.id()}) {
        kernel.clear();
        ASSERT_TRUE(refkernel::instrumentation::unload(column.id()));
        BAT *const loaded = vask_descriptor(id);
        ASSERT_NE(loaded, nullptr);
        EXPECT_EQ(loaded->bat_id, id);
        EXPECT_EQ(id > 0 ? loaded : mirror_of(*loaded), record);
        EXPECT_EQ(kernel.calls(bbp_descriptor), 1U);
        EXPECT_EQ(vask_descriptor(id), loaded);
        EXPECT_EQ(kernel.calls(bbp_descriptor), 1U) << "it is in memory";
        BBPreleaseref(id);
        BBPreleaseref(id);

        // One that is not valid is not loaded, and of one that cannot be loaded there is no record.
        ASSERT_TRUE(refkernel::instrumentation::unload(column.id()));
        kernel.fail_at(bbp_incref, 1);
        EXPECT_EQ(vask_descriptor(id), nullptr);
        EXPECT_EQ(kernel.calls(bbp_descriptor), 1U);
        kernel.fail_at(bbp_descriptor, 1);
        EXPECT_EQ(vask_descriptor(id), nullptr);
        BBPreleaseref(id);
        BBPdescriptor(id);
    }
}

TEST(Tasks, AnExceptionReachesTheCallerAndIsTheOneThatWasThrown) {
    const refkernel::bat column = refkernel::make_column(std::vector<std::int32_t>(100, 1));
    struct particular {
        std::uint64_t part;
    };
    std::atomic<int> ran = 0;
    try {
        run_partitions(partition_plan(*column.record(), 4),
                       [&ran](std::uint64_t part, vask_row_range) {
                           ++ran;
                           if (part == 2)
                               throw particular{part};
                       });
        FAIL() << "nothing was thrown";
    } catch (const particular &e) {
        EXPECT_EQ(e.part, 2U);
    }
    EXPECT_GE(ran, 1);
}

} // namespace
