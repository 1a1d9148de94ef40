#include "grouping/pairs/pairs_derive.h"

#include "grouping/derive/derive_rows.h"
#include "grouping/extents_appender.h"
#include "grouping/pairs/derive_mask.h"
#include "grouping/pairs/pair_table.h"
#include "rows/key_memo.h"
#include "rows/range_tasks.h"
#include "rows/row_blocks.h"
#include "rows/value_column.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstddef>
#include <utility>

namespace vask {

namespace {

template <class T>
VASK_ALWAYS_INLINE bool is_nan(const T &value) noexcept {
    if constexpr (std::floating_point<T>)
        return std::isnan(value);
    else
        return false;
}

//! Fills a table with the pairs of a range's rows. Each row's cell of the new map receives the
//! number of the row's entry, so that writing the map need not look for it a second time.
template <class T>
class pairs_builder {
public:
    pairs_builder(const BAT &b, std::uint32_t mask, std::size_t capacity)
        : heads_(*b.head, b), values_(*b.tail), table_(mask, capacity) {}

    //! Adds the rows of a block, row .. row + n - 1, with their old groups.
    void add(BUN row, BUN n, const oid *parents, oid *numbers) {
        bool done = false;
        if constexpr (fits_a_word) {
            done = recalls_;
            if (recalls_)
                add_by_memo(row, n, parents, numbers);
        }
        if (!done)
            add_by_table(row, n, parents, numbers);
        for (BUN i = 0; i < n; ++i)
            ++table_.entries()[numbers[i]].count;
    }

    vask_pair_table<T> take() { return std::move(table_); }

private:
    using stored_type = typename value_column<T>::stored_type;
    // An old group and what is stored of a value then make one key, by which a memo knows the rows'
    // entries without a chain to walk and a text to hash.
    static constexpr bool fits_a_word = sizeof(stored_type) <= sizeof(std::uint32_t);
    // Keeps the memo in the second-level cache.
    static constexpr std::size_t most_remembered = std::size_t{1} << 14;

    struct word_keys {
        const std::uint64_t *words;
        VASK_ALWAYS_INLINE std::uint64_t key(BUN row, std::size_t i) const noexcept {
            return words[row + i];
        }
    };

    //! The number of the entry of a pair, which is made if there is none.
    std::uint32_t number_of(BUN row, oid parent, const T &value) {
        const vask_pair_entry<T> entry{parent, value, heads_[row], 0, NO_BUN};
        // A NaN is equal to nothing, so there is nothing to look for, and in a chain it would only
        // be in the way of all the others.
        if (is_nan(value))
            return table_.append(entry);
        const vask_pair_entry<T> *known = table_.probe(entry.key());
        return known != nullptr ? table_.number_of(known) : table_.insert(entry);
    }

    void add_by_table(BUN row, BUN n, const oid *parents, oid *numbers) {
        for (BUN i = 0; i < n; ++i)
            numbers[i] = number_of(row + i, parents[i], values_.value(values_.stored(row + i)));
    }

    void add_by_memo(BUN row, BUN n, const oid *parents, oid *numbers) {
        std::array<std::uint64_t, block_rows> words;
        for (BUN i = 0; i < n; ++i)
            words[i] = std::uint64_t{parents[i]} << 32 | key_bits(values_.stored(row + i));
        if (memo_.recall(word_keys{words.data()}, 0, n, numbers))
            return;
        BUN asked = 0;
        for (BUN i = 0; i < n; ++i) {
            if (numbers[i] != unknown_number)
                continue;
            numbers[i] = memo_.recall(words[i]); // a row before it may have been of the pair
            if (numbers[i] != unknown_number)
                continue;
            const T value = values_.value(values_.stored(row + i));
            numbers[i] = number_of(row + i, parents[i], value);
            if (!is_nan(value) && memo_.size() < most_remembered)
                memo_.remember(words[i], numbers[i]);
            ++asked;
        }
        recalls_ = memo_.size() < most_remembered || asked < n / 2;
    }

    oid_reader heads_;
    value_column<T> values_;
    vask_pair_table<T> table_;
    key_memo<std::uint64_t> memo_;
    bool recalls_ = true;
};

//! The table of a range's rows. Sets `failed` and ends early when a row has no place in the map.
template <class T>
vask_pair_table<T> vask_pairs_build(const BAT &b, BAT &map, vask_row_range range, bool synced,
                                    std::uint32_t mask, std::size_t capacity, oid *cells,
                                    bte &failed) {
    pairs_builder<T> builder(b, mask, capacity);
    const map_rows places(b, map, synced);
    const bool complete = all_blocks(range, [&](BUN row, BUN n) {
        std::array<oid, block_rows> room{};
        const oid *parents = find_parents(places, row, n, room.data());
        if (parents != nullptr)
            builder.add(row, n, parents, cells + row);
        return parents != nullptr;
    });
    if (!complete)
        std::atomic_ref(failed).store(1, std::memory_order_relaxed);
    return builder.take();
}

//! Merges a range's table into that of all rows. Its entries take on the ids of their groups.
template <class T>
void merge(vask_pair_table<T> &global, vask_pair_table<T> &local) {
    for (vask_pair_entry<T> &entry : local.entries()) {
        if (is_nan(entry.value)) {
            global.append(entry);
        } else if (vask_pair_entry<T> *known = global.probe(entry.key())) {
            known->count += entry.count;
            entry.first_oid = known->first_oid;
        } else {
            global.insert(entry);
        }
    }
    local.release_buckets();
}

//! Turns the entry numbers of a range's rows into group ids, and copies the head.
template <class T>
void vask_pairs_write(const BAT &b, BAT &grp, vask_row_range range,
                      const vask_pair_table<T> &local) {
    gdk_vector<oid> ids;
    ids.reserve(local.entries().size());
    for (const vask_pair_entry<T> &entry : local.entries())
        ids.push_back(entry.first_oid);
    oid *cells = map_cells(grp, b);
    for (BUN row = range.low; row <= range.high; ++row)
        cells[row] = ids[cells[row]];
    copy_heads(b, grp, range);
}

} // namespace

template <class T>
int vask_pairs_derive(BAT *grp, BAT *ext, BAT *b, BAT *map, BAT *histo, bool synced) {
    const std::uint32_t threads = vask_range_count(*b);
    if (threads == 0)
        return 0;
    const gdk_vector<vask_row_range> ranges = vask_row_ranges(*b, threads);
    const std::uint32_t global_mask = vask_derive_mask(map, histo, b);
    // About one part in `threads` of the buckets each.
    const std::uint32_t local_mask =
        std::max(global_mask >> (std::bit_width(threads) - 1), std::uint32_t{1});
    const std::size_t local_capacity = histo->info->count / threads;

    gdk_vector<vask_pair_table<T>> locals(threads);
    bte failed = 0;
    run_ranges(ranges, [=, &locals, &failed](std::size_t i, vask_row_range range) {
        locals[i] = vask_pairs_build<T>(*b, *map, range, synced, local_mask, local_capacity,
                                        map_cells(*grp, *b), failed);
    });
    if (failed != 0)
        return 0;

    std::size_t total = 0;
    for (const vask_pair_table<T> &local : locals)
        total += local.entries().size();
    vask_pair_table<T> global(global_mask, total);
    for (vask_pair_table<T> &local : locals)
        merge(global, local);
    run_ranges(ranges, [=, &locals](std::size_t i, vask_row_range range) {
        vask_pairs_write<T>(*b, *grp, range, locals[i]);
    });

    if (!append_groups(*ext, global))
        return 0;
    ext->head->sorted = sorted_mark(*b->head);
    ext->tail->sorted = 0;
    return 1;
}

template int vask_pairs_derive<bte>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_pairs_derive<sht>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_pairs_derive<std::int32_t>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_pairs_derive<lng>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_pairs_derive<flt>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_pairs_derive<dbl>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);
template int vask_pairs_derive<str>(BAT *, BAT *, BAT *, BAT *, BAT *, bool);

} // namespace vask
