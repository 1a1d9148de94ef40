#include "kernel/frame.h"
#include "sets/absence_filter.h"
#include "support/kernel_settings.h"
#include "support/leak_guard.h"
#include "vask/embed.h"
#include "vask/ops.h"
#include "vask/refkernel/instrumentation.h"

#include <csignal>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

namespace {

using support::kernel_settings;
using values = std::vector<std::uint32_t>;

std::vector<bit> plain_containment(const values &left, const values &right) {
    const std::unordered_set<std::uint32_t> present(right.begin(), right.end());
    std::vector<bit> result;
    for (const std::uint32_t v : left)
        result.push_back(present.contains(v) ? 1 : 0);
    return result;
}

std::vector<bit> contained(const values &left, const values &right) {
    constexpr bit untouched = 0x55;
    std::vector<bit> result(left.size() + 2, untouched);
    vaskops_are_indexes_contained(left.data(), left.size(), right.data(), right.size(),
                                  result.data() + 1);
    EXPECT_EQ(result.front(), untouched);
    EXPECT_EQ(result.back(), untouched);
    return {result.begin() + 1, result.end() - 1};
}

// How the values of a column are drawn.
struct drawing {
    const char *name;
    std::function<std::uint32_t(std::mt19937 &)> draw;
};

const std::vector<drawing> drawings = {
    {"few", [](auto &r) { return static_cast<std::uint32_t>(r() % 7); }},
    {"dense", [](auto &r) { return static_cast<std::uint32_t>(r() % 4000); }},
    {"high bits only", [](auto &r) { return static_cast<std::uint32_t>(r() % 4000) << 20; }},
    {"any", [](auto &r) { return static_cast<std::uint32_t>(r()); }},
    {"any and nil", [](auto &r) { return r() % 3 ? static_cast<std::uint32_t>(r()) : oid_nil; }},
};

TEST(Containment, AgreesWithALookupPerRow) {
    std::mt19937 random(7);
    for (const std::int32_t threads : {1, 2, 3, 300}) {
        const kernel_settings settings(threads);
        for (const drawing &d : drawings)
            for (const std::size_t left_count : {0U, 1U, 3U, 1000U, 3100U})
                for (const std::size_t right_count : {1U, 2U, 299U, 301U, 5000U}) {
                    SCOPED_TRACE(std::string(d.name) + ", " + std::to_string(left_count) + " in " +
                                 std::to_string(right_count) + ", threads " +
                                 std::to_string(threads));
                    values left(left_count);
                    for (auto &v : left)
                        v = d.draw(random);
                    values right(right_count);
                    for (auto &v : right) // half of them from the left side
                        v = left_count != 0 && random() % 2 ? left[random() % left_count]
                                                            : d.draw(random);
                    ASSERT_EQ(contained(left, right), plain_containment(left, right));
                }
    }
}

TEST(Containment, FilterHoldsBackAbsentValuesOnly) {
    std::mt19937 random(11);
    values left(3072); // of 4096 buckets, as full as they become
    for (auto &v : left)
        v = static_cast<std::uint32_t>(random());
    vask::oid_position_map map(left.size());
    vask::position_node row{};
    for (const std::uint32_t v : left)
        map.insert(v).rows = &row;
    values absent(20'000);
    for (auto &v : absent)
        do
            v = static_cast<std::uint32_t>(random());
        while (map.find(v) != nullptr);

    using vask::absence_filter;
    EXPECT_TRUE(absence_filter::pays(map, left.size(), absent.data(), absent.size()));
    EXPECT_FALSE(absence_filter::pays(map, left.size(), absent.data(), 1023)) << "too few to tell";
    values present(20'000);
    for (std::size_t i = 0; i < present.size(); ++i)
        present[i] = left[i % left.size()];
    EXPECT_FALSE(absence_filter::pays(map, left.size(), present.data(), present.size()));

    absence_filter filter;
    EXPECT_FALSE(filter.active());
    filter.enter(map, left.data(), left.size());
    ASSERT_TRUE(filter.active());
    values selected(absent.size());
    EXPECT_LT(filter.select(absent.data(), absent.size(), selected.data()), absent.size() / 10);
    ASSERT_EQ(filter.select(left.data(), left.size(), selected.data()), left.size());
    selected.resize(left.size());
    EXPECT_EQ(selected, left);
}

struct bat_case {
    int tail_type;
    bool stored_head;
    BUN first;
};

TEST(Containment, OfBatsIsAMaskUnderTheLeftHead) {
    const support::leak_guard leaks;
    const kernel_settings settings(3);
    const values left{7, oid_nil, 7, 0, 90, 4};
    const values right{4, 4, oid_nil, 7, 1};
    for (const bat_case c : {bat_case{TYPE_oid, false, 0}, bat_case{TYPE_int, true, 0},
                             bat_case{TYPE_oid, true, 3}, bat_case{TYPE_int, false, 2}}) {
        SCOPED_TRACE(std::to_string(c.tail_type) + " " + std::to_string(c.first));
        refkernel::column_options options{
            .type = c.tail_type, .stored_head = c.stored_head, .seqbase = 500, .first = c.first};
        const refkernel::bat l = refkernel::make_column(std::span(left), options);
        options.first = 0;
        const refkernel::bat r = refkernel::make_column(std::span(right), options);

        std::int32_t id = 0;
        ASSERT_EQ(vaskops_are_bat_indexes_contained(&id, l.slot(), r.slot()), nullptr);
        const refkernel::bat mask = refkernel::bat::adopt(id);
        ASSERT_EQ(mask.type(), TYPE_bit);
        ASSERT_EQ(mask.count(), left.size());
        const BAT &record = *mask.record();
        EXPECT_EQ(record.tail->sorted, 0);
        EXPECT_EQ(record.tail->key, 0);
        EXPECT_EQ(record.state->access, ACCESS_READ);
        EXPECT_EQ(record.head->type, c.stored_head ? TYPE_oid : TYPE_void);
        for (BUN row = 0; row < left.size(); ++row)
            EXPECT_EQ(mask.head_oid(row), 500 + row);
        // The rows are those from the start of the memory on, wherever the left side begins.
        const auto *memory = static_cast<const std::uint32_t *>(l->tail->base);
        const auto got = mask.values<bit>();
        EXPECT_EQ(std::vector<bit>(got.begin(), got.end()),
                  plain_containment(values(memory, memory + left.size()), right));
    }
}

TEST(ContainmentDeathTest, EmptyRightSideTraps) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto call = [](std::int32_t threads, std::uint64_t right_count) {
        std::signal(SIGFPE, SIG_DFL);
        GDKnr_threads = threads;
        const std::uint32_t value = 1;
        bit result = 0;
        vaskops_are_indexes_contained(&value, 1, &value, right_count, &result);
    };
    EXPECT_EXIT(call(2, 0), testing::KilledBySignal(SIGFPE), "");
    EXPECT_EXIT(call(0, 1), testing::KilledBySignal(SIGFPE), "");
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(Containment, NodesBeyondAllMemoryThrow) {
    const std::uint32_t value = 1;
    for (const std::uint64_t left_count : {std::uint64_t{1} << 60, std::uint64_t{1} << 58})
        EXPECT_THROW(vaskops_are_indexes_contained(&value, left_count, &value, 1, nullptr),
                     std::bad_alloc);
}
#endif

} // namespace
