// Hashes over heads, walked as operators walk them.
#include "vask/embed.h"
#include "vask/refkernel/instrumentation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

namespace {

using namespace refkernel;

// The bucket function, from its definition.
std::uint32_t bucket_of(std::uint32_t v, std::uint32_t mask) {
    const std::uint32_t rotated = v >> 7 | v << 25;
    return (rotated ^ (((v >> 8) ^ v) >> 13) ^ v) & mask;
}

std::vector<BUN> positions_of(const BAT &b, oid wanted) {
    const BAThashtable &hash = *std::atomic_ref(b.head->hash).load(std::memory_order_acquire);
    const auto *heads = static_cast<const oid *>(b.head->base);
    std::vector<BUN> found;
    for (BUN p = hash.buckets[bucket_of(wanted, hash.mask)]; p != NO_BUN; p = hash.links[p])
        if (heads[p] == wanted)
            found.push_back(p);
    return found;
}

bat heads_column(const std::vector<oid> &heads, BUN first) {
    return make_column<std::int8_t>(std::vector<std::int8_t>(heads.size()),
                                    {.stored_head = true, .head_oids = heads, .first = first});
}

TEST(Hash, LeadsToEveryRowOfAValueInOrder) {
    const checkpoint before;
    std::mt19937 random(5);
    for (const std::size_t count : {0U, 1U, 15U, 16U, 17U, 1000U, 70000U}) {
        for (const BUN first : {0U, 9U}) {
            for (const std::uint32_t range : {1U, 50U, 0x80000001U}) {
                std::vector<oid> heads(count);
                std::ranges::generate(heads, [&] { return random() % range; });
                const bat b = heads_column(heads, first);
                ASSERT_NE(BAThash(b.record(), 0), nullptr);
                for (std::size_t i = 0; i<count; i += count> 1000 ? 997 : 13) {
                    std::vector<BUN> expected;
                    for (BUN p = 0; p < count && expected.size() < 100; ++p)
                        if (heads[p] == heads[i])
                            expected.push_back(first + p);
                    auto found = positions_of(*b.record(), heads[i]);
                    found.resize(std::min<std::size_t>(found.size(), 100));
                    ASSERT_EQ(found, expected) << count << " " << first << " " << range;
                }
                EXPECT_TRUE(positions_of(*b.record(), 0x7abcdef1).empty());
            }
        }
    }
    EXPECT_EQ(before.leaks(), "");
}

TEST(Hash, OfOneBatIsOneForAllThreadsAndGoesWithItsRows) {
    const checkpoint before;
    std::vector<oid> heads(20000);
    std::mt19937 random(6);
    std::ranges::generate(heads, random);
    for (int round = 0; round < 20; ++round) {
        const bat b = heads_column(heads, 0);
        std::vector<std::jthread> threads;
        std::vector<BAThashtable *> seen(4);
        for (auto &mine : seen) {
            threads.emplace_back([&] {
                ASSERT_NE(BAThash(b.record(), 0), nullptr);
                mine = std::atomic_ref(b->head->hash).load(std::memory_order_acquire);
                ASSERT_EQ(positions_of(*b.record(), heads[777]).front(), 777U);
            });
        }
        threads.clear(); // joins
        EXPECT_EQ(std::ranges::count(seen, seen.front()), 4);
        const bat view = bat::adopt(VIEWcombine(b.record()));
        EXPECT_EQ(view->head->hash, b->head->hash) << "the same rows, the same chains";
        BATsetcount(b.record(), 100);
        EXPECT_EQ(b->head->hash, nullptr);
        EXPECT_EQ(positions_of(*view.record(), heads[777]).front(), 777U);
    }
    EXPECT_EQ(before.leaks(), "");
}

TEST(Hash, OfAVoidHeadOfNilsIsEmpty) {
    const bat b = make_void_column(100, 0, {.seqbase = oid_nil});
    ASSERT_NE(BAThash(b.record(), 0), nullptr);
    const BAThashtable &hash = *b->head->hash;
    for (std::uint32_t bucket = 0; bucket <= hash.mask; ++bucket)
        EXPECT_EQ(hash.buckets[bucket], NO_BUN);
}

TEST(Hash, OfOtherTypesHoldsEachRowOnce) {
    const bat texts = make_text_column(std::vector<std::string_view>{"a", "b", "a", "", "c"});
    const bat numbers = make_column<double>(std::vector{1.0, 2.0, 1.0, -5.0, 1e300});
    for (const bat *column : {&texts, &numbers}) {
        BAT *mirror = BBParr[column->id() >> 16][column->id() & 0xffff].desc_mirror;
        ASSERT_NE(BAThash(mirror, 0), nullptr);
        const BAThashtable &hash = *mirror->head->hash;
        std::vector<BUN> rows;
        for (std::uint32_t bucket = 0; bucket <= hash.mask; ++bucket)
            for (BUN p = hash.buckets[bucket]; p != NO_BUN; p = hash.links[p])
                rows.push_back(p);
        std::ranges::sort(rows);
        EXPECT_EQ(rows, (std::vector<BUN>{0, 1, 2, 3, 4}));
    }
}

} // namespace
