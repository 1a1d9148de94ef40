#include "rows/open_addressing.h"

#include "rows/table_keys.h"

#include <cmath>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace vask;

//! Every key leads to its value, and nothing else is held.
template <class Keys>
void check_table(const open_addressing_table<Keys, int> &table,
                 const std::unordered_map<typename Keys::key_type, int> &expected) {
    ASSERT_EQ(table.size(), expected.size());
    std::size_t used = 0;
    for (std::uint32_t bucket = 0; bucket < table.bucket_count(); ++bucket)
        used += table.in_use(bucket);
    ASSERT_EQ(used, expected.size());
    for (const auto &[key, value] : expected) {
        const std::uint32_t bucket = table.find(key);
        ASSERT_LT(bucket, table.bucket_count()) << key;
        ASSERT_EQ(table.key(bucket), key);
        ASSERT_EQ(table.value(bucket), value);
    }
}

template <class Key>
void check_keys(std::uint64_t distinct, int shift, std::uint32_t reserved) {
    SCOPED_TRACE(std::to_string(sizeof(Key)) + " bytes, " + std::to_string(distinct) +
                 " keys, shift " + std::to_string(shift));
    std::mt19937_64 random(distinct + static_cast<std::uint64_t>(shift));
    open_addressing_table<bit_pattern_keys<Key>, int> table;
    EXPECT_EQ(table.find(Key{1}), table.bucket_count()) << "empty table";
    if (reserved != 0)
        table.grow_to(reserved);
    std::uint32_t buckets = table.bucket_count();
    std::unordered_map<Key, int> expected;
    for (int i = 0; i < 5000; ++i) {
        const auto key = static_cast<Key>((random() % distinct) << shift);
        const auto [bucket, is_new] = table.insert(key);
        ASSERT_EQ(is_new, expected.try_emplace(key, i).second);
        if (is_new)
            table.value(bucket) = i;
        ASSERT_EQ(table.key(bucket), key);
        if (table.bucket_count() == buckets)
            continue;
        // Grown by doubling, before the put that found the table at its limit, be its key new or
        // not.
        const double limit = std::floor(buckets * 0.77 + 0.5);
        ASSERT_EQ(table.bucket_count(), buckets == 0 ? 4U : 2 * buckets);
        ASSERT_EQ(table.size(), limit + is_new);
        buckets = table.bucket_count();
        ASSERT_NO_FATAL_FAILURE(check_table(table, expected));
    }
    check_table(table, expected);
    const auto absent = static_cast<Key>(distinct << shift);
    if (!expected.contains(absent)) {
        EXPECT_EQ(table.find(absent), table.bucket_count());
    }
}

TEST(OpenAddressing, HoldsWhatWasPutAndGrowsByDoubling) {
    for (const std::uint64_t distinct : {1U, 3U, 100U, 1000000U})
        for (const int shift : {0, 5}) // keys that count up, and keys that meet in one bucket
            for (const std::uint32_t reserved : {0U, 1U, 100U, 1024U}) {
                check_keys<std::uint8_t>(distinct, shift, reserved);
                check_keys<std::uint32_t>(distinct, shift, reserved);
                check_keys<std::uint64_t>(distinct, 8 * shift, reserved);
            }
}

TEST(OpenAddressing, RoundsWhatIsReservedUpAndNeverShrinks) {
    for (const auto &[requested, expected] :
         std::vector<std::pair<std::uint32_t, std::uint32_t>>{{0, 4}, {4, 4}, {5, 8}, {64, 64}}) {
        open_addressing_table<bit_pattern_keys<std::uint32_t>> set;
        set.grow_to(requested);
        EXPECT_EQ(set.bucket_count(), expected);
        set.insert(7);
        set.grow_to(1);
        EXPECT_EQ(set.bucket_count(), expected);
        EXPECT_LT(set.find(7), expected);
    }
    open_addressing_table<bit_pattern_keys<std::uint32_t>> set;
    EXPECT_THROW(set.grow_to((std::uint32_t{1} << 31) + 1), std::bad_alloc);
}

} // namespace
