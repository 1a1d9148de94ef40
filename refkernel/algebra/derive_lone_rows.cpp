#include "refkernel/algebra/derive_lone_rows.h"

#include "refkernel/algebra/old_groups.h"
#include "refkernel/algebra/pair_groups.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <numeric>
#include <optional>
#include <utility>
#include <vector>

namespace refkernel::algebra {
namespace {

// With fewer groups for so many rows, or with more rows that are not the first of their groups,
// picking out the shared rows saves too little.
constexpr bool most_rows_are_alone(std::uint64_t groups, std::uint64_t rows) {
    return groups >= rows / 4 * 3;
}

// What is known of an id, a byte each.
enum mark : std::uint8_t { no_group = 0, no_row = 1, one_row = 2, several_rows = 3 };

struct marked_ids {
    oid low;
    vask::gdk_vector<std::uint8_t> marks; // by distance from `low`; the last is for all other ids

    std::size_t place_of(oid id) const noexcept {
        return std::min<std::size_t>(static_cast<oid>(id - low), marks.size() - 1);
    }
};

//! The ids of the extents; nothing if they lie too far apart.
std::optional<marked_ids> mark_groups(const BAT &extents, BUN rows) {
    const oid_reader ids(*extents.head, extents);
    const BUN end = ids.first + extents.info->count;
    oid low = std::numeric_limits<oid>::max();
    oid high = 0;
    for (BUN i = ids.first; i < end; ++i) {
        low = std::min(low, ids[i]);
        high = std::max(high, ids[i]);
    }
    const std::uint64_t places = std::uint64_t{high} - low + 2;
    if (places > affordable_places(rows))
        return std::nullopt;
    marked_ids marked{low, vask::gdk_vector<std::uint8_t>(places)};
    for (BUN i = ids.first; i < end; ++i)
        marked.marks[ids[i] - low] = no_row;
    return marked;
}

//! Marks the groups by their rows. The result is the number of rows that are not the first of their
//! groups; nothing if a row has none.
std::optional<BUN> mark_rows(marked_ids &marked, const oid *parents, BUN rows) {
    BUN others = 0;
    bool all_known = true;
    for (BUN row = 0; row < rows; ++row) {
        std::uint8_t &m = marked.marks[marked.place_of(parents[row])];
        const std::uint8_t before = m;
        all_known &= before != no_group;
        others += before >= one_row;
        m = static_cast<std::uint8_t>(before + (before < several_rows));
    }
    // The place of all other ids has been counted up as well.
    return all_known ? std::optional(others) : std::nullopt;
}

//! The positions of the rows that share their groups, of a column whose rows begin at `first`.
std::vector<BUN> shared_rows(const marked_ids &marked, const oid *parents, BUN first, BUN rows,
                             BUN most) {
    std::vector<BUN> shared;
    shared.reserve(most);
    for (BUN row = 0; row < rows; ++row)
        if (marked.marks[marked.place_of(parents[row])] == several_rows)
            shared.push_back(first + row);
    return shared;
}

//! Loads the rows of a list, which are counted as they are listed.
template <class Key>
vask::key_loader<Key> load_listed(const std::vector<BUN> &list, const vask::key_loader<Key> &load) {
    return [&list, load](BUN row, BUN n, std::uint32_t *notes, Key *keys, bool again) {
        for (BUN i = 0; i < n; ++i)
            load(list[row + i], 1, notes + i, keys + i, again);
        return true;
    };
}

//! A grouping of the rows of a list.
struct listed_groups {
    std::vector<oid> map; // by listed row: the first of its group
    std::vector<oid> firsts;
    std::vector<wrd> counts;

    listed_groups(const std::vector<BUN> &list, const oid *parents, const BAT &b)
        : map(list.size()) {
        if (list.empty())
            return;
        visit_pair_keys(b, {parents - b.info->first}, [&](auto &keys, const auto &) {
            keys.load = load_listed(list, keys.load);
            keys.load_for_buckets = load_listed(list, keys.load_for_buckets);
            if (keys.resolve)
                keys.resolve = [&list, resolve = keys.resolve](BUN row, std::uint32_t next) {
                    return resolve(list[row], next);
                };
            serial_rows(0, static_cast<BUN>(list.size()))
                .group(keys, {}, map.data(), [this](BUN groups) {
                    firsts.resize(groups);
                    counts.resize(groups);
                    return extents_rows{firsts.data(), counts.data()};
                });
        });
    }
};

//! The groups in order of first rows, as they are written.
struct written_groups {
    oid *map; // by position
    extents_rows out;
    BUN next = 0;

    void write_lone(BUN begin, BUN end) {
        const BUN rows = end - begin;
        std::iota(map + begin, map + end, begin);
        std::iota(out.ids + next, out.ids + next + rows, begin);
        std::fill_n(out.counts + next, rows, wrd{1});
        next += rows;
    }

    void write_first(BUN row, wrd count) {
        out.ids[next] = row;
        out.counts[next] = count;
        ++next;
    }
};

} // namespace

bool derive_lone_rows(const oid *parents, const BAT &extents, const BAT &b, oid *map,
                      const extents_maker &make_extents) {
    const BUN rows = b.info->count;
    if (is_void(*b.tail) || !most_rows_are_alone(extents.info->count, rows))
        return false;
    std::optional<marked_ids> marked = mark_groups(extents, rows);
    if (!marked)
        return false;
    const std::optional<BUN> others = mark_rows(*marked, parents, rows);
    if (!others || !most_rows_are_alone(rows - *others, rows))
        return false;
    const BUN first = b.info->first;
    const std::vector<BUN> list = shared_rows(*marked, parents, first, rows, 2 * *others);
    const listed_groups listed(list, parents, b);

    const auto shared = static_cast<BUN>(list.size());
    const auto groups = static_cast<BUN>(listed.firsts.size());
    written_groups written{map - first, make_extents(rows - shared + groups)};
    BUN row = first;
    BUN group = 0;
    for (BUN i = 0; i < shared; ++i) {
        written.write_lone(row, list[i]);
        row = list[i] + 1;
        written.map[list[i]] = list[listed.map[i]];
        if (listed.map[i] == i)
            written.write_first(list[i], listed.counts[group++]);
    }
    written.write_lone(row, first + rows);
    return true;
}

} // namespace refkernel::algebra
