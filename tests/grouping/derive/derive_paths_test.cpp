// Both parallel paths of refinement against the plain way.
#include "grouping/buckets/buckets_derive.h"
#include "grouping/pairs/pairs_derive.h"
#include "kernel/column.h"
#include "kernel/hostile.h"
#include "rows/key_hash.h"

#include "grouping/derive/old_grouping.h"
#include "support/kernel_settings.h"
#include "support/leak_guard.h"
#include "support/other_host.h"
#include "support/time_limit.h"

#include <array>
#include <chrono>
#include <cstring>
#include <limits>
#include <numeric>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace vask;
using namespace support;
using refkernel::bat;

using body = int (*)(BAT *, BAT *, BAT *, BAT *, BAT *, bool);

struct outcome {
    int result;
    plain_groups groups;
    std::uint8_t ids_sorted;
    std::uint8_t counts_sorted;
};

//! Runs a path's body.
outcome run(body derive, const layout &l, const bat &b, const old_grouping &old) {
    const kernel_settings settings(l.threads);
    const bat grp = bat::adopt(BATnew(b->head->type, TYPE_oid, l.rows));
    const bat ext = bat::adopt(BATnew(TYPE_oid, TYPE_wrd, 1));
    if (BAThash(old.histo.record(), 0) == nullptr)
        throw std::bad_alloc();
    const int result = derive(grp.record(), ext.record(), b.record(), old.map.record(),
                              old.histo.record(), l.map == map_kind::aligned);
    if (l.head != heads::void_head && result == 1) {
        const auto *map_heads = static_cast<const oid *>(grp->head->base);
        EXPECT_TRUE(std::equal(old.heads.begin(), old.heads.end(), map_heads));
    }
    return {result, read_groups(*grp.record(), *ext.record(), l.rows), ext->head->sorted,
            ext->tail->sorted};
}

//! The path's groups, in order of first rows and under the mark of the column's head, or by id.
void check_path(body derive, bool by_id, const layout &l, const bat &b, const old_grouping &old,
                const plain_groups &expected) {
    const outcome made = run(derive, l, b, old);
    ASSERT_EQ(made.result, 1);
    EXPECT_EQ(difference(made.groups, by_id ? in_order_of_id(expected) : expected), "");
    EXPECT_EQ(made.ids_sorted, by_id ? std::uint8_t{SORTED_ASCENDING} : sorted_mark(*b->head));
    EXPECT_EQ(made.counts_sorted, 0);
}

template <class T>
void check_numbers(const layout &l, const std::vector<T> &values) {
    SCOPED_TRACE(::testing::Message() << l << ", " << sizeof(T) << " bytes");
    const old_grouping old(l);
    const bat b = refkernel::make_column<T>(std::span<const T>(values),
                                            head_options(l.head, old.heads, l.first));
    const leak_guard leaks;
    check_path(vask_pairs_derive, false, l, b, old, refine_plainly(old, keys_by_number(values)));
    check_path(vask_buckets_derive, true, l, b, old, refine_plainly(old, keys_by_bits(values)));
}

std::vector<layout> layouts() {
    std::vector<layout> all;
    std::uint64_t seed = 0;
    for (const heads head : all_heads)
        for (const map_kind map : {map_kind::aligned, map_kind::dense, map_kind::hashed})
            for (const bool dense_histo : {false, true})
                for (const BUN groups : {1U, 3U, 700U}) {
                    const int threads[] = {2, 3, 1, 9};
                    ++seed;
                    all.push_back({seed % 3 == 0 ? unless_hostile(20000U, 3000U) : 999U, groups,
                                   head, map, dense_histo, static_cast<BUN>(seed % 2 * 4),
                                   threads[seed % 4], seed});
                }
    return all;
}

TEST(Derive, NumbersOnBothPaths) {
    for (const layout &l : layouts())
        for_each_number_type([&]<class T>(T) {
            const std::uint64_t distinct = l.seed % 2 == 0 ? 13 : 1000000;
            check_numbers(l, random_values<T>(l.rows, distinct, l.seed % 5 == 0 ? 40 : 2, l.seed));
        });
}

TEST(Derive, FewRowsAndManyThreads) {
    for (const BUN rows : {1U, 2U, 9U})
        for (const int threads : {1, 2, 8, 100})
            check_numbers({.rows = rows, .groups = 2, .threads = threads},
                          random_values<lng>(rows, 2, 0, rows));
}

// Their distance, and one place more, leave no number of 64 bits.
TEST(Derive, IntegersAsFarApartAsCanBe) {
    std::vector<lng> values = random_values<lng>(9000, 5, 0, 1);
    values[1] = std::numeric_limits<lng>::max();
    values[2] = std::numeric_limits<lng>::min() + 1;
    for (const BUN groups : {1U, 100U})
        check_numbers({.rows = 9000, .groups = groups, .threads = 2}, values);
}

// Extents of so many groups are put in order by way of the map where the head is dense.
TEST(Derive, NearlyEveryRowAGroup) {
    constexpr BUN rows = unless_hostile(40000U, 4000U);
    for (const heads head : all_heads)
        for (const BUN groups : {1U, rows / 4 * 3})
            check_numbers({.rows = rows, .groups = groups, .head = head, .threads = 3},
                          random_values<lng>(rows, ~0ULL, 0, groups));
}

// Pairs are counted while they are few, which in each range of rows shows only as they come.
TEST(Derive, ValuesThatComeLate) {
    for (const heads head : {heads::void_head, heads::shuffled})
        for (const BUN rows_per_value : {2U, 7U, 60U, 9000U}) {
            const layout l{.rows = unless_hostile(20000U, 4000U), .groups = 3, .head = head};
            std::vector<lng> values;
            for (BUN row = 0; row < l.rows; ++row)
                values.push_back(static_cast<lng>(row / rows_per_value) << 40);
            check_numbers(l, values);
            check_numbers(l, std::vector<double>(values.begin(), values.end()));
        }
}

TEST(Derive, SignedZerosAndNans) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (const heads head : {heads::void_head, heads::shuffled}) {
        const layout l{.rows = 6000, .groups = 4, .head = head, .threads = 3};
        std::vector<double> values;
        for (BUN row = 0; row < l.rows; ++row)
            values.push_back(std::array{0.0, -0.0, nan, -nan, 1.0}[row % 5]);
        check_numbers(l, values);
        check_numbers(l, std::vector<float>(values.begin(), values.end()));
    }
}

TEST(Derive, ManyNansTakeNoLongerThanOtherValues) {
    // Looking for each among those before would take hours.
    const layout l{.rows = unless_hostile(2'000'000U, 2'000U), .groups = 1};
    const old_grouping old(l);
    const bat b =
        refkernel::make_column(std::vector<float>(l.rows, std::numeric_limits<float>::quiet_NaN()),
                               head_options(l.head, old.heads));
    const outcome pairs = run(vask_pairs_derive, l, b, old);
    EXPECT_EQ(pairs.groups.extents.size(), l.rows);
    EXPECT_EQ(pairs.groups.map, old.heads);
    const outcome buckets = run(vask_buckets_derive, l, b, old);
    EXPECT_EQ(buckets.groups.extents, (std::vector<std::pair<oid, lng>>{{40, l.rows}}));
}

TEST(Derive, ValuesThatHashAlikeTakeNoLongerThanOthers) {
    if (vask::is_hostile)
        GTEST_SKIP() << "all values hash alike";
    // One chain, or one bucket, for all of them would take some ten times the limit.
    constexpr double limit_seconds = support::time_limit(2);
    const layout l{.rows = 400'000, .groups = 1};
    const old_grouping old(l);
    const auto expect_fast = [&](body derive, const bat &b, std::size_t groups) {
        const auto start = std::chrono::steady_clock::now();
        const outcome made = run(derive, l, b, old);
        const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(made.groups.extents.size(), groups);
        EXPECT_LT(taken.count(), limit_seconds);
    };
    std::vector<std::int32_t> high_bits;
    std::vector<double> whole;
    refkernel::text_builder texts(
        refkernel::text_options{.sharing = refkernel::text_sharing::anew});
    for (BUN row = 0; row < l.rows; ++row) {
        high_bits.push_back(static_cast<std::int32_t>(row % 30'000) << 16);
        whole.push_back(row % 30'000);
        texts.append(row % 2 == 0 ? "yes" : "no");
    }
    const auto options = head_options(l.head, old.heads);
    const bat integers = refkernel::make_column(std::move(high_bits), options);
    expect_fast(vask_pairs_derive, integers, 30'000);
    expect_fast(vask_buckets_derive, integers, 30'000);
    const bat numbers = refkernel::make_column(std::move(whole), options);
    expect_fast(vask_pairs_derive, numbers, 30'000);
    expect_fast(vask_buckets_derive, numbers, 30'000);
    expect_fast(vask_pairs_derive, texts.finish(options), l.rows);
}

//! How many places in the heap the texts of a column have.
enum class places { one_per_text, one_per_row, few };

//! Makes the column what a join leaves: rows of a small one, whose equal texts lie at several
//! places, in an order that does not follow the places.
void pick_from_first_rows(const BAT &b, BUN picked, BUN rows, std::mt19937_64 &random) {
    const auto width = static_cast<std::size_t>(b.tail->width);
    char *offsets = static_cast<char *>(b.tail->base) + b.info->first * width;
    for (BUN row = picked; row < rows; ++row)
        std::memcpy(offsets + row * width, offsets + random() % picked * width, width);
}

TEST(Derive, TextsByPlaceAndByContent) {
    for (const layout &l : layouts()) {
        if (l.rows > 999 && l.groups == 700 && l.head != heads::void_head)
            continue;
        for (const places kind : {places::one_per_text, places::one_per_row, places::few})
            for (const int width : {1, 2, 4}) {
                SCOPED_TRACE(::testing::Message()
                             << l << ", width " << width << ", places " << static_cast<int>(kind));
                const old_grouping old(l);
                std::mt19937_64 random(l.seed);
                refkernel::text_builder builder(refkernel::text_options{
                    .sharing = kind == places::one_per_text ? refkernel::text_sharing::once
                                                            : refkernel::text_sharing::anew,
                    .offset_width = width});
                std::vector<std::string> texts;
                for (BUN row = 0; row < l.rows; ++row) {
                    // Some texts share the hash of the table of pairs: 31 times a byte up, one
                    // times a byte down.
                    const std::uint64_t pick = random() % 40;
                    texts.push_back(pick < 2 ? (pick == 0 ? "Aa" : "BB")
                                             : std::string(pick % 7, '\xe9') + "x");
                    if (pick == 39 && kind != places::few)
                        builder.append_nil();
                    else
                        builder.append(texts.back());
                }
                const bat b = builder.finish(head_options(l.head, old.heads, l.first));
                if (kind == places::few)
                    pick_from_first_rows(*b.record(), 16, l.rows, random);
                const text_reader reader(*b->tail);
                std::vector<std::uint32_t> by_place;
                std::vector<std::string> by_content;
                for (BUN row = 0; row < l.rows; ++row) {
                    by_place.push_back(reader.offset(l.first + row));
                    by_content.emplace_back(reader[l.first + row]);
                }
                check_path(vask_pairs_derive, false, l, b, old, refine_plainly(old, by_place));
                check_path(vask_buckets_derive, true, l, b, old, refine_plainly(old, by_content));
            }
    }
}

// Pairs have an index while there are hardly more of them than rows, of texts by place.
TEST(Derive, TextsAtTheLimitOfAnIndex) {
    const auto check = [](BUN rows, BUN groups, std::uint32_t distinct, std::size_t length,
                          int width) {
        const layout l{.rows = rows, .groups = groups, .threads = 1};
        SCOPED_TRACE(::testing::Message()
                     << l << ", " << distinct << " texts of " << length << ", width " << width);
        const old_grouping old(l);
        refkernel::text_builder builder(refkernel::text_options{.offset_width = width});
        std::vector<std::string> texts;
        for (BUN row = 0; row < rows; ++row) {
            texts.push_back(std::to_string(row % distinct));
            texts.back().insert(0, length, 'x');
            builder.append(texts.back());
        }
        const bat b = builder.finish(head_options(l.head, old.heads));
        check_path(vask_buckets_derive, true, l, b, old, refine_plainly(old, texts));
    };
    constexpr BUN rows = 800;
    constexpr std::uint32_t narrow_places = 256; // of offsets of one byte, whichever there are
    for (const BUN groups : {1U, 4U}) {
        // One place for each text and one for all others, as many times as there are groups.
        const std::uint32_t most_texts = rows / groups - 1;
        for (std::uint32_t texts = most_texts - 5; texts <= most_texts + 5; ++texts)
            for (const std::size_t length : {0U, 40U})
                check(rows, groups, texts, length, 4);
        for (BUN count = (narrow_places + 1) * groups - 5;
             count <= (narrow_places + 1) * groups + 5; ++count)
            check(count, groups, 50, 0, 1);
    }
}

TEST(Derive, TheResultIsTheSameForAnyThreadsAndEachTime) {
    const layout l{.rows = unless_hostile(60000U, 6000U),
                   .groups = 300,
                   .head = heads::shuffled,
                   .map = map_kind::hashed};
    const old_grouping old(l);
    const bat b = refkernel::make_column(random_values<std::int32_t>(l.rows, 50, 3, 8),
                                         head_options(l.head, old.heads));
    for (const body derive : {vask_pairs_derive, vask_buckets_derive}) {
        const outcome first = run(derive, l, b, old);
        for (const int threads : {1, 2, 3, 7, 64})
            for (int time = 0; time < 3; ++time) {
                layout other = l;
                other.threads = threads;
                EXPECT_EQ(difference(run(derive, other, b, old).groups, first.groups), "");
            }
    }
}

TEST(Derive, RowsAndGroupsThatAreNotThere) {
    for (const map_kind map : {map_kind::dense, map_kind::hashed}) {
        const layout l{.rows = 9000, .groups = 50, .map = map, .threads = 4};
        const old_grouping old(l);
        const bat b = refkernel::make_column(random_values<std::int32_t>(l.rows, 9, 0, 1),
                                             head_options(l.head, old.heads));
        const auto both = [&] {
            return std::pair(run(vask_pairs_derive, l, b, old).result,
                             run(vask_buckets_derive, l, b, old).result);
        };
        EXPECT_EQ(both(), std::pair(1, 1));
        // The pairs of an unknown group are pairs like others: only the buckets look groups up.
        oid &parent = old.map.mutable_values<oid>()[l.rows / 2];
        const oid known = std::exchange(parent, 5000);
        EXPECT_EQ(both(), std::pair(1, 0));
        parent = known;
        b->head->seqbase += 7; // the last rows are past the map's
        EXPECT_EQ(both(), std::pair(0, 0));
    }
}

// What lies behind the map's rows would pass for groups.
TEST(Derive, RowsBeyondAMapThatIsCalledAligned) {
    const layout l{.rows = 9000, .groups = 50, .threads = 4};
    old_grouping old(l);
    const bat b = refkernel::make_column(random_values<std::int32_t>(l.rows, 9, 0, 1),
                                         head_options(l.head, old.heads));
    const bat whole = std::move(old.map);
    const support::everything_aligned aligned;
    for (const BUN mapped : {BUN{0}, BUN{1}, l.rows / 2, l.rows - 1}) {
        old.map = refkernel::view_rows(whole, 0, mapped);
        EXPECT_EQ(run(vask_pairs_derive, l, b, old).result, 0) << mapped;
        EXPECT_EQ(run(vask_buckets_derive, l, b, old).result, 0) << mapped;
    }
}

TEST(Derive, VoidMapsHoldTheOidsThatTheyCount) {
    for (const map_kind map : {map_kind::aligned, map_kind::dense}) {
        const layout l{.rows = 3000, .groups = 3000, .map = map, .dense_histo = true};
        old_grouping old(l);
        std::iota(old.parents.begin(), old.parents.end(), oid{7});
        old.map = refkernel::make_void_column(l.rows, 7, head_options(l.head, old.heads, 2));
        const auto values = random_values<std::int32_t>(l.rows, 2, 0, 1);
        const bat b = refkernel::make_column<std::int32_t>(values, head_options(l.head, old.heads));
        const plain_groups expected = refine_plainly(old, keys_by_bits(values));
        check_path(vask_pairs_derive, false, l, b, old, expected);
        check_path(vask_buckets_derive, true, l, b, old, expected);
    }
}

} // namespace
