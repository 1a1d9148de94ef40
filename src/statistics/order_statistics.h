// Order statistics as functors: what is computed from the values of one column, or of one group,
// once they stand in an array of their own.
#pragma once

#include "statistics/counted_mode.h"
#include "statistics/hashed_mode.h"
#include "statistics/numeric_runtime.h"
#include "statistics/order_key.h"
#include "statistics/selection.h"
#include "vask/kernel/bat.h"

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <new>
#include <span>

#include <tbb/parallel_sort.h>

namespace vask {

//! A statistic over at least one value of type R: stores its answer in `*result` and gives 1, or 0
//! when it cannot be computed. It clears `*flag`, may reorder and overwrite `values`, answers with
//! the nil of `type` where the values have no answer, and reads what else it needs behind
//! `parameter`. May run in several tasks at a time, each with values of its own.
template <class R>
using stat_functor = int (*)(R *result, stat_flag *flag, std::span<R> values, bte type,
                             const void *parameter);

//! The value at the share p of the sorted values (a `dbl` behind the parameter): position p·(n −
//! 1), counted from 0, interpolated linearly between the values at the whole positions around it. 0
//! without a parameter or for a NaN.
int vask_percentile_at(dbl *result, stat_flag *flag, std::span<dbl> values, bte type,
                       const void *parameter);

inline constexpr stat_functor<dbl> vask_percentile_functor = vask_percentile_at;

//! The percentile at 0.5; no parameter.
int vask_median_functor(dbl *result, stat_flag *flag, std::span<dbl> values, bte type,
                        const void *parameter);

//! The percentile at a quarter of the `bte` behind the parameter.
int vask_quartile_functor(dbl *result, stat_flag *flag, std::span<dbl> values, bte type,
                          const void *parameter);

//! The value at the rank from the top behind the parameter, a `lng`, counting duplicates. Nil if
//! there are fewer values.
template <class T>
int vask_largest_functor(T *result, stat_flag *flag, std::span<T> values, bte type,
                         const void *parameter) {
    return vask_select_kth(result, flag, values, type, static_cast<const lng *>(parameter));
}

//! From this many values on a sort is worth sharing.
inline constexpr std::size_t smallest_parallel_sort = 500;

//! Replaces the values by their order keys, sorted ascending. Keys compare as integers, which sorts
//! 1e7 doubles a quarter faster than comparing doubles does, and compare consistently, which a sort
//! needs in order to stay inside the array: a NaN that compares false with everything can lead it
//! astray.
template <class T>
order_key_t<T> *sort_as_keys(std::span<T> values) {
    using key = order_key_t<T>;
    const std::size_t n = values.size();
    auto *keys = reinterpret_cast<key *>(values.data());
    if constexpr (!std::is_same_v<key, T>)
        for (std::size_t i = 0; i < n; ++i)
            new (keys + i) key(order_key(values[i]));
    if (n >= smallest_parallel_sort)
        tbb::parallel_sort(keys, keys + n);
    else
        std::sort(keys, keys + n);
    return keys;
}

//! The most frequent value; of several, the smallest. Nil when no value occurs twice. No parameter;
//! never fails. A NaN equals nothing, so NaNs are no candidates; zeros of both signs are one value,
//! given as -0.0 if there is one of those.
template <class T>
int vask_mode_functor(T *result, stat_flag *flag, std::span<T> values, bte type, const void *) {
    *flag = 0;
    const std::size_t n = values.size();
    *result = nil_of<T>(type);
    if constexpr (std::integral<T>) {
        if (const auto mode = count_mode<T>(values)) {
            if (mode->count > 1)
                *result = mode->value;
            return 1;
        }
    }
    if (n >= fewest_hashed) {
        if (const auto mode = hash_mode<T>(values)) {
            if (mode->count > 1)
                *result = mode->value;
            return 1;
        }
    }
    const order_key_t<T> *keys = sort_as_keys(values);
    std::size_t longest = 1; // a run has to be longer
    for (std::size_t run = 0; run < n;) {
        // Equality is the type's own and not that of the keys.
        const T value = from_order_key<T>(keys[run]);
        std::size_t end = run + 1;
        while (end < n && from_order_key<T>(keys[end]) == value)
            ++end;
        if (end - run > longest) {
            longest = end - run;
            *result = value;
        }
        run = end;
    }
    return 1;
}

} // namespace vask
