// The three ways of giving rows their groups, each against the plain way and so against each other.
#include "kernel/hostile.h"
#include "rows/column_keys.h"
#include "rows/group_by_buckets.h"
#include "rows/group_by_index.h"
#include "rows/group_by_table.h"

#include "grouping/plain_groups.h"
#include "rows/key_table.h"
#include "rows/range_tasks.h"

#include <algorithm>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace vask;

//! Rows to group, cut into ranges of uneven length, with their map.
struct rows_to_group {
    std::vector<std::uint32_t> keys;
    gdk_vector<vask_row_range> ranges;
    refkernel::bat heads;
    std::vector<oid> cells;
    // What the sink was given.
    std::vector<oid> ids;
    std::vector<wrd> counts;

    rows_to_group(std::size_t rows, std::uint32_t distinct, std::size_t n, std::uint32_t seed)
        : keys(rows), heads(refkernel::make_void_column(static_cast<BUN>(rows), 100)), cells(rows) {
        std::mt19937 random(seed);
        for (std::uint32_t &key : keys)
            // Some keys come late and seldom.
            key = random() % 4 == 0 ? static_cast<std::uint32_t>(random() % distinct)
                                    : static_cast<std::uint32_t>(random() % (distinct / 2 + 1));
        const auto all = static_cast<BUN>(rows);
        for (std::size_t i = 0; i < n; ++i) {
            const vask_row_range range = share_of({0, all}, i, n);
            ranges.push_back(range);
        }
    }

    grouping_rows task() {
        return {{ranges, run_as_tasks}, oid_reader(*heads->tail, *heads.record()), cells.data()};
    }

    group_sink sink() {
        group_sink made;
        made.make_room = [this](BUN groups, extents_rows &rows) {
            ids.assign(groups, 0);
            counts.assign(groups, 0);
            rows = {ids.data(), counts.data()};
            return true;
        };
        return made;
    }

    support::plain_groups result() const {
        support::plain_groups groups{cells, {}};
        for (std::size_t i = 0; i < ids.size(); ++i)
            groups.extents.emplace_back(ids[i], counts[i]);
        return groups;
    }

    support::plain_groups expected() const {
        std::vector<oid> heads_of_rows(keys.size());
        for (std::size_t row = 0; row < keys.size(); ++row)
            heads_of_rows[row] = 100 + static_cast<oid>(row);
        return support::group_rows(keys, heads_of_rows);
    }
};

//! Loads keys as words of Key, the same for rows of one key and no others.
template <class Key>
key_loader<Key> load(const std::vector<std::uint32_t> &keys, BUN without_key = NO_BUN) {
    return [&keys, without_key](BUN row, BUN n, std::uint32_t *, Key *out, bool) {
        for (BUN i = 0; i < n; ++i) {
            const std::uint64_t bits = keys[row + i] * 0x9e3779b97f4a7c15U;
            if constexpr (std::is_same_v<Key, wide_key>)
                out[i] = wide_key::of(bits, keys[row + i] % 7);
            else
                out[i] = sizeof(Key) == 8 ? static_cast<Key>(bits) : keys[row + i];
        }
        return without_key < row || without_key >= row + n;
    };
}

//! Brings the keys of ranges together by the key itself.
group_resolver by_key(const std::vector<std::uint32_t> &keys) {
    return [&keys, table = std::make_shared<key_table<bit_keys<std::uint32_t>>>()](
               BUN row, std::uint32_t) { return table->find_or_add(keys[row]); };
}

template <class Key>
grouping_outcome by_table(rows_to_group &rows) {
    return group_by_table<Key>(rows.task(), load<Key>(rows.keys), by_key(rows.keys), rows.sink());
}
//! Of a single range, no key has to be brought together with another.
grouping_outcome by_unresolved_table(rows_to_group &rows) {
    const bool one_range = rows.ranges.size() == 1;
    return group_by_table<std::uint64_t>(rows.task(), load<std::uint64_t>(rows.keys),
                                         one_range ? group_resolver() : by_key(rows.keys),
                                         rows.sink());
}
template <class Key>
grouping_outcome by_buckets(rows_to_group &rows) {
    return group_by_buckets(rows.task(), bit_keys<Key>(), load<Key>(rows.keys), rows.sink());
}
grouping_outcome by_index(rows_to_group &rows, const group_sink &sink, BUN without_key = NO_BUN) {
    index_source source;
    source.bound = *std::max_element(rows.keys.begin(), rows.keys.end()) + 1;
    source.load = [&rows, without_key](BUN row, BUN n, std::uint32_t *indices) {
        std::copy_n(rows.keys.begin() + row, n, indices);
        return without_key < row || without_key >= row + n;
    };
    return group_by_index(rows.task(), source, {}, sink);
}
grouping_outcome by_index(rows_to_group &rows) {
    return by_index(rows, rows.sink());
}

//! Every key has three indices.
grouping_outcome by_resolved_index(rows_to_group &rows) {
    index_source source;
    source.bound = 3 * (*std::max_element(rows.keys.begin(), rows.keys.end()) + 1);
    source.load = [&rows](BUN row, BUN n, std::uint32_t *indices) {
        for (BUN i = 0; i < n; ++i)
            indices[i] = 3 * rows.keys[row + i] + (row + i) % 3;
        return true;
    };
    return group_by_index(rows.task(), source, by_key(rows.keys), rows.sink());
}

TEST(GroupWays, AgreeWithThePlainWay) {
    using way = grouping_outcome (*)(rows_to_group &);
    const std::pair<const char *, way> ways[] = {{"index", static_cast<way>(by_index)},
                                                 {"index, resolved", by_resolved_index},
                                                 {"table, 32 bits", by_table<std::uint32_t>},
                                                 {"table, 64 bits", by_table<std::uint64_t>},
                                                 {"table, 96 bits", by_table<wide_key>},
                                                 {"table, unresolved", by_unresolved_table},
                                                 {"buckets, 32 bits", by_buckets<std::uint32_t>},
                                                 {"buckets, 64 bits", by_buckets<std::uint64_t>},
                                                 {"buckets, 96 bits", by_buckets<wide_key>}};
    std::uint32_t seed = 0;
    // Equal hashes make a table's time grow with the square of its keys.
    constexpr std::size_t largest = unless_hostile<std::size_t>(100'000, 3000);
    for (const std::size_t count : {std::size_t{1}, std::size_t{2}, std::size_t{1023},
                                    std::size_t{1025}, largest / 5, largest})
        for (const std::uint32_t distinct : {1U, 3U, 300U, 40'000U, 400'000U})
            for (const std::size_t ranges : {1U, 2U, 7U}) {
                rows_to_group rows(count, distinct, std::min(ranges, count), ++seed);
                const support::plain_groups expected = rows.expected();
                for (const auto &[name, run] : ways) {
                    SCOPED_TRACE(std::string(name) + ", seed " + std::to_string(seed));
                    const grouping_outcome outcome = run(rows);
                    if (outcome == grouping_outcome::too_many_keys &&
                        run != static_cast<way>(by_index)) {
                        EXPECT_GT(expected.extents.size(),
                                  unless_hostile(std::size_t{1} << 14, std::size_t{1}));
                        continue;
                    }
                    ASSERT_EQ(outcome, grouping_outcome::done);
                    ASSERT_EQ(support::difference(rows.result(), expected), "");
                }
            }
}

// Of what a row without a key or a failing sink leaves behind, nothing is used.
TEST(GroupWays, FailuresAreTold) {
    if (vask::is_hostile)
        GTEST_SKIP() << "two keys are too many for a table before a row without one is met";
    for (const std::size_t ranges : {1U, 3U}) {
        SCOPED_TRACE(std::to_string(ranges) + " ranges");
        rows_to_group rows(100'000, 50, ranges, 1);
        for (const BUN without_key : {0U, 5000U, 99'999U}) {
            const auto loader = load<std::uint64_t>(rows.keys, without_key);
            EXPECT_EQ(group_by_table(rows.task(), loader, by_key(rows.keys), rows.sink()),
                      grouping_outcome::row_without_key);
            EXPECT_EQ(group_by_buckets(rows.task(), bit_keys<std::uint64_t>(), loader, rows.sink()),
                      grouping_outcome::row_without_key);
            EXPECT_EQ(by_index(rows, rows.sink(), without_key), grouping_outcome::row_without_key);
        }
        group_sink no_room = rows.sink();
        no_room.make_room = [](BUN, extents_rows &) { return false; };
        group_sink refuses = rows.sink();
        refuses.take = [](std::size_t, const new_group *, std::size_t) { return false; };
        for (const group_sink &sink : {no_room, refuses}) {
            EXPECT_EQ(group_by_table(rows.task(), load<std::uint64_t>(rows.keys), by_key(rows.keys),
                                     sink),
                      grouping_outcome::failed);
            EXPECT_EQ(group_by_buckets(rows.task(), bit_keys<std::uint64_t>(),
                                       load<std::uint64_t>(rows.keys), sink),
                      grouping_outcome::failed);
            EXPECT_EQ(by_index(rows, sink), grouping_outcome::failed);
        }
    }
}

//! Two texts that share their hash.
std::pair<std::string, std::string> texts_of_one_hash() {
    std::unordered_map<std::uint32_t, std::string> known;
    for (int i = 0;; ++i) {
        const std::string text = std::to_string(i);
        // Read by bytes.
        const auto [at, is_new] = known.emplace(text_hash{text.data()}(text.data()), text);
        if (!is_new)
            return {at->second, text};
    }
}

TEST(GroupWays, TextsOfOneHashAreToldApart) {
    const auto [one, other] = texts_of_one_hash();
    rows_to_group rows(20'000, 1, 2, 1);
    refkernel::text_builder builder({.sharing = refkernel::text_sharing::anew, .offset_width = 4});
    for (std::size_t row = 0; row < rows.keys.size(); ++row) {
        rows.keys[row] = row % 3 == 0;
        builder.append(row % 3 == 0 ? one : other);
    }
    const refkernel::bat b = builder.finish();
    const offset_keys<std::uint32_t> texts(*b->tail);
    ASSERT_EQ(group_by_buckets(
                  rows.task(), text_content_keys<std::uint64_t>{text_reader(*b->tail)},
                  load_texts(texts, hash_of_span(texts, span_of_offsets(texts, rows.task()))),
                  rows.sink()),
              grouping_outcome::done);
    EXPECT_EQ(support::difference(rows.result(), rows.expected()), "");
}

//! Every hash is the same, so that every probe walks over all keys before it.
struct keys_that_hash_alike : bit_keys<std::uint64_t> {
    static std::uint64_t hash(std::uint64_t) noexcept { return ~std::uint64_t{0}; }
};

TEST(KeyTable, CodesAreInTheOrderOfFirstKeysAndForgottenAtOnce) {
    key_table<bit_keys<std::uint64_t>> table;
    key_table<keys_that_hash_alike> slow;
    std::mt19937_64 random(3);
    for (int round = 0; round < 4; ++round) {
        std::vector<std::uint64_t> known;
        for (int i = 0; i < 3000; ++i) {
            const std::uint64_t key = random() % 2000 * 0x100000001U;
            const auto at = std::find(known.begin(), known.end(), key);
            const auto code = static_cast<std::uint32_t>(at - known.begin());
            ASSERT_EQ(table.find(key), at == known.end() ? table.no_code : code);
            if (at == known.end())
                known.push_back(key);
            ASSERT_EQ(table.find_or_add(key), code);
            ASSERT_EQ(slow.find_or_add(key), code);
            ASSERT_EQ(table.size(), known.size());
        }
        table.clear();
        slow.clear();
    }
}

} // namespace
