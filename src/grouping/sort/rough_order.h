// Bringing the copy that the sort road sorts into rough order of value while it is filled.
//
// The parallel sort of rows that lie at random is bound by mispredicted branches, and each of its
// first levels costs as much as one pass over all rows that puts them into 2048 buckets by the
// leading bits of their values. 1e7 random 64-bit rows on two cores: 0.45 s by the sort alone, 0.04
// s for the buckets and 0.23 s for the sort after them. Needs no memory besides the counters, as
// the rows are read from the input and written to its copy.
#pragma once

#include "kernel/column.h"
#include "rows/gdk_vector.h"
#include "rows/isa.h"
#include "rows/key_hash.h"
#include "rows/range_tasks.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <limits>
#include <utility>

namespace vask {

//! A number as an unsigned one of its width that is ordered as T orders, -0.0 right before 0.0. A
//! NaN has no place in that order.
template <number T>
VASK_ALWAYS_INLINE auto ordered_bits(T value) noexcept {
    using bits_type = decltype(key_bits(value));
    constexpr auto sign = static_cast<bits_type>(bits_type{1} << (8 * sizeof(T) - 1));
    const bits_type bits = key_bits(value);
    if constexpr (std::floating_point<T>)
        return static_cast<bits_type>((bits & sign) != 0 ? ~bits : bits ^ sign);
    else
        return static_cast<bits_type>(bits ^ sign);
}

//! What is known of a column's values after one pass: their bounds as ordered bits, and whether one
//! of them is a NaN.
template <number T>
struct value_span {
    using bits_type = decltype(ordered_bits(T()));

    bits_type low = std::numeric_limits<bits_type>::max();
    bits_type high = 0;
    bool has_nan = false;

    void merge(const value_span &other) noexcept {
        low = std::min(low, other.low);
        high = std::max(high, other.high);
        has_nan |= other.has_nan;
    }
};

template <number T>
VASK_ALWAYS_INLINE value_span<T> span_of_rows(const T *values, std::size_t n) noexcept {
    value_span<T> span;
    for (std::size_t i = 0; i < n; ++i) {
        const auto bits = ordered_bits(values[i]);
        span.low = std::min(span.low, bits);
        span.high = std::max(span.high, bits);
        if constexpr (std::floating_point<T>)
            span.has_nan |= std::isnan(values[i]);
    }
    return span;
}

//! The span of b's tail, read in the given ranges of its rows.
template <number T>
value_span<T> span_of_column(const BAT &b, const gdk_vector<vask_row_range> &ranges) {
    gdk_vector<value_span<T>> spans(ranges.size());
    run_ranges(ranges, [values = rows_of<const T>(*b.tail), &spans](std::size_t i, auto range) {
        spans[i] = with_best_instruction_set([=]() __attribute__((always_inline)) {
            return span_of_rows(values + range.low, range.size());
        });
    });
    value_span<T> span;
    for (const value_span<T> &part : spans)
        span.merge(part);
    return span;
}

//! Buckets of equal width over a span of values.
template <number T>
struct leading_bits {
    // More buckets save levels of the sort, but their write streams fall out of the cache: 2^11 and
    // 2^14 were equally fast, 2^8 was slower by 0.04 s.
    static constexpr int most_bits = 11;

    typename value_span<T>::bits_type low;
    int shift;
    std::size_t count;

    explicit leading_bits(const value_span<T> &span) noexcept
        : low(span.low),
          shift(std::max(static_cast<int>(std::bit_width(width(span))) - most_bits, 0)),
          count(std::size_t{width(span) >> shift} + 1) {}

    VASK_ALWAYS_INLINE std::size_t operator()(T value) const noexcept {
        return static_cast<std::uint64_t>(ordered_bits(value) - low) >> shift;
    }

private:
    static std::uint64_t width(const value_span<T> &span) noexcept { return span.high - span.low; }
};

//! Rows below which the sort alone is as fast.
inline constexpr BUN smallest_rough_order = 1 << 16;

//! Writes the rows of `b`, oid and value, into the rows of `copy`, a BAT of as many rows with a
//! stored oid head and the same tail type: first all rows of the lowest bucket of values in their
//! order in b, then those of the next. `ranges` cut the rows of b; no value is a NaN. Throws like
//! gdk_vector.
template <number T>
void fill_in_rough_order(const BAT &b, BAT &copy, const gdk_vector<vask_row_range> &ranges,
                         const value_span<T> &span) {
    const leading_bits<T> bucket(span);
    // One row of counters per range; after the prefix sum, the place of the range's next row.
    gdk_vector<BUN> next(ranges.size() * bucket.count);
    const T *values = rows_of<const T>(*b.tail);
    run_ranges(ranges, [=, counts = next.data()](std::size_t i, auto range) {
        BUN *count = counts + i * bucket.count;
        for (BUN row = range.low; row <= range.high; ++row)
            ++count[bucket(values[row])];
    });

    BUN place = copy.info->first;
    for (std::size_t k = 0; k < bucket.count; ++k)
        for (std::size_t i = 0; i < ranges.size(); ++i)
            place += std::exchange(next[i * bucket.count + k], place);

    run_ranges(ranges, [=, heads = oid_reader(*b.head, b), places = next.data(),
                        copy_heads = rows_of<oid>(*copy.head),
                        copy_values = rows_of<T>(*copy.tail)](std::size_t i, auto range) {
        BUN *next_place = places + i * bucket.count;
        for (BUN row = range.low; row <= range.high; ++row) {
            const T value = values[row];
            const BUN to = next_place[bucket(value)]++;
            copy_heads[to] = heads[row];
            copy_values[to] = value;
        }
    });
}

} // namespace vask
