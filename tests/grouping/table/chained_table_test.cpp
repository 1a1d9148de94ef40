#include "grouping/table/group_table.h"

#include "support/failing_calls.h"

#include <random>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace vask;
using refkernel::instrumentation::operation;
using refkernel::instrumentation::watch;
using support::fail_each_call;

TEST(ChainedTable, MaskIsThatOfTheNextPowerOfTwo) {
    const std::pair<std::uint64_t, std::uint32_t> expected[] = {
        {0, 0}, {1, 1},       {2, 3},       {3, 3},
        {4, 7}, {1000, 1023}, {1024, 2047}, {0xffffffff, 0xffffffff}};
    for (const auto &[n, mask] : expected)
        EXPECT_EQ(covering_mask(n), mask) << n;
}

template <class T>
std::uint32_t add(vask_group_table<T> &table, T value, oid id) {
    const std::uint32_t hash = vask_group_entry<T>::hash(value);
    if (auto *known = table.probe(value)) {
        ++known->count;
        return table.number_of(known);
    }
    return table.insert({value, id, 1, NO_BUN, hash});
}

// Masks below, at and above what the entries need, so that chains are long and buckets are widened.
TEST(ChainedTable, KeepsOneEntryPerKeyInOrderOfInsertion) {
    for (const std::uint32_t mask : {0U, 1U, 15U, 1023U, 65535U})
        for (const std::uint64_t distinct : {1U, 2000U, 20000U}) {
            if (mask < 15 && distinct > 2000)
                continue;
            std::mt19937_64 random(mask + distinct);
            vask_group_table<lng> table(mask);
            std::unordered_map<lng, std::pair<std::uint32_t, oid>> reference;
            for (oid id = 0; id < 3 * distinct; ++id) {
                // One hash for all keys of the shorter tables.
                const std::uint64_t spread = mask < 15 ? 0x100000001 : 0x9e3779b97f4a7c15;
                const lng value = static_cast<lng>(random() % distinct * spread);
                const auto next = static_cast<std::uint32_t>(reference.size());
                const auto &known = reference.try_emplace(value, next, id).first->second;
                ASSERT_EQ(add(table, value, id), known.first);
            }
            ASSERT_EQ(table.entries().size(), reference.size());
            EXPECT_EQ(table.mask(), mask);
            for (const auto &[value, known] : reference) {
                ASSERT_EQ(table.entries()[known.first].value, value);
                ASSERT_EQ(table.probe(value)->first_oid, known.second);
            }
        }
}

// The mask was made for far fewer entries, as a sample can mislead.
TEST(ChainedTable, MoreBucketsAreTheKernelsMemoryAndCanBeDoneWithout) {
    constexpr lng keys = 20000;
    fail_each_call(
        operation::gdk_malloc, [] { return 0; },
        [&](int, const watch &kernel, auto failed) {
            try {
                vask_group_table<lng> table(15, keys);
                for (lng key = 0; key < keys; ++key)
                    add(table, key, static_cast<oid>(key));
                for (lng key = 0; key < keys; ++key)
                    ASSERT_EQ(table.probe(key)->first_oid, static_cast<oid>(key));
                if (!failed()) {
                    constexpr std::uint64_t bytes_per_entry = sizeof(vask_group_entry<lng>) + 1;
                    EXPECT_GE(kernel.bytes_outstanding(), keys * bytes_per_entry);
                }
            } catch (const std::bad_alloc &) {
                EXPECT_TRUE(failed());
            }
            EXPECT_EQ(kernel.bytes_outstanding(), 0U);
        });
}

} // namespace
