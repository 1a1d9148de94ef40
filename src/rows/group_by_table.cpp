#include "rows/group_by_table.h"

#include "kernel/hostile.h"
#include "kernel/shared_mark.h"
#include "rows/key_table.h"
#include "rows/one_range.h"
#include "rows/row_counts.h"
#include "rows/take_groups.h"

#include <algorithm>
#include <array>

namespace vask {

namespace {

//! With how many keys a range is left to buckets: more in all, or more among the first rows.
struct key_limits {
    std::uint32_t in_all;
    std::uint32_t among_first;
};

constexpr BUN first_rows = 1 << 15;
// A larger table would leave the second-level cache, and bringing the ranges together is the
// calling thread's work alone. Where half of the first rows have a key of their own, the rest is
// not waited for.
constexpr key_limits limits_of_many_ranges{unless_hostile<std::uint32_t>(1 << 17, 1),
                                           first_rows / 2};
// A single range has nothing to bring together. So many values leave a sixteenth of the first rows
// without a key of their own.
constexpr key_limits limits_of_one_range{unless_hostile<std::uint32_t>(1 << 18, 1),
                                         first_rows / 16 * 15};

constexpr std::uint32_t first_codes = 256;

bool too_many_keys(std::uint32_t keys, BUN rows, const key_limits &limits) noexcept {
    return forced_way() != grouping_way::table &&
           (keys > limits.in_all || (rows < first_rows && keys > limits.among_first));
}

//! A range's keys, by code: the first row and the rows of each, in the end its group's id.
struct range_keys {
    struct entry {
        BUN row;
        oid id;
    };
    gdk_vector<entry> entries;
    row_counts counts{0};
};

//! Puts the codes of a range's rows into their cells and counts them. Says so, and ends early, when
//! this or another range has too many keys. False at a row without a key.
template <class Key>
bool number_rows(const grouping_rows &rows, const key_loader<Key> &load, vask_row_range range,
                 range_keys &found, shared_mark &too_many) {
    key_table<bit_keys<Key>> table;
    std::array<Key, block_rows> keys;
    found.counts = row_counts(first_codes);
    bool loaded = true;
    static_cast<void>(all_blocks(range, [&](BUN row, BUN n) {
        std::uint32_t *codes = rows.cells + row;
        loaded = load(row, n, codes, keys.data(), false);
        if (!loaded)
            return false;
        const std::uint32_t known = table.size();
        table.find_or_add(keys.data(), n, codes);
        if (table.size() != known) {
            std::uint32_t next = known;
            for (BUN i = 0; next != table.size(); ++i)
                if (codes[i] == next) {
                    found.entries.push_back({row + i, 0});
                    ++next;
                }
            if (too_many_keys(table.size(), row - range.begin, limits_of_many_ranges))
                too_many.set();
            if (table.size() > found.counts.numbers())
                found.counts = row_counts(std::size_t{2} * table.size(), found.counts);
        }
        found.counts.add(codes, n, [](std::uint32_t, std::size_t) {});
        return !too_many.is_set();
    }));
    return loaded;
}

//! Brings the ranges' keys together, in the order of ranges and rows.
gdk_vector<new_group> merge(const grouping_rows &rows, const group_resolver &resolve,
                            gdk_vector<range_keys> &found) {
    gdk_vector<new_group> groups;
    for (range_keys &range : found)
        for (std::size_t code = 0; code < range.entries.size(); ++code) {
            range_keys::entry &entry = range.entries[code];
            const auto next = static_cast<std::uint32_t>(groups.size());
            const std::uint32_t number = resolve(entry.row, next);
            if (number == next)
                groups.push_back({rows.heads[entry.row], 0});
            entry.id = groups[number].id;
            groups[number].count += static_cast<BUN>(range.counts[code]);
        }
    return groups;
}

//! Writes the ids in place of the codes.
void write_ids(const grouping_rows &rows, vask_row_range range, const range_keys &found) {
    gdk_vector<oid> ids(found.entries.size());
    std::transform(found.entries.begin(), found.entries.end(), ids.begin(),
                   [](const range_keys::entry &entry) { return entry.id; });
    oid *cells = rows.cells + range.begin;
    const oid *id = ids.data();
    for (std::size_t i = 0; i < range.size(); ++i)
        cells[i] = id[cells[i]];
}

template <class Key>
grouping_outcome group_one_range(const grouping_rows &rows, const key_loader<Key> &load,
                                 const group_resolver &resolve, const group_sink &sink) {
    const BUN begin = rows.all().begin;
    key_table<bit_keys<Key>> table;
    one_range_groups groups(rows, resolve, first_codes);
    std::array<Key, block_rows> keys;
    grouping_outcome outcome = grouping_outcome::done;
    static_cast<void>(all_blocks(rows.all(), [&](BUN row, BUN n) {
        std::uint32_t *codes = rows.cells + row;
        if (!load(row, n, codes, keys.data(), false)) {
            outcome = grouping_outcome::row_without_key;
            return false;
        }
        table.find_or_add(keys.data(), n, codes);
        if (too_many_keys(table.size(), row - begin, limits_of_one_range)) {
            outcome = grouping_outcome::too_many_keys;
            return false;
        }
        if (table.size() > groups.numbers())
            groups.grow(std::size_t{4} * table.size());
        groups.add(row, codes, n);
        return true;
    }));
    return outcome == grouping_outcome::done ? take_groups(rows, groups.groups(), sink) : outcome;
}

} // namespace

template <class Key>
grouping_outcome group_by_table(const grouping_rows &rows, const key_loader<Key> &load,
                                const group_resolver &resolve, const group_sink &sink) {
    if (rows.ranges.size() == 1)
        return group_one_range(rows, load, resolve, sink);
    gdk_vector<range_keys> found(rows.ranges.size());
    shared_mark keyless;
    shared_mark too_many;
    rows.run_ranges([&](std::size_t i, vask_row_range range) {
        if (!number_rows(rows, load, range, found[i], too_many))
            keyless.set();
    });
    if (keyless.is_set())
        return grouping_outcome::row_without_key;
    if (too_many.is_set())
        return grouping_outcome::too_many_keys;
    const gdk_vector<new_group> groups = merge(rows, resolve, found);
    rows.run_ranges([&](std::size_t i, vask_row_range range) { write_ids(rows, range, found[i]); });
    return take_groups(rows, groups, sink);
}

template grouping_outcome group_by_table<std::uint32_t>(const grouping_rows &,
                                                        const key_loader<std::uint32_t> &,
                                                        const group_resolver &, const group_sink &);
template grouping_outcome group_by_table<std::uint64_t>(const grouping_rows &,
                                                        const key_loader<std::uint64_t> &,
                                                        const group_resolver &, const group_sink &);
template grouping_outcome group_by_table<wide_key>(const grouping_rows &,
                                                   const key_loader<wide_key> &,
                                                   const group_resolver &, const group_sink &);

} // namespace vask
