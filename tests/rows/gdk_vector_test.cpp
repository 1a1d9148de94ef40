#include "rows/gdk_vector.h"

#include "vask/embed.h"
#include "vask/refkernel/instrumentation.h"

#include <cstdint>
#include <new>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace {

using vask::gdk_vector;
namespace instrumentation = refkernel::instrumentation;

TEST(GdkVector, GrowsByHalfAndKeepsItsElements) {
    gdk_vector<std::uint32_t> v;
    std::size_t capacity = 0;
    for (std::uint32_t i = 0; i < 10'000; ++i) {
        v.push_back(i);
        if (v.capacity() != capacity) {
            EXPECT_EQ(v.capacity(), std::max<std::size_t>(capacity + capacity / 2, i + 1));
            capacity = v.capacity();
        }
    }
    for (std::uint32_t i = 0; i < 10'000; ++i)
        ASSERT_EQ(v[i], i);
    v.reserve(20'000);
    EXPECT_EQ(v.capacity(), 20'000U);
    v.reserve(10);
    EXPECT_EQ(v.capacity(), 20'000U);
}

TEST(GdkVector, AppendsAnElementOfItsOwnWhileGrowing) {
    gdk_vector<std::uint64_t> v;
    v.push_back(17);
    for (int i = 0; i < 100; ++i)
        v.push_back(v[0]);
    for (const std::uint64_t value : v)
        EXPECT_EQ(value, 17U);
}

TEST(GdkVector, TakesAllItsMemoryFromTheKernelAndGivesItBack) {
    const instrumentation::watch watch;
    const refkernel::checkpoint before;
    {
        gdk_vector<gdk_vector<int>> nested(3);
        nested[0].push_back(1);
        nested[2].reserve(1000);
        gdk_vector<gdk_vector<int>> moved = std::move(nested);
        EXPECT_TRUE(nested.empty());
        EXPECT_EQ(moved.size(), 3U);
        EXPECT_NE(before.leaks(), "") << "the kernel did not see the blocks";
        moved = gdk_vector<gdk_vector<int>>();
    }
    EXPECT_EQ(before.leaks(), "");
}

TEST(GdkVector, FailsWithTheKernelsTexts) {
    gdk_vector<double> v;
    v.push_back(1.5);
    try {
        v.reserve(std::numeric_limits<std::size_t>::max() / sizeof(double) + 1);
        FAIL() << "no exception";
    } catch (const std::length_error &e) {
        EXPECT_STREQ(e.what(), "vector<T> too long");
    }
    instrumentation::watch watch;
    watch.fail_at(instrumentation::operation::gdk_malloc, 1);
    try {
        v.reserve(100);
        FAIL() << "no exception";
    } catch (const std::bad_alloc &e) {
        EXPECT_STREQ(e.what(), "bad allocation");
    }
    ASSERT_EQ(v.size(), 1U);
    EXPECT_EQ(v[0], 1.5);
}

} // namespace
