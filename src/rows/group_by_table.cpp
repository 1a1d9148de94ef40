#include "rows/group_by_table.h"

#include "kernel/hostile.h"
#include "kernel/shared_mark.h"
#include "rows/key_table.h"
#include "rows/row_counts.h"
#include "rows/take_groups.h"

#include <array>

namespace vask {

namespace {

// A range with more keys than that is left to buckets: its table would leave the second-level
// cache, and bringing the ranges together is the calling thread's work alone.
constexpr std::uint32_t most_keys = unless_hostile<std::uint32_t>(1 << 17, 1);
// Where half of so many first rows have a key of their own, the rest is not waited for.
constexpr BUN judged_rows = 1 << 15;

//! A range's keys, by code: the first row and the rows of each; then its group's number and id.
struct range_keys {
    gdk_vector<BUN> first_rows;
    row_counts counts{0};
    gdk_vector<std::uint32_t> groups;
    gdk_vector<oid> ids;
};

//! Writes the ids of a block in place of its codes.
void write_block(oid *cells, BUN n, const range_keys &found) noexcept {
    const oid *ids = found.ids.data();
    for (std::size_t i = 0; i < n; ++i)
        cells[i] = ids[cells[i]];
}

//! Puts the codes of a range's rows into their cells and counts them. Calls `on_new()` when there
//! are new codes, and `on_block(cells, n)` for each block. Says so, and ends early, when this or
//! another range has too many keys. False at a row without a key.
template <class Key, class OnNew, class OnBlock>
bool number_rows(const grouping_rows &rows, const key_loader<Key> &load, vask_row_range range,
                 range_keys &found, shared_mark &too_many, OnNew on_new, OnBlock on_block) {
    constexpr std::uint32_t first_codes = 256;
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
                    found.first_rows.push_back(row + i);
                    ++next;
                }
            on_new();
            const bool many = forced_way() != grouping_way::table &&
                              (table.size() > most_keys ||
                               (row - range.begin < judged_rows && table.size() > judged_rows / 2));
            if (many)
                too_many.set();
            if (table.size() > found.counts.numbers())
                found.counts = row_counts(std::size_t{2} * table.size(), found.counts);
        }
        found.counts.add(codes, n, [](std::uint32_t, std::size_t) {});
        on_block(codes, n);
        return !too_many.is_set();
    }));
    return loaded;
}

//! Groups of all ranges, which are brought together in the order of ranges and rows.
class merged_groups {
public:
    merged_groups(const grouping_rows &rows, const group_resolver &resolve)
        : rows_(rows), resolve_(resolve) {}

    //! Finds the groups of a range's codes that have none yet.
    void find(range_keys &range) {
        for (std::size_t code = range.groups.size(); code < range.first_rows.size(); ++code) {
            const BUN row = range.first_rows[code];
            const auto next = static_cast<std::uint32_t>(groups_.size());
            const std::uint32_t group = resolve_(row, next);
            if (group == next)
                groups_.push_back({rows_.heads[row], 0});
            range.groups.push_back(group);
            range.ids.push_back(groups_[group].id);
        }
    }

    //! Adds what a range has counted.
    void count(const range_keys &range) noexcept {
        for (std::size_t code = 0; code < range.groups.size(); ++code)
            groups_[range.groups[code]].count += static_cast<BUN>(range.counts[code]);
    }

    const gdk_vector<new_group> &all() const noexcept { return groups_; }

private:
    const grouping_rows &rows_;
    const group_resolver &resolve_;
    gdk_vector<new_group> groups_;
};

} // namespace

template <class Key>
grouping_outcome group_by_table(const grouping_rows &rows, const key_loader<Key> &load,
                                const group_resolver &resolve, const group_sink &sink) {
    const std::size_t n = rows.ranges.size();
    gdk_vector<range_keys> found(n);
    merged_groups groups(rows, resolve);
    shared_mark keyless;
    shared_mark too_many;
    rows.run_ranges([&](std::size_t i, vask_row_range range) {
        range_keys &own = found[i];
        // The groups of a single range are known as they are found.
        const bool loaded =
            n == 1 ? number_rows(
                         rows, load, range, own, too_many, [&] { groups.find(own); },
                         [&own](oid *cells, BUN size) { write_block(cells, size, own); })
                   : number_rows(
                         rows, load, range, own, too_many, [] {}, [](oid *, BUN) {});
        if (!loaded)
            keyless.set();
    });
    if (keyless.is_set())
        return grouping_outcome::row_without_key;
    if (too_many.is_set())
        return grouping_outcome::too_many_keys;
    if (n > 1) {
        for (range_keys &range : found)
            groups.find(range);
        rows.run_ranges([&](std::size_t i, vask_row_range range) {
            for_each_block(
                range, [&](BUN row, BUN size) { write_block(rows.cells + row, size, found[i]); });
        });
    }
    for (const range_keys &range : found)
        groups.count(range);
    return take_groups(rows, groups.all(), sink);
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
