// Columns beside an old grouping of their rows, and their refinement the plain way.
#pragma once

#include "grouping/plain_groups.h"

#include <algorithm>
#include <ostream>
#include <random>
#include <span>
#include <utility>
#include <vector>

namespace support {

using refkernel::bat;

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
        std::vector<oid> ids =
            head_oids(l.dense_histo ? heads::dense : heads::shuffled, l.groups, 7, l.seed);
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
            kind = l.seed % 2 == 0 ? heads::dense : heads::void_head;
        } else if (l.map == map_kind::hashed) {
            rows.emplace_back(3, ids[0]);
            std::shuffle(rows.begin(), rows.end(), random);
            kind = heads::shuffled;
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
            head_options(l.dense_histo ? heads::dense : heads::shuffled, ids, first));
    }
};

template <class Key>
plain_groups refine_plainly(const old_grouping &old, const std::vector<Key> &keys) {
    std::vector<std::pair<oid, Key>> pairs;
    for (std::size_t row = 0; row < keys.size(); ++row)
        pairs.emplace_back(old.parents[row], keys[row]);
    return group_rows(pairs, old.heads);
}

} // namespace support
