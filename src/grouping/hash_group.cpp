#include "grouping/hash_group.h"

#include "grouping/column_keys.h"
#include "grouping/custom_mask.h"
#include "grouping/extents_appender.h"
#include "grouping/group_table.h"
#include "grouping/range_tasks.h"
#include "grouping/row_numbering.h"
#include "kernel/frame.h"
#include "kernel/row_ranges.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

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

//! The table of a range's groups; `entries` becomes the entry of each number of its rows.
template <class Numbering>
auto vask_group_build(const Numbering &numbering, std::uint32_t mask, const BAT &b, const BAT &grp,
                      vask_row_range range, gdk_vector<std::uint32_t> &entries) {
    vask_group_table<typename Numbering::value_type> table(mask);
    entries = numbering.build(table, oid_reader(*b.head, b), rows_of_range(b, range),
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

//! The group id of each number of a range's rows. `numbers` are the entries of the numbers; empty:
//! the numbers are those of the entries.
template <class T>
gdk_vector<oid> ids_of(const vask_group_table<T> &table, const gdk_vector<std::uint32_t> &numbers) {
    const gdk_vector<vask_group_entry<T>> &entries = table.entries();
    gdk_vector<oid> ids(numbers.empty() ? entries.size() : numbers.size());
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const std::size_t entry = numbers.empty() ? i : numbers[i];
        if (entry != unknown_number)
            ids[i] = entries[entry].first_oid;
    }
    return ids;
}

//! Writes the map of a range: its rows' group ids, and their heads if those are stored.
template <class Numbering, class T>
void vask_group_write(const Numbering &numbering, const BAT &b, const BAT &grp,
                      vask_row_range range, const vask_group_table<T> &table,
                      const gdk_vector<std::uint32_t> &entries) {
    const row_range rows = rows_of_range(b, range);
    numbering.write(ids_of(table, entries), rows, cells_of(grp, range));
    if (grp.head->type != TYPE_void)
        std::memcpy(rows_of<oid>(*grp.head) + grp.info->first + range.low,
                    rows_of<const oid>(*b.head) + rows.begin, rows.size() * sizeof(oid));
}

//! The road, from the mask on. Ranges are merged in ascending order, so a value's first row in the
//! whole column decides its group's id and place in the extents, whatever the number of ranges.
template <class Numbering>
int group_rows(BAT *ext, BAT *grp, BAT *b, std::uint32_t nranges, std::uint32_t global_mask,
               const Numbering &numbering) {
    using table = vask_group_table<typename Numbering::value_type>;
    table global(global_mask);
    const gdk_vector<vask_row_range> ranges = vask_row_ranges(*b, nranges);
    const auto count = static_cast<std::uint32_t>(ranges.size());
    const std::uint32_t local_mask =
        std::max(covering_mask(global_mask / count), smallest_local_mask);
    gdk_vector<table> locals(count);
    gdk_vector<gdk_vector<std::uint32_t>> entries(count);

    run_ranges(ranges, [=, &locals, &entries](std::size_t i, vask_row_range range) {
        locals[i] = vask_group_build(numbering, local_mask, *b, *grp, range, entries[i]);
    });
    for (table &local : locals)
        merge(global, local);
    run_ranges(ranges, [=, &locals, &entries](std::size_t i, vask_row_range range) {
        vask_group_write(numbering, *b, *grp, range, locals[i], entries[i]);
    });

    if (!append_groups(*ext, global))
        return 0;
    ext->head->sorted = sorted_mark(*b->head);
    ext->tail->sorted = 0;
    return 1;
}

//! Keys of any kind.
template <class Keys>
int group_by_memo(BAT *ext, BAT *grp, BAT *b, std::uint32_t nranges, std::uint32_t mask) {
    return group_rows(ext, grp, b, nranges, mask, numbering_by_memo<Keys>{Keys(*b->tail)});
}

//! Keys that lie between `least` and `most`, one other aside; by a memo all the same where a range
//! of rows has fewer rows than the window has places.
template <class Keys, class Key = typename Keys::key_type>
int group_by_window(BAT *ext, BAT *grp, BAT *b, std::uint32_t nranges, std::uint32_t mask,
                    Key least, Key most) {
    const auto span = static_cast<Key>(most - least);
    if (span >= b->info->count / nranges)
        return group_by_memo<Keys>(ext, grp, b, nranges, mask);
    const key_window<Key> window{least, static_cast<std::uint32_t>(span)};
    return group_rows(ext, grp, b, nranges, mask,
                      numbering_by_window<Keys>{Keys(*b->tail), window});
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

int group_texts(BAT *ext, BAT *grp, BAT *b, std::uint32_t nranges, std::uint32_t mask) {
    switch (b->tail->width) {
        case 1:
            return group_narrow_texts<std::uint8_t>(ext, grp, b, nranges, mask);
        case 2:
            return group_narrow_texts<std::uint16_t>(ext, grp, b, nranges, mask);
        default:
            return group_by_memo<offset_keys<std::uint32_t>>(ext, grp, b, nranges, mask);
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
