#include "refkernel/algebra/value_groups.h"

#include "refkernel/algebra/column_values.h"

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <vector>

namespace refkernel::algebra {
namespace {

//! A grouping that is about to be made.
struct value_grouping {
    const BAT &b;
    oid_reader heads;
    oid *map;
    const extents_maker &make_extents;

    BUN first() const noexcept { return b.info->first; }
    BUN count() const noexcept { return b.info->count; }
};

void group_as_one(const value_grouping &g) {
    const oid id = g.heads[g.first()];
    std::fill_n(g.map, g.count(), id);
    if (const extents_rows out = g.make_extents(1); out.ids != nullptr) {
        out.ids[0] = id;
        out.counts[0] = g.count();
    }
}

// Equal values of an ascending column lie next to each other. Not so of floating-point numbers,
// which are equal by their bits here: 0.0 and -0.0 can take turns.
bool has_runs(const BATcol &column) {
    const int storage = BATatoms[column.type].atom_storage;
    return (column.sorted & ascending_bit) != 0 && storage != TYPE_flt && storage != TYPE_dbl;
}

//! Groups a column whose equal values lie next to each other. `same(a, b)` settles whether rows of
//! two keys have the same value all the same.
template <class Keys, class Same>
void group_by_runs(const value_grouping &g, const Keys &keys, Same same) {
    const BUN first = g.first();
    const BUN end = first + g.count();
    std::vector<BUN> starts;
    std::size_t groups = 0;
    BUN start = first;
    for (BUN block = first; block < end; block += std::min(block_rows, end - block)) {
        // One place beyond the starts known so far is always written, and kept only when a run
        // begins: short runs of varying length would otherwise mislead the branch prediction.
        if (starts.size() < groups + block_rows + 1)
            starts.resize((groups + block_rows) * 2);
        const BUN block_end = block + std::min(block_rows, end - block);
        for (BUN row = block; row < block_end; ++row) {
            bool begins = row == first || keys.key(row, 0) != keys.key(row - 1, 0);
            if constexpr (!std::is_same_v<Same, std::nullptr_t>)
                begins = begins && (row == first || !same(row - 1, row));
            start = begins ? row : start;
            starts[groups] = start;
            groups += begins;
            g.map[row - first] = start;
        }
        for (BUN row = block; row < block_end; ++row)
            g.map[row - first] = g.heads[g.map[row - first]];
    }
    const auto count = static_cast<BUN>(groups);
    const extents_rows out = g.make_extents(count);
    if (out.ids == nullptr)
        return;
    for (BUN group = 0; group < count; ++group) {
        out.ids[group] = g.heads[starts[group]];
        out.counts[group] = wrd{group + 1 < count ? starts[group + 1] : end} - starts[group];
    }
}

template <class T>
void group_numbers(const value_grouping &g, const vask::number_keys<T> &column) {
    using key_type = vask::value_bits<T>;
    const serial_rows rows(g.first(), g.count());
    vask::grouping_keys<key_type, vask::bit_keys<key_type>> keys;
    if constexpr (std::integral<T>) {
        if (has_runs(*g.b.tail)) {
            group_by_runs(g, column, nullptr);
            return;
        }
        if (const auto span = span_of_values<T>(g.b, g.count()))
            keys.index = vask::index_of_keys(column, *span, rows.get());
    }
    keys.load = keys.load_for_buckets = vask::load_keys<key_type>(column);
    rows.group(keys, g.heads, g.map, g.make_extents);
}

template <class Offset>
void group_texts(const value_grouping &g, const vask::offset_keys<Offset> &texts) {
    const bool each_once = holds_each_text_once(*g.b.tail);
    if (has_runs(*g.b.tail)) {
        if (each_once)
            group_by_runs(g, texts, nullptr);
        else
            group_by_runs(g, texts, [&texts](BUN a, BUN b) {
                return std::strcmp(texts.value(a), texts.value(b)) == 0;
            });
        return;
    }
    const serial_rows rows(g.first(), g.count());
    const auto span = vask::span_of_offsets(texts, rows.get());
    const auto load = vask::load_keys<std::uint32_t>(texts);
    if (each_once) {
        vask::grouping_keys<std::uint32_t, vask::bit_keys<std::uint32_t>> keys;
        keys.index = vask::index_of_keys(texts, span, rows.get());
        keys.load = keys.load_for_buckets = load;
        rows.group(keys, g.heads, g.map, g.make_extents);
        return;
    }
    vask::grouping_keys<std::uint32_t, vask::text_content_keys<std::uint64_t>> keys(
        {vask::text_reader(*g.b.tail)});
    keys.index = vask::index_of_keys(texts, span, rows.get());
    keys.one_index_per_value = false;
    keys.load = load;
    keys.load_for_buckets = vask::load_texts(texts, vask::hash_of_span(texts, span));
    keys.resolve = vask::resolve_by_keys(keys.kind, keys.load_for_buckets);
    rows.group(keys, g.heads, g.map, g.make_extents);
}

} // namespace

void group_unique_rows(const BAT &b, oid_reader heads, oid *map,
                       const extents_maker &make_extents) {
    const BUN rows = b.info->count;
    for (BUN row = 0; row < rows; ++row)
        map[row] = heads[b.info->first + row];
    if (const extents_rows out = make_extents(rows); out.ids != nullptr) {
        std::copy_n(map, rows, out.ids);
        std::fill_n(out.counts, rows, wrd{1});
    }
}

bool group_values(const BAT &b, oid_reader heads, oid *map, const extents_maker &make_extents) {
    const BATcol &tail = *b.tail;
    const value_grouping g{b, heads, map, make_extents};
    if (b.info->count == 0)
        make_extents(0);
    else if (is_void(tail) && tail.seqbase == oid_nil)
        group_as_one(g);
    else if (is_void(tail) || tail.key != 0)
        group_unique_rows(b, heads, map, make_extents);
    else if (tail.varsized)
        vask::visit_offset_keys(tail, [&g](const auto &texts) { group_texts(g, texts); });
    else
        visit_numbers(tail, [&g](const auto &column) { group_numbers(g, column); });
    return b.info->count == 0 || is_void(tail) || tail.key != 0 || has_runs(tail);
}

} // namespace refkernel::algebra
