#include "grouping/hash/hash_group.h"

#include "grouping/extents_appender.h"
#include "grouping/hash/row_numbering.h"
#include "grouping/hash/window_grouping.h"
#include "grouping/table/custom_mask.h"
#include "grouping/table/group_table.h"
#include "kernel/frame.h"
#include "rows/column_keys.h"
#include "rows/range_tasks.h"
#include "rows/row_ranges.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <utility>

namespace vask {

namespace {

// The table of a range has at least this many buckets, less one.
constexpr std::uint32_t smallest_local_mask = 15;

//! The rows of a range: its bounds with b's first position added once more, as the road is laid
//! out. Columns that begin above position 0 are kept off this road for that (vask_group_select).
row_range rows_of_range(const BAT &b, vask_row_range range) noexcept {
    return {b.info->first + range.low, b.info->first + range.high + 1};
}

//! Where the group ids of a range's rows go.
oid *cells_of(const BAT &grp, vask_row_range range) noexcept {
    return rows_of<oid>(*grp.tail) + grp.info->first + range.low;
}

//! The table of a range's groups, and in the map the number of each row's entry in it.
template <class Keys>
auto vask_group_build(const Keys &keys, std::uint32_t mask, const BAT &b, const BAT &grp,
                      vask_row_range range) {
    vask_group_table<typename Keys::value_type> table(mask);
    numbering_by_memo<Keys>{keys}.build(table, oid_reader(*b.head, b), rows_of_range(b, range),
                                        cells_of(grp, range));
    return table;
}

//! Merges a range's table into that of all rows. Its entries take on the ids of their groups.
template <class T>
void merge(vask_group_table<T> &global, vask_group_table<T> &local) {
    constexpr std::size_t batch = 16; // of buckets that are fetched together
    gdk_vector<vask_group_entry<T>> &entries = local.entries();
    for (std::size_t begin = 0; begin < entries.size(); begin += batch) {
        const std::size_t end = std::min(begin + batch, entries.size());
        for (std::size_t i = begin; i < end; ++i)
            global.prefetch(entries[i].hashed);
        for (std::size_t i = begin; i < end; ++i) {
            vask_group_entry<T> &entry = entries[i];
            if (vask_group_entry<T> *known = global.probe(entry.value, entry.hashed)) {
                known->count += entry.count;
                entry.first_oid = known->first_oid;
            } else {
                global.insert(entry);
            }
        }
    }
}

//! Writes the group ids of a range in place of the numbers.
template <class T>
void vask_group_write(const BAT &grp, vask_row_range range, const vask_group_table<T> &table) {
    gdk_vector<oid> ids(table.entries().size());
    for (std::size_t i = 0; i < ids.size(); ++i)
        ids[i] = table.entries()[i].first_oid;
    const oid *id = ids.data();
    oid *cells = cells_of(grp, range);
    for (std::size_t i = 0; i < range.size(); ++i)
        cells[i] = id[cells[i]];
}

//! Writes the heads of the map where they are stored.
void write_heads(const BAT &b, const BAT &grp, const gdk_vector<vask_row_range> &ranges) {
    if (grp.head->type == TYPE_void)
        return;
    run_ranges(ranges, [&](std::size_t, vask_row_range range) {
        const row_range rows = rows_of_range(b, range);
        std::memcpy(rows_of<oid>(*grp.head) + grp.info->first + range.low,
                    rows_of<const oid>(*b.head) + rows.begin, rows.size() * sizeof(oid));
    });
}

//! Bucket mask of a range's table: about its share of the buckets of all.
std::uint32_t local_mask(std::uint32_t global_mask, std::uint32_t nranges) noexcept {
    return std::max(covering_mask(global_mask / nranges), smallest_local_mask);
}

//! The end of the road: the groups go to the extents.
template <class Table>
int finish(BAT *ext, const BAT &b, const Table &groups) {
    if (!append_groups(*ext, groups))
        return 0;
    ext->head->sorted = sorted_mark(*b.head);
    ext->tail->sorted = 0;
    return 1;
}

//! Keys of any kind. Ranges are merged in ascending order, so a value's first row in the whole
//! column decides its group's id and place in the extents, whatever the number of ranges.
template <class Keys>
int group_by_memo(BAT *ext, BAT *grp, BAT *b, std::uint32_t nranges, std::uint32_t global_mask) {
    using table = vask_group_table<typename Keys::value_type>;
    const Keys keys(*b->tail);
    table global(global_mask);
    const gdk_vector<vask_row_range> ranges = vask_row_ranges(*b, nranges);
    gdk_vector<table> locals(ranges.size());
    run_ranges(ranges, [=, &locals, mask = local_mask(global_mask, nranges)](std::size_t i,
                                                                             vask_row_range range) {
        locals[i] = vask_group_build(keys, mask, *b, *grp, range);
    });
    for (table &local : locals)
        merge(global, local);
    run_ranges(ranges, [=, &locals](std::size_t i, vask_row_range range) {
        vask_group_write(*grp, range, locals[i]);
    });
    write_heads(*b, *grp, ranges);
    return finish(ext, *b, global);
}

//! Keys that lie between `least` and `most`, one other aside; by a memo all the same where a range
//! of rows has fewer rows than the window has places.
template <class Keys, class Key = typename Keys::key_type>
int group_by_window(BAT *ext, BAT *grp, BAT *b, std::uint32_t nranges, std::uint32_t mask,
                    Key least, Key most) {
    const auto span = static_cast<Key>(most - least);
    if (span >= b->info->count / nranges)
        return group_by_memo<Keys>(ext, grp, b, nranges, mask);
    vask_group_table<typename Keys::value_type> groups(mask);
    window_grouping<Keys>(*b, *grp, {least, static_cast<std::uint32_t>(span)}, groups)
        .run(nranges, local_mask(mask, nranges));
    write_heads(*b, *grp, vask_row_ranges(*b, nranges));
    return finish(ext, *b, groups);
}

template <class T>
int group_integers(BAT *ext, BAT *grp, BAT *b, std::uint32_t nranges) {
    value_range<T> values;
    const std::uint32_t mask = get_custom_mask<T>(b, &values);
    // What the kernel tells of an ascending tail is good for a mask, which no result depends on.
    if (is_ascending(*b->tail))
        values = scan_values<T>(*b);
    return group_by_window<number_keys<T>>(ext, grp, b, nranges, mask, key_bits(values.least),
                                           key_bits(values.max));
}

template <class Offset>
int group_narrow_texts(BAT *ext, BAT *grp, BAT *b, std::uint32_t nranges, std::uint32_t mask) {
    return group_by_window<offset_keys<Offset>>(ext, grp, b, nranges, mask, Offset{0},
                                                std::numeric_limits<Offset>::max());
}

//! The least and the greatest of the offsets of a range's rows.
std::pair<std::uint32_t, std::uint32_t> scan_offsets(const std::uint32_t *offsets, std::size_t n) {
    return with_best_instruction_set([=]() __attribute__((always_inline)) {
        std::uint32_t least = offsets[0];
        std::uint32_t most = offsets[0];
        for (std::size_t i = 1; i < n; ++i) {
            least = std::min(least, offsets[i]);
            most = std::max(most, offsets[i]);
        }
        return std::pair(least, most);
    });
}

//! Texts that are stored once lie close together: 1e7 rows of 1e5 texts take 25 to 28 ms by a
//! window of their places in the heap, 33 to 38 by a memo.
int group_wide_texts(BAT *ext, BAT *grp, BAT *b, std::uint32_t nranges, std::uint32_t mask) {
    const auto *offsets = rows_of<const std::uint32_t>(*b->tail);
    gdk_vector<std::pair<std::uint32_t, std::uint32_t>> bounds(nranges);
    run_ranges(vask_row_ranges(*b, nranges), [=, &bounds](std::size_t i, vask_row_range range) {
        bounds[i] = scan_offsets(offsets + rows_of_range(*b, range).begin, range.size());
    });
    auto [least, most] = bounds[0];
    for (const auto &[low, high] : bounds) {
        least = std::min(least, low);
        most = std::max(most, high);
    }
    return group_by_window<offset_keys<std::uint32_t>>(ext, grp, b, nranges, mask, least, most);
}

int group_texts(BAT *ext, BAT *grp, BAT *b, std::uint32_t nranges, std::uint32_t mask) {
    switch (b->tail->width) {
        case 1:
            return group_narrow_texts<std::uint8_t>(ext, grp, b, nranges, mask);
        case 2:
            return group_narrow_texts<std::uint16_t>(ext, grp, b, nranges, mask);
        default:
            return group_wide_texts(ext, grp, b, nranges, mask);
    }
}

} // namespace

template <class T>
int vask_hash_group(BAT *ext, BAT *grp, BAT *b) {
    // Asked once: the kernel's setting may change during the call.
    const std::uint32_t nranges = vask_range_count(*b);
    if (nranges == 0)
        return 0;
    if constexpr (std::integral<T>) {
        return group_integers<T>(ext, grp, b, nranges);
    } else {
        const std::uint32_t mask = covering_mask(b->info->count);
        if constexpr (std::same_as<T, str>)
            return group_texts(ext, grp, b, nranges, mask);
        else
            return group_by_memo<number_keys<T>>(ext, grp, b, nranges, mask);
    }
}

template int vask_hash_group<bte>(BAT *, BAT *, BAT *);
template int vask_hash_group<sht>(BAT *, BAT *, BAT *);
template int vask_hash_group<std::int32_t>(BAT *, BAT *, BAT *);
template int vask_hash_group<lng>(BAT *, BAT *, BAT *);
template int vask_hash_group<flt>(BAT *, BAT *, BAT *);
template int vask_hash_group<dbl>(BAT *, BAT *, BAT *);
template int vask_hash_group<str>(BAT *, BAT *, BAT *);

} // namespace vask
