// Refinement: both parallel roads against the plain way, and the exported function around them.
#include "grouping/buckets/buckets_derive.h"
#include "grouping/pairs/pairs_derive.h"
#include "kernel/column.h"
#include "rows/key_hash.h"

#include "grouping/plain_groups.h"
#include "support/kernel_settings.h"
#include "support/leak_guard.h"
#include "support/other_host.h"
#include "support/time_limit.h"
#include "vask/ops.h"
#include "vask/refkernel/instrumentation.h"

#include <chrono>
#include <cstring>
#include <functional>
#include <optional>
#include <set>

#include <gtest/gtest.h>

namespace {

using namespace vask;
using namespace support;
using refkernel::bat;
using refkernel::checkpoint;
using refkernel::exception;
using refkernel::instrumentation::operation;
using refkernel::instrumentation::watch;

//! Whether the rows of the map are those of the column one by one, or found by oid: by arithmetic,
//! or by hash.
enum class map_kind { aligned, dense, hashed };

//! How a case's column and old grouping are laid out.
struct layout {
    BUN rows = 1000;
    BUN groups = 10;
    heads head = heads::void_head;
    map_kind map = map_kind::aligned;
    bool dense_histo = false;
    BUN first = 0; // of the column
    int threads = 2;
    std::uint64_t seed = 1;

    friend std::ostream &operator<<(std::ostream &out, const layout &l) {
        return out << l.rows << " rows, " << l.groups << " groups, head "
                   << static_cast<int>(l.head) << ", map " << static_cast<int>(l.map)
                   << (l.dense_histo ? ", dense histogram, first " : ", first ") << l.first << ", "
                   << l.threads << " threads, seed " << l.seed;
    }
};

//! An old grouping of the rows with the given head oids.
struct old_grouping {
    std::vector<oid> heads;   // of the column
    std::vector<oid> parents; // old group of each of its rows
    bat map;
    bat histo;

    explicit old_grouping(const layout &l) : heads(head_oids(l.head, l.rows, 40, l.seed)) {
        // Before where the column does, at the same place, or behind.
        const auto first = static_cast<BUN>(l.seed / 2 % 3 * 4);
        std::mt19937_64 random(l.seed);
        std::vector<oid> ids = head_oids(
            l.dense_histo ? support::heads::dense : support::heads::shuffled, l.groups, 7, l.seed);
        if (!l.dense_histo && l.seed % 4 == 1) // too far apart for a table of them
            for (oid &id : ids)
                id *= 100'003;
        for (BUN row = 0; row < l.rows; ++row)
            parents.push_back(ids[random() % l.groups]);

        // The map's rows in an order of their own, with rows that the column does not have.
        std::vector<std::pair<oid, oid>> rows;
        for (BUN row = 0; row < l.rows; ++row)
            rows.emplace_back(heads[row], parents[row]);
        support::heads kind = l.head;
        if (l.map == map_kind::dense) {
            const oid last = *std::max_element(heads.begin(), heads.end());
            std::vector<oid> by_oid(last + 3, oid_nil);
            for (const auto &[head, parent] : rows)
                by_oid[head] = parent;
            rows.clear();
            for (oid head = 20; head < by_oid.size(); ++head)
                rows.emplace_back(head, by_oid[head]);
            kind = l.seed % 2 == 0 ? support::heads::dense : support::heads::void_head;
        } else if (l.map == map_kind::hashed) {
            rows.emplace_back(3, ids[0]);
            std::shuffle(rows.begin(), rows.end(), random);
            kind = support::heads::shuffled;
        }
        std::vector<oid> map_heads;
        std::vector<oid> map_parents;
        for (const auto &[head, parent] : rows) {
            map_heads.push_back(head);
            map_parents.push_back(parent);
        }
        map = refkernel::make_column<oid>(std::span<const oid>(map_parents),
                                          head_options(kind, map_heads, first));
        std::vector<wrd> sizes;
        for (const oid id : ids)
            sizes.push_back(std::count(parents.begin(), parents.end(), id));
        histo = refkernel::make_column<wrd>(
            std::span<const wrd>(sizes),
            head_options(l.dense_histo ? support::heads::dense : support::heads::shuffled, ids,
                         first));
    }
};

template <class Key>
plain_groups refine_plainly(const old_grouping &old, const std::vector<Key> &keys) {
    std::vector<std::pair<oid, Key>> pairs;
    for (std::size_t row = 0; row < keys.size(); ++row)
        pairs.emplace_back(old.parents[row], keys[row]);
    return group_rows(pairs, old.heads);
}

using body = int (*)(BAT *, BAT *, BAT *, BAT *, BAT *, bool);

struct outcome {
    int result;
    plain_groups groups;
    std::uint8_t ids_sorted;
    std::uint8_t counts_sorted;
};

//! Runs a road's body.
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

//! The road's groups, in order of first rows and under the mark of the column's head, or by id.
void check_road(body derive, bool by_id, const layout &l, const bat &b, const old_grouping &old,
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
    check_road(vask_pairs_derive<T>, false, l, b, old, refine_plainly(old, keys_by_number(values)));
    check_road(vask_buckets_derive<T>, true, l, b, old, refine_plainly(old, keys_by_bits(values)));
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
                    all.push_back({seed % 3 == 0 ? 20000U : 999U, groups, head, map, dense_histo,
                                   static_cast<BUN>(seed % 2 * 4), threads[seed % 4], seed});
                }
    return all;
}

TEST(Derive, NumbersOnBothRoads) {
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
    for (const heads head : all_heads)
        for (const BUN groups : {1U, 30000U})
            check_numbers({.rows = 40000, .groups = groups, .head = head, .threads = 3},
                          random_values<lng>(40000, ~0ULL, 0, groups));
}

// Pairs are counted while they are few, which in each range of rows shows only as they come.
TEST(Derive, ValuesThatComeLate) {
    for (const heads head : {heads::void_head, heads::shuffled})
        for (const BUN rows_per_value : {2U, 7U, 60U, 9000U}) {
            const layout l{.rows = 20000, .groups = 3, .head = head};
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
    const layout l{.rows = 2'000'000, .groups = 1};
    const old_grouping old(l);
    const bat b =
        refkernel::make_column(std::vector<float>(l.rows, std::numeric_limits<float>::quiet_NaN()),
                               head_options(l.head, old.heads));
    const outcome pairs = run(vask_pairs_derive<float>, l, b, old);
    EXPECT_EQ(pairs.groups.extents.size(), l.rows);
    EXPECT_EQ(pairs.groups.map, old.heads);
    const outcome buckets = run(vask_buckets_derive<float>, l, b, old);
    EXPECT_EQ(buckets.groups.extents, (std::vector<std::pair<oid, lng>>{{40, l.rows}}));
}

TEST(Derive, ValuesThatHashAlikeTakeNoLongerThanOthers) {
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
    expect_fast(vask_pairs_derive<std::int32_t>, integers, 30'000);
    expect_fast(vask_buckets_derive<std::int32_t>, integers, 30'000);
    const bat numbers = refkernel::make_column(std::move(whole), options);
    expect_fast(vask_pairs_derive<double>, numbers, 30'000);
    expect_fast(vask_buckets_derive<double>, numbers, 30'000);
    expect_fast(vask_pairs_derive<str>, texts.finish(options), l.rows);
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
                    // Some texts share the hash of the table of pairs: 31 times a byte up, one times
                    // a byte down.
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
                check_road(vask_pairs_derive<str>, false, l, b, old, refine_plainly(old, by_place));
                check_road(vask_buckets_derive<str>, true, l, b, old,
                           refine_plainly(old, by_content));
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
        check_road(vask_buckets_derive<str>, true, l, b, old, refine_plainly(old, texts));
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
    const layout l{.rows = 60000, .groups = 300, .head = heads::shuffled, .map = map_kind::hashed};
    const old_grouping old(l);
    const bat b = refkernel::make_column(random_values<std::int32_t>(l.rows, 50, 3, 8),
                                         head_options(l.head, old.heads));
    for (const body derive : {vask_pairs_derive<std::int32_t>, vask_buckets_derive<std::int32_t>}) {
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
            return std::pair(run(vask_pairs_derive<std::int32_t>, l, b, old).result,
                             run(vask_buckets_derive<std::int32_t>, l, b, old).result);
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
        old.map = refkernel::slice(whole, 0, mapped);
        EXPECT_EQ(run(vask_pairs_derive<std::int32_t>, l, b, old).result, 0) << mapped;
        EXPECT_EQ(run(vask_buckets_derive<std::int32_t>, l, b, old).result, 0) << mapped;
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
        check_road(vask_pairs_derive<std::int32_t>, false, l, b, old, expected);
        check_road(vask_buckets_derive<std::int32_t>, true, l, b, old, expected);
    }
}

// ---- the exported function ----------------------------------------------------------------------

struct derived {
    exception failure;
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

enum class road { serial, pairs, buckets };

//! The road that a watched call took, by what it asked of the kernel.
road road_of(const watch &kernel) {
    if (kernel.calls(operation::align_synced) == 0)
        return road::serial;
    return kernel.calls(operation::bun_fastins) == 0 ? road::pairs : road::buckets;
}

TEST(VaskDerive, SizesAndTheSampleChooseTheRoad) {
    const struct {
        BUN rows, groups;
        std::uint64_t distinct;
        int threads;
        road expected;
    } cases[] = {
        {8191, 1, 4, 2, road::serial},     {8192, 1, 4, 2, road::pairs},
        {8192, 1, 4, 1, road::serial},     {8193, 1, 4, 2, road::pairs},
        {8192, 1, 5, 2, road::buckets}, // 5 / 8192 is above 0.0005
        {10000, 3000, 1, 2, road::serial}, {10000, 2999, 1, 2, road::buckets},
        {20000, 10, 1, 2, road::pairs},    {20000, 11, 1, 2, road::buckets},
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
        EXPECT_EQ(result.failure, exception());
        EXPECT_EQ(road_of(kernel), c.expected);
        EXPECT_EQ(kernel.unpaired_accesses().size(), c.expected == road::serial ? 3U : 0U);
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
    EXPECT_EQ(call(old.histo, old.map, none).failure, (exception{place, "Object not found"}));
    EXPECT_EQ(call(old.histo, none, b).failure, (exception{place, "Object not found"}));
    EXPECT_EQ(call(none, old.map, b).failure, (exception{place, "Object not found"}));
    EXPECT_EQ(call(none, none, wrong_head).failure,
              (exception{place, "Explicit type required(v)oid head required\n"}));
    EXPECT_EQ(call(old.histo, old.map, no_storage).failure, (exception{place, "operation failed"}));
    EXPECT_EQ(call(old.histo, old.map, oid_tail).failure, exception()); // stored as int
}

//! What comes of a call in which one call of an operation fails.
struct failing_operation {
    operation op;
    std::set<std::string> expected; // texts; an empty one is a success all the same
};

const std::string thrown = "an exception";

//! The operations that the roads call and that can fail.
std::vector<failing_operation> operations_of(road taken) {
    const bool by_pairs = taken == road::pairs;
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
    const bool failed = result.failure != exception();
    if (failed) {
        EXPECT_EQ(result.failure.place, "group.vask_derive");
    }
    // What a refinement opens is closed behind its last step but the hand-over.
    const bool closes = !failed || op == operation::bat_setaccess;
    EXPECT_EQ(kernel.unpaired_accesses().size(), closes ? 0U : 3U);
    // The exception strings of the kernel's own operators are dropped as they stand.
    if (op != operation::grp_group && op != operation::grp_derive) {
        EXPECT_EQ(kernel.bytes_outstanding(), 0U);
    }
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
        road taken;
    } cases[] = {{1, false, road::pairs},
                 {20, false, road::buckets},
                 {20, true, road::buckets},
                 {500, false, road::buckets}};
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
    // The histogram of the sample that chooses the road, with its map; histogram or map of the one
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
