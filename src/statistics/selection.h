// The k-th largest of an array without sorting it: quick-select with pivots that aim at the rank,
// down to what buckets finish.
#pragma once

#include "kernel/column.h"
#include "rows/isa.h"
#include "statistics/numeric_runtime.h"
#include "statistics/order_key.h"
#include "statistics/rank_buckets.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

namespace vask {

//! Ranges of up to this many elements are sorted.
inline constexpr std::size_t largest_sorted_range = 16;
//! Ranges of up to this many elements get an element drawn as pivot; a sample would cost more than
//! its better pivot saves.
inline constexpr std::size_t largest_range_without_sample = 1000;
//! Elements drawn to aim a pivot in larger ranges.
inline constexpr std::size_t pivot_sample_size = 100;

//! Draws for pivots of small ranges, of which every group may have some: `rand` has a lock, on
//! which tasks would wait (median of 1e7 doubles in 1e6 groups on two cores: a fifth of the time).
class pivot_draws {
public:
    std::size_t below(std::size_t n) noexcept {
        state_ ^= state_ << 13U;
        state_ ^= state_ >> 17U;
        state_ ^= state_ << 5U;
        return state_ % n;
    }

private:
    std::uint32_t state_ = 0x9e3779b9U;
};

//! An element of values[0 .. n - 1] at or near rank k from the top. `rand`, which larger ranges are
//! drawn from, is the process's own and never seeded; where it yields few distinct numbers, pivots
//! are worse and results the same.
template <class T>
order_key_t<T> choose_pivot(const T *values, std::size_t n, std::size_t k, pivot_draws &draws) {
    if (n <= largest_range_without_sample)
        return order_key(values[draws.below(n)]);
    std::array<order_key_t<T>, pivot_sample_size> sample;
    std::generate(sample.begin(), sample.end(),
                  [=] { return order_key(values[static_cast<std::size_t>(std::rand()) % n]); });
    std::sort(sample.begin(), sample.end());
    return sample[(n - k) * pivot_sample_size / n];
}

//! Puts a few values into ascending order of their keys.
template <class T>
void sort_few(T *values, std::size_t n) noexcept {
    for (std::size_t i = 1; i < n; ++i) {
        const T value = values[i];
        std::size_t to = i;
        for (; to > 0 && order_key(values[to - 1]) > order_key(value); --to)
            values[to] = values[to - 1];
        values[to] = value;
    }
}

//! Moves the elements of values[lo .. n - 1] whose key is upper behind the others; where they
//! begin. The loop has no branch on the data: with pivots near the middle every second branch would
//! be mispredicted (1e7 doubles: 11 ms, against 48 ms for the two-sided exchange).
template <class T, class IsUpper>
std::size_t partition_by(T *values, std::size_t lo, std::size_t n, IsUpper is_upper) noexcept {
    return with_best_instruction_set([=]() __attribute__((always_inline)) {
        std::size_t above = lo;
        for (std::size_t i = lo; i < n; ++i) {
            const T value = values[i];
            values[i] = values[above];
            values[above] = value;
            above += !is_upper(order_key(value));
        }
        return above;
    });
}

//! The element at a rank and the one after it, going down. They are the same where nothing lies
//! below.
template <class T>
struct ranked_pair {
    T value;
    T next_lower;
};

//! The largest value from `below` up to `end`; `otherwise` if there is none.
template <class T>
T largest_below(const T *below, const T *end, T otherwise) {
    if (below == end)
        return otherwise;
    return from_order_key<T>(with_best_instruction_set([=]() __attribute__((always_inline)) {
        order_key_t<T> largest = order_key(*below);
        for (const T *p = below; p != end; ++p)
            largest = std::max(largest, order_key(*p));
        return largest;
    }));
}

//! The k-th largest of values[0 .. n - 1], 1 <= k <= n, and the next lower one; reorders the array.
//! The expected time is linear in n; it allocates nothing. `want_next` off leaves next_lower equal
//! to the value.
template <class T>
ranked_pair<T> select_ranked(T *values, std::size_t n, std::size_t k, bool want_next) {
    if (n == 1)
        return {*values, *values};
    T *base = values;
    T *below = base; // where the part that was cut off last, all of it lower, begins
    bool all_equal = false;
    std::size_t most_to_bucket = most_in_buckets;
    pivot_draws draws;
    while (n > 1 && !all_equal) {
        if (n <= largest_sorted_range) {
            sort_few(base, n);
            const T value = base[n - k];
            if (!want_next)
                return {value, value};
            return {value, n != k ? base[n - k - 1] : largest_below(below, base, value)};
        }
        if (n >= fewest_in_buckets && n <= most_to_bucket) {
            if (const auto found = rank_by_buckets(base, n, k)) {
                const T value = from_order_key<T>(found->key);
                if (!want_next)
                    return {value, value};
                return {value, found->next_lower ? from_order_key<T>(*found->next_lower)
                                                 : largest_below(below, base, value)};
            }
            most_to_bucket = n / 8; // not again before pivots have cut much away
        }
        const order_key_t<T> pivot = choose_pivot(base, n, k, draws);
        std::size_t lo = 0;
        while (lo < n && order_key(base[lo]) == pivot)
            ++lo;
        if (lo == n) {
            all_equal = true;
            continue;
        }
        lo = partition_by(
            base, lo,
            n, [pivot](order_key_t<T> key) __attribute__((always_inline)) { return key > pivot; });
        // Nothing lies above the largest. All that are equal to it go at one stroke: where many
        // are, as in a column with a cap, it would be drawn again and again.
        const bool is_largest = lo == n;
        if (is_largest)
            lo = partition_by(
                base, 0, n, [pivot](order_key_t<T> key) __attribute__((always_inline)) {
                    return key == pivot;
                });
        const std::size_t upper = n - lo;
        if (k <= upper) {
            below = base;
            base += lo;
            n = upper;
            all_equal = is_largest;
        } else {
            k -= upper;
            n = lo;
        }
    }
    ranked_pair<T> result{base[0], base[0]};
    if (want_next && !(all_equal && n != k))
        result.next_lower = largest_below(below, base, result.value);
    return result;
}

//! The k-th largest of a group or column: select_ranked as a statistic calls it. `result` takes the
//! value and, with `want_next`, the next lower one behind it; a rank above the number of values
//! gives the nil of `type` and leaves the second alone. Gives 1, or 0 for a rank below 1.
template <class T>
int vask_select_kth(T *result, stat_flag *flag, std::span<T> values, bte type, lng k,
                    bool want_next = false) {
    if (k < 1)
        return 0;
    const auto rank = static_cast<std::size_t>(k);
    if (rank > values.size()) {
        *result = nil_of<T>(type);
        return 1;
    }
    *flag = 0;
    const ranked_pair<T> found = select_ranked(values.data(), values.size(), rank, want_next);
    result[0] = found.value;
    if (want_next)
        result[1] = found.next_lower;
    return 1;
}

} // namespace vask
