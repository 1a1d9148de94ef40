#include "kernel/hostile.h"
#include "rows/text_hash.h"
#include "support/failing_calls.h"
#include "support/kernel_settings.h"
#include "support/leak_guard.h"
#include "support/values.h"
#include "vask/embed.h"
#include "vask/ops.h"
#include "vask/refkernel/instrumentation.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using refkernel::bat;
using support::kernel_settings;
using enum refkernel::instrumentation::operation;

//! Values that tell apart what the operator tells apart: the bits of a number.
template <class T>
std::string bits_of(T value) {
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

struct shape {
    BUN rows = 2000;
    oid groups = 7;
    bool stored_heads = false;     // ascending with gaps, else void
    bool shuffled_extents = false; // else a dense head
    BUN first = 0;                 // of the values
    BUN without_map = 0;           // rows at the end of the values that the map does not have
};

//! A map and extents of a grouping, heads for the values, and the counts that are to come out for
//! the keys of the rows' values.
struct grouping {
    std::vector<oid> heads;
    std::vector<oid> gids;
    std::vector<oid> ids;
    bat map;
    bat extents;

    grouping(const shape &s, std::mt19937 &random) {
        for (BUN row = 0; row < s.rows; ++row) {
            heads.push_back(s.stored_heads ? 100 + 3 * row : 100 + row);
            gids.push_back(500 + static_cast<oid>(random()) % s.groups);
        }
        for (oid j = 0; j < s.groups + 1; ++j) // the last one has no rows
            ids.push_back(500 + j);
        if (s.shuffled_extents)
            std::shuffle(ids.begin(), ids.end(), random);
        map = refkernel::make_column(
            std::span<const oid>(gids).first(s.rows - s.without_map),
            {.stored_head = s.stored_heads,
             .seqbase = 100,
             .head_oids = s.stored_heads ? std::span<const oid>(heads).first(s.rows - s.without_map)
                                         : std::span<const oid>(),
             .head = {.sorted = true, .key = true}});
        extents = refkernel::make_column(
            std::vector<wrd>(ids.size(), 1),
            {.type = TYPE_wrd,
             .stored_head = true,
             .seqbase = 500,
             .head_oids = ids,
             .head = {.sorted = !s.shuffled_extents, .key = true, .dense = !s.shuffled_extents}});
    }

    refkernel::column_options value_options(const shape &s, int type) const {
        refkernel::column_options options{.type = type, .stored_head = s.stored_heads};
        options.seqbase = 100;
        if (s.stored_heads)
            options.head_oids = heads;
        options.head = {.sorted = true, .key = true};
        options.first = s.first;
        return options;
    }

    std::vector<wrd> expected(const std::vector<std::string> &keys, BUN mapped_rows) const {
        std::map<oid, std::set<std::string>> distinct;
        for (BUN row = 0; row < mapped_rows; ++row)
            distinct[gids[row]].insert(keys[row]);
        std::vector<wrd> counts;
        for (const oid id : ids)
            counts.push_back(static_cast<wrd>(distinct[id].size()));
        return counts;
    }
};

struct outcome {
    refkernel::operator_failure failure;
    std::vector<wrd> counts;
    bool serial = false;
};

//! Calls the operator and checks what holds of every call: the result's head and marks, and that
//! nothing is left behind.
outcome count_distinct(const bat &values, const grouping &g) {
    const refkernel::checkpoint before;
    outcome out;
    {
        refkernel::instrumentation::watch kernel;
        std::int32_t id = int_nil;
        out.failure = refkernel::take_exception(
            AggrX3_countDistinct(&id, values.slot(), g.map.slot(), g.extents.slot()));
        out.serial = kernel.calls(grp_derive) != 0;
        EXPECT_TRUE(kernel.unpaired_accesses().empty());
        const bat result = bat::adopt(id);
        if (result) {
            EXPECT_EQ(result.type(), TYPE_wrd);
            EXPECT_EQ(result.count(), g.ids.size());
            for (BUN j = 0; j < result.count(); ++j) {
                EXPECT_EQ(result.head_oid(j), g.ids[j]);
                out.counts.push_back(result.values<wrd>()[j]);
            }
            if (!out.serial) {
                EXPECT_TRUE(result->tail->nonil && !result->tail->nil);
            }
        }
    }
    EXPECT_EQ(before.leaks(), "");
    return out;
}

template <class T>
std::vector<std::string> keys_of(const std::vector<T> &values) {
    std::vector<std::string> keys;
    for (const T v : values)
        keys.push_back(bits_of(v));
    return keys;
}

std::vector<shape> shapes() {
    return {
        {},
        {.groups = 1},
        {.groups = 1500, .shuffled_extents = true},
        {.stored_heads = true, .shuffled_extents = true},
        {.rows = vask::unless_hostile(9000U, 3000U),
         .groups = 2,
         .stored_heads = true,
         .first = 11},
        {.rows = 3000, .groups = 50, .stored_heads = true, .without_map = 700},
        {.rows = 3000, .groups = 50, .first = 5, .without_map = 1},
        {.rows = vask::unless_hostile(50'000U, 3'000U), .groups = 900, .shuffled_extents = true},
    };
}

//! Values all over the type, or some hundreds of neighbours, which integers are counted by a bit
//! for each; a few of them nil.
template <class T>
std::vector<T> draw_column(std::mt19937 &random, BUN rows, bool neighbours) {
    std::vector<T> values = support::draw_values<T>(random, rows, 10, support::spread::any);
    if (neighbours)
        for (T &v : values)
            if (v != refkernel::nil_of<T>())
                v = static_cast<T>(static_cast<int>(random() % 701) - 350);
    return values;
}

TEST(CountDistinct, OfNumbersByTheirBitsOnAnyShapeAndThreads) {
    support::for_each_arithmetic_type([]<class T>(int type) {
        std::mt19937 random(31);
        for (const shape &s : shapes()) {
            const grouping g(s, random);
            for (const bool neighbours : {false, true}) {
                SCOPED_TRACE("type " + std::to_string(type) + ", " + std::to_string(s.rows) +
                             " rows" + (neighbours ? " of neighbours" : ""));
                std::vector<T> values = draw_column<T>(random, s.rows, neighbours);
                const std::vector<wrd> expected =
                    g.expected(keys_of(values), s.rows - s.without_map);
                const bat column =
                    refkernel::make_column(std::move(values), g.value_options(s, type));
                // Bits for neighbours are worth their memory in three tasks and not in 300.
                for (const std::int32_t threads : {1, 2, 3, 300}) {
                    const kernel_settings settings(threads);
                    const outcome out = count_distinct(column, g);
                    // One byte has too few values for the parallel path.
                    EXPECT_EQ(out.serial, sizeof(T) == 1);
                    if (out.serial && s.without_map != 0)
                        continue; // the serial refinement asks for every row
                    EXPECT_EQ(out.failure.text, "");
                    EXPECT_EQ(out.counts, expected) << threads << " threads";
                }
            }
        }
    });
}

TEST(CountDistinct, OfTextsByWhatTheyRead) {
    std::mt19937 random(32);
    for (const auto sharing : {refkernel::text_sharing::once, refkernel::text_sharing::anew}) {
        for (const shape &s : shapes()) {
            const grouping g(s, random);
            refkernel::text_builder builder({.sharing = sharing});
            std::vector<std::string> keys;
            for (BUN row = 0; row < s.rows; ++row) {
                const bool nil = random() % 10 == 0;
                keys.push_back(nil ? "nil" : "text " + std::to_string(random() % 900));
                if (nil)
                    builder.append_nil();
                else
                    builder.append(keys.back());
            }
            const bat column = builder.finish(g.value_options(s, TYPE_str));
            const kernel_settings settings(3);
            const outcome out = count_distinct(column, g);
            EXPECT_FALSE(out.serial);
            EXPECT_EQ(out.failure.text, "");
            EXPECT_EQ(out.counts, g.expected(keys, s.rows - s.without_map));
        }
    }
}

// As many values as there are bits in five words, and a nil beside them. Only one of two groups has
// the nil, and only that one has the least value.
TEST(CountDistinct, OfNeighboursThatFillTheirWords) {
    const kernel_settings settings(2);
    std::mt19937 random(36);
    const shape s{.rows = 640, .groups = 2};
    grouping g(s, random);
    std::vector<std::int32_t> values(s.rows);
    for (BUN row = 0; row < s.rows; ++row) {
        values[row] = static_cast<std::int32_t>(row % 320);
        g.gids[row] = row < 320 ? 500 : 501;
    }
    values[320] = 1; // the second group's 0
    values[1] = refkernel::nil_of<std::int32_t>();
    std::copy(g.gids.begin(), g.gids.end(), g.map.mutable_values<oid>().begin());
    const outcome out =
        count_distinct(refkernel::make_column(std::move(values), g.value_options(s, TYPE_int)), g);
    EXPECT_FALSE(out.serial);
    EXPECT_EQ(out.counts, (std::vector<wrd>{320, 319, 0}));
}

//! Two texts of one hash.
std::pair<std::string, std::string> texts_that_hash_alike() {
    const vask::text_hash hash{nullptr};
    std::map<std::uint32_t, std::string> known;
    for (int i = 0;; ++i) {
        const std::string text = "text " + std::to_string(i);
        const auto [place, is_new] = known.try_emplace(hash(text.c_str()), text);
        if (!is_new)
            return {place->second, text};
    }
}

TEST(CountDistinct, OfTextsWithEqualHashes) {
    const auto [one, other] = texts_that_hash_alike();
    const kernel_settings settings(2);
    std::mt19937 random(37);
    const shape s{.rows = 400, .groups = 1};
    const grouping g(s, random);
    refkernel::text_builder builder;
    for (BUN row = 0; row < s.rows; ++row)
        builder.append(row == 7 ? one : row == 300 ? other : "other " + std::to_string(row));
    const outcome out = count_distinct(builder.finish(g.value_options(s, TYPE_str)), g);
    EXPECT_FALSE(out.serial);
    EXPECT_EQ(out.counts, (std::vector<wrd>{400, 0}));
}

TEST(CountDistinct, ZerosNilsAndNansAreValuesOnBothRoads) {
    const kernel_settings settings(2);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double nil = refkernel::nil_of<double>();
    for (const bool many : {false, true}) {
        std::mt19937 random(33);
        const shape s{.rows = 1000, .groups = 1};
        const grouping g(s, random);
        std::vector<double> values(s.rows, 1.0);
        for (BUN row = 0; row < s.rows; ++row)
            values[row] = many ? row : 1.0;
        for (const BUN at : {3U, 500U, 900U}) {
            const double odd[] = {0.5, nil, nan, -0.25};
            std::copy(std::begin(odd), std::end(odd), values.begin() + at);
        }
        const std::vector<wrd> expected = g.expected(keys_of(values), s.rows);
        const outcome out = count_distinct(
            refkernel::make_column(std::move(values), g.value_options(s, TYPE_dbl)), g);
        EXPECT_EQ(out.serial, !many);
        EXPECT_EQ(out.failure.text, "");
        EXPECT_EQ(out.counts, expected);
    }
}

TEST(CountDistinct, SampleAndHeadsChooseTheRoad) {
    const kernel_settings settings(2);
    std::mt19937 random(34);
    const shape s{.rows = 1024, .groups = 4};
    grouping g(s, random);
    // All rows are sampled, so the number of values is exact.
    for (const std::int32_t distinct : {299, 300}) {
        std::vector<std::int32_t> values(s.rows);
        for (BUN row = 0; row < s.rows; ++row)
            values[row] = static_cast<std::int32_t>(row) % distinct;
        const std::vector<wrd> expected = g.expected(keys_of(values), s.rows);
        const outcome out =
            count_distinct(refkernel::make_column(std::span<const std::int32_t>(values),
                                                  g.value_options(s, TYPE_int)),
                           g);
        EXPECT_EQ(out.serial, distinct == 299);
        EXPECT_EQ(out.counts, expected);
        // A head whose mark says nothing of order, be it that of the values or that of the map.
        refkernel::column_options unordered = g.value_options(s, TYPE_int);
        unordered.stored_head = true;
        unordered.head_oids = g.heads;
        unordered.head.sorted = false;
        const outcome serial = count_distinct(
            refkernel::make_column(std::span<const std::int32_t>(values), unordered), g);
        EXPECT_TRUE(serial.serial);
        EXPECT_EQ(serial.counts, expected);
        const std::vector<oid> last_first(g.heads.rbegin(), g.heads.rend());
        bat turned = refkernel::make_column(std::vector<oid>(g.gids.rbegin(), g.gids.rend()),
                                            {.stored_head = true, .head_oids = last_first});
        std::swap(g.map, turned);
        const outcome by_map =
            count_distinct(refkernel::make_column(std::span<const std::int32_t>(values),
                                                  g.value_options(s, TYPE_int)),
                           g);
        std::swap(g.map, turned);
        EXPECT_TRUE(by_map.serial);
        EXPECT_EQ(by_map.counts, expected);
    }
}

TEST(CountDistinct, EveryFailureIsTheOperatorsOwn) {
    const kernel_settings settings(3);
    std::mt19937 random(35);
    const shape s{.rows = 3000, .groups = 20, .shuffled_extents = true};
    const grouping g(s, random);
    const refkernel::operator_failure operators_own{"aggr.countd", "operation failed"};
    std::vector<std::int32_t> values(s.rows);
    std::iota(values.begin(), values.end(), 0);
    const bat far = refkernel::make_column(std::vector<double>(values.begin(), values.end()),
                                           g.value_options(s, TYPE_dbl));
    for (std::int32_t &v : values)
        v %= 1000;
    const bat column = refkernel::make_column(std::move(values), g.value_options(s, TYPE_int));
    const auto fail_each = [&](const bat &b, auto op) {
        const support::leak_guard leaks;
        support::fail_each_call(
            op, [] { return 0; },
            [&](int, const auto &kernel, auto failed) {
                std::int32_t id = int_nil;
                const auto failure = refkernel::take_exception(
                    AggrX3_countDistinct(&id, b.slot(), g.map.slot(), g.extents.slot()));
                EXPECT_EQ(static_cast<bool>(bat::adopt(id)), !failed());
                if (failed()) {
                    EXPECT_EQ(failure, operators_own);
                }
                EXPECT_EQ(kernel.bytes_outstanding(), 0U);
            });
    };
    for (const auto op : {bat_new, bat_sample, grp_group, gdk_zalloc, gdk_malloc, view_combine})
        fail_each(column, op);
    for (const auto op : {gdk_zalloc, gdk_malloc})
        fail_each(far, op);
    grouping unknown(s, random); // has a group that the extents do not hold
    unknown.map.mutable_values<oid>()[s.rows - 1] = 9999;
    const bat no_storage = refkernel::make_void_column(s.rows, 0, g.value_options(s, TYPE_void));
    for (const outcome &out : {count_distinct(column, unknown), count_distinct(far, unknown),
                               count_distinct(no_storage, g)}) {
        EXPECT_EQ(out.failure, operators_own);
        EXPECT_TRUE(out.counts.empty());
    }
}

} // namespace
