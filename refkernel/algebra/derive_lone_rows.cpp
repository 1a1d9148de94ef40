#include "refkernel/algebra/derive_lone_rows.h"

#include "refkernel/algebra/column_keys.h"
#include "refkernel/algebra/value_groups.h"
#include "refkernel/algebra/work_array.h"

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
    work_array<std::uint8_t> marks; // by distance from `low`; the last is for all other ids

    std::size_t place_of(oid id) const noexcept {
        return std::min<std::size_t>(static_cast<oid>(id - low), marks.size() - 1);
    }
};

//! The ids of the extents; nothing if they lie too far apart.
std::optional<marked_ids> mark_groups(const BAT &extents, BUN rows) {
    const row_ids ids = ids_of(*extents.head, *extents.info);
    const BUN count = extents.info->count;
    oid low = std::numeric_limits<oid>::max();
    oid high = 0;
    for (BUN i = 0; i < count; ++i) {
        low = std::min(low, ids[i]);
        high = std::max(high, ids[i]);
    }
    const std::uint64_t places = std::uint64_t{high} - low + 2;
    if (places > affordable_entries(rows))
        return std::nullopt;
    marked_ids marked{low, work_array<std::uint8_t>::uninitialised(places)};
    std::fill_n(marked.marks.data(), places, no_group);
    for (BUN i = 0; i < count; ++i)
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

std::vector<BUN> shared_rows(const marked_ids &marked, const oid *parents, BUN rows, BUN most) {
    std::vector<BUN> shared;
    shared.reserve(most);
    for (BUN row = 0; row < rows; ++row)
        if (marked.marks[marked.place_of(parents[row])] == several_rows)
            shared.push_back(row);
    return shared;
}

//! A grouping of some rows, which are counted as they are listed.
struct listed_groups {
    work_array<oid> map; // by listed row: the first of its group
    std::vector<oid> firsts;
    std::vector<wrd> counts;

    void make(BUN rows, const key_loader &load, group_resolver resolve) {
        map = work_array<oid>::uninitialised(rows);
        group_by_hash({rows,
                       {nullptr, 0},
                       map.data(),
                       [this](BUN groups) {
                           firsts.resize(groups);
                           counts.resize(groups);
                           return extents_rows{firsts.data(), counts.data()};
                       },
                       std::move(resolve)},
                      load);
    }
};

//! Groups the listed rows by value. Where the values lie far apart, that takes a grouping by value
//! first: their groups then stand for them beside the old group.
listed_groups group_listed(const std::vector<BUN> &list, const oid *parents, const BAT &b) {
    const auto rows = static_cast<BUN>(list.size());
    const column_keys keys = keys_of(*b.tail, *b.info, widest_bound);
    const bool has_codes = keys.has_range && !b.tail->varsized;
    listed_groups by_value;
    if (!has_codes)
        by_value.make(
            rows,
            [&](BUN row, unsigned count, std::uint64_t *out) {
                for (unsigned i = 0; i < count; ++i)
                    keys.keys(list[row + i], 1, out + i);
            },
            keys.resolve
                ? [&](BUN row, std::uint32_t next) { return keys.resolve(list[row], next); }
                : group_resolver());
    listed_groups result;
    result.make(rows,
                [&](BUN row, unsigned count, std::uint64_t *out) {
                    for (unsigned i = 0; i < count; ++i) {
                        std::uint32_t code = 0;
                        if (has_codes)
                            keys.indices(list[row + i], 1, &code);
                        else
                            code = by_value.map[row + i];
                        out[i] = std::uint64_t{parents[list[row + i]]} << 32 | code;
                    }
                },
                {});
    return result;
}

//! The groups in order of first rows, as they are written.
struct written_groups {
    oid *map;
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

bool derive_lone_rows(const oid *parents, const BAT &extents, const BAT &b,
                      const grouping_task &task) {
    const BUN rows = task.rows;
    if (rows == 0 || is_void(*b.tail) || !most_rows_are_alone(extents.info->count, rows))
        return false;
    std::optional<marked_ids> marked = mark_groups(extents, rows);
    if (!marked)
        return false;
    const std::optional<BUN> others = mark_rows(*marked, parents, rows);
    if (!others || !most_rows_are_alone(rows - *others, rows))
        return false;
    const std::vector<BUN> list = shared_rows(*marked, parents, rows, 2 * *others);
    const listed_groups listed = group_listed(list, parents, b);

    const auto shared = static_cast<BUN>(list.size());
    const auto groups = static_cast<BUN>(listed.firsts.size());
    written_groups written{task.map, task.make_extents(rows - shared + groups)};
    BUN row = 0;
    BUN group = 0;
    for (BUN i = 0; i < shared; ++i) {
        written.write_lone(row, list[i]);
        row = list[i] + 1;
        task.map[list[i]] = list[listed.map[i]];
        if (listed.map[i] == i)
            written.write_first(list[i], listed.counts[group++]);
    }
    written.write_lone(row, rows);
    return true;
}

} // namespace refkernel::algebra
