#include "distinct/window_count.h"

#include "grouping/table/custom_mask.h"
#include "kernel/element_types.h"
#include "kernel/frame.h"
#include "kernel/shared_mark.h"
#include "rows/column_keys.h"
#include "rows/gdk_vector.h"
#include "rows/key_window.h"

#include <algorithm>
#include <array>
#include <bit>
#include <concepts>
#include <limits>
#include <type_traits>

namespace vask {

namespace {

constexpr std::uint64_t word_bits = 64;
// Bits of all tasks for each row: as much memory as pairs of a group and a value would take.
constexpr std::uint64_t bits_per_row = 64;
// Of one task. With twice as many the misses of the caches make it no faster than by pairs.
constexpr std::uint64_t most_bits = std::uint64_t{1} << 26;

std::uint64_t words_of_group(std::uint64_t places) noexcept {
    return (places + word_bits - 1) / word_bits;
}

//! Whether tables for values that lie `distance` apart are worth their memory.
bool is_worth_bits(std::uint64_t distance, BUN rows, BUN groups, std::uint64_t nranges) noexcept {
    const std::uint64_t limit = std::min(most_bits, rows * bits_per_row / nranges);
    return distance < limit && (words_of_group(distance + 2) * word_bits) * groups <= limit;
}

template <class T>
std::uint64_t distance(T least, T most) noexcept {
    return static_cast<std::uint64_t>(most) - static_cast<std::uint64_t>(least);
}

//! The window of b's values, nil beside it, if a bit for each group and value of it is worth its
//! memory in each of `nranges` tasks. b has rows.
template <std::signed_integral T>
std::optional<key_window<std::make_unsigned_t<T>>> window_for_bits(const BAT &b, BUN groups,
                                                                   std::uint64_t nranges) {
    const T nil = nil_of<T>(b.tail->type);
    const BUN rows = b.info->count;
    // A few rows tell most columns of values that lie far apart without a look at the others.
    constexpr BUN first_rows = 1024;
    const T *values = rows_of<const T>(*b.tail) + b.info->first;
    T least = std::numeric_limits<T>::max();
    T most = nil;
    for (BUN i = 0; i < std::min(rows, first_rows); ++i) {
        most = std::max(most, values[i]);
        if (values[i] != nil)
            least = std::min(least, values[i]);
    }
    if (least <= most && !is_worth_bits(distance(least, most), rows, groups, nranges))
        return std::nullopt;
    const value_range<T> range = scan_values<T>(b);
    const std::uint64_t span = distance(range.least, range.max);
    if (!is_worth_bits(span, rows, groups, nranges))
        return std::nullopt;
    return key_window<std::make_unsigned_t<T>>{key_bits(range.least),
                                               static_cast<std::uint32_t>(span)};
}

//! Stores the number of different values that b, a column of T with all its values in the window,
//! has in each group. False when rows or groups cannot be found.
template <std::signed_integral T>
bool count_in_window(const grouped_rows &inputs, const slot_table *table, std::uint64_t nranges,
                     key_window<std::make_unsigned_t<T>> window, wrd *counts) {
    const BUN groups = inputs.extents->info->count;
    const std::uint64_t stride = words_of_group(window.places());
    const number_keys<T> keys(*inputs.b->tail);
    const partition_plan plan(*inputs.b, nranges);
    gdk_vector<gdk_block<std::uint64_t>> tables(nranges);
    for (gdk_block<std::uint64_t> &t : tables)
        t.reset(gdk_allocate_zeroed<std::uint64_t>(groups * stride));
    shared_mark failed;
    run_partitions(plan, [=, &inputs, &tables, &failed](std::uint64_t part, vask_row_range range) {
        std::uint64_t *words = tables[part].get();
        std::array<std::uint32_t, block_rows> indices;
        const auto mark = [=, &indices](BUN row, BUN n, const BUN *numbers) {
            window.number(keys, row, n, indices.data());
            for (BUN i = 0; i < n; ++i)
                if (numbers[i] != no_group)
                    words[numbers[i] * stride + indices[i] / word_bits] |=
                        std::uint64_t{1} << indices[i] % word_bits;
        };
        if (!for_each_numbered_block(inputs, table, range, mark))
            failed.set();
    });
    if (failed.is_set())
        return false;
    run_row_loop(groups, [=, &tables](vask_row_range r) {
        for (BUN j = r.begin; j < r.end; ++j) {
            wrd count = 0;
            for (std::uint64_t at = j * stride; at < (j + 1) * stride; ++at) {
                std::uint64_t word = 0;
                for (const gdk_block<std::uint64_t> &t : tables)
                    word |= t[at];
                count += std::popcount(word);
            }
            counts[j] = count;
        }
    });
    return true;
}

} // namespace

std::optional<bool> count_by_window(const grouped_rows &inputs, const slot_table *table,
                                    std::uint64_t nranges, wrd *counts) {
    const BAT &b = *inputs.b;
    std::optional<bool> counted;
    visit_storage_class(storage_of(*b.tail), false, [&]<class T>(std::type_identity<T>) {
        if constexpr (std::signed_integral<T>)
            if (const auto window = window_for_bits<T>(b, inputs.extents->info->count, nranges))
                counted = count_in_window<T>(inputs, table, nranges, *window, counts);
        return true;
    });
    return counted;
}

} // namespace vask
