// Grouping in the plainest way, the columns to try it on, and how to read an operator's result.
#pragma once

#include "support/element_types.h"
#include "vask/embed.h"
#include "vask/kernel/bat.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace support {

struct plain_groups {
    std::vector<oid> map; // group id of each row
    std::vector<std::pair<oid, lng>> extents;

    bool operator==(const plain_groups &) const = default;
};

//! Only the first difference is of use to a reader.
inline std::string difference(const plain_groups &got, const plain_groups &expected) {
    const auto first = [](const auto &a, const auto &b, const char *what) {
        if (a.size() != b.size())
            return std::to_string(a.size()) + " rows of " + what + ", not " +
                   std::to_string(b.size());
        const auto at = std::mismatch(a.begin(), a.end(), b.begin()).first;
        return at == a.end() ? std::string()
                             : std::string(what) + " row " + std::to_string(at - a.begin());
    };
    const std::string map = first(got.map, expected.map, "map");
    return map.empty() ? first(got.extents, expected.extents, "extents") : map;
}

//! Rows of one key are a group, and its id is the head of the first of them. Extents in order of
//! first row.
template <class Key>
plain_groups group_rows(const std::vector<Key> &keys, const std::vector<oid> &heads) {
    plain_groups groups;
    std::map<Key, std::size_t> known;
    for (std::size_t row = 0; row < keys.size(); ++row) {
        const auto [at, is_new] = known.try_emplace(keys[row], groups.extents.size());
        if (is_new)
            groups.extents.emplace_back(heads[row], 0);
        ++groups.extents[at->second].second;
        groups.map.push_back(groups.extents[at->second].first);
    }
    return groups;
}

inline plain_groups in_order_of_id(plain_groups groups) {
    std::sort(groups.extents.begin(), groups.extents.end());
    return groups;
}

//! A key for every value: values of one key are equal. By bits, or as the comparison of numbers
//! has it, for which a NaN in a row is like no other.
template <class T>
std::pair<std::uint64_t, std::size_t> key_by_bits(T value) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof value);
    return {bits, 0};
}
template <class T>
std::pair<std::uint64_t, std::size_t> key_by_number(T value, std::size_t row) {
    if constexpr (std::is_floating_point_v<T>) {
        if (std::isnan(value))
            return {1, row + 1};
        return key_by_bits(value == 0 ? T(0) : value);
    }
    return key_by_bits(value);
}

template <class T>
std::vector<std::pair<std::uint64_t, std::size_t>> keys_by_bits(const std::vector<T> &values) {
    std::vector<std::pair<std::uint64_t, std::size_t>> keys;
    for (const T value : values)
        keys.push_back(key_by_bits(value));
    return keys;
}
template <class T>
std::vector<std::pair<std::uint64_t, std::size_t>> keys_by_number(const std::vector<T> &values) {
    std::vector<std::pair<std::uint64_t, std::size_t>> keys;
    for (std::size_t row = 0; row < values.size(); ++row)
        keys.push_back(key_by_number(values[row], row));
    return keys;
}

//! Map and extents for a path to fill.
struct group_results {
    refkernel::bat grp;
    refkernel::bat ext;

    explicit group_results(const refkernel::bat &b)
        : grp(refkernel::bat::adopt(BATnew(b->head->type, TYPE_oid, b.count()))),
          ext(refkernel::bat::adopt(BATnew(TYPE_oid, TYPE_wrd, 4096))) {}
};

//! What the operators left in a map and extents whose counts may not be set yet.
inline plain_groups read_groups(const BAT &grp, const BAT &ext, BUN rows) {
    plain_groups groups;
    const auto *ids = static_cast<const oid *>(grp.tail->base) + grp.info->first;
    groups.map.assign(ids, ids + rows);
    for (BUN p = ext.info->first; p < ext.info->first + ext.info->count; ++p)
        groups.extents.emplace_back(static_cast<const oid *>(ext.head->base)[p],
                                    static_cast<const wrd *>(ext.tail->base)[p]);
    return groups;
}

//! `distinct` values spread over the type, of which every `nil_percent`th is nil.
template <class T>
std::vector<T> random_values(std::size_t rows, std::uint64_t distinct, int nil_percent,
                             std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::vector<T> values(rows);
    for (T &value : values) {
        const std::uint64_t spread = (random() % distinct) * 0x9e3779b97f4a7c15U;
        if constexpr (std::is_floating_point_v<T>)
            value = static_cast<T>(static_cast<std::int64_t>(spread)) / T(1 << 20);
        else
            value = static_cast<T>(spread >> (64 - 8 * sizeof(T)));
        if (static_cast<int>(random() % 100) < nil_percent)
            value = refkernel::nil_of<T>();
    }
    return values;
}

enum class heads { void_head, dense, ascending, descending, shuffled };

inline constexpr heads all_heads[] = {heads::void_head, heads::dense, heads::ascending,
                                      heads::descending, heads::shuffled};

//! The oids of a head of that kind, from `base` on.
inline std::vector<oid> head_oids(heads kind, std::size_t rows, oid base, std::uint64_t seed) {
    std::vector<oid> oids(rows);
    std::iota(oids.begin(), oids.end(), base);
    std::mt19937_64 random(seed);
    if (kind == heads::ascending)
        for (std::size_t i = 0; i < rows; ++i)
            oids[i] += static_cast<oid>(2 * i);
    else if (kind == heads::descending)
        std::reverse(oids.begin(), oids.end());
    else if (kind == heads::shuffled)
        std::shuffle(oids.begin(), oids.end(), random);
    return oids;
}

//! The options of a column with these oids in its head. `oids` must live until it is made.
inline refkernel::column_options head_options(heads kind, const std::vector<oid> &oids,
                                              BUN first = 0) {
    refkernel::column_options options{.seqbase = oids.empty() ? 0 : oids.front(), .first = first};
    if (kind != heads::void_head) {
        options.stored_head = true;
        options.head_oids = oids;
        options.head.sorted = kind == heads::dense || kind == heads::ascending;
        options.head.dense = kind == heads::dense;
    }
    return options;
}

} // namespace support
