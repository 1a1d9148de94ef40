// Order statistics as functors: what is computed from the values of one column, or of one group,
// once they stand in an array of their own.
#pragma once

#include "kernel/cancelled.h"
#include "statistics/counted_mode.h"
#include "statistics/hashed_mode.h"
#include "statistics/numeric_runtime.h"
#include "statistics/order_key.h"
#include "statistics/selection.h"
#include "vask/kernel/bat.h"

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <functional>
#include <new>
#include <optional>
#include <span>

#include <tbb/parallel_sort.h>

namespace vask {

//! A statistic over at least one value of type R: stores its answer in `*result` and gives 1, or 0
//! when it cannot be computed. It clears `*flag`, may reorder and overwrite `values`, and answers
//! with the nil of `type` where the values have no answer. Every task calls a copy of its own.
template <class R>
using stat_functor = std::function<int(R *result, stat_flag *flag, std::span<R> values, bte type)>;

//! The value at a share of the sorted values, from 0 to 1, interpolated.
stat_functor<dbl> vask_percentile_functor(dbl p);
stat_functor<dbl> vask_median_functor();
//! The percentile at so many quarters.
stat_functor<dbl> vask_quartile_functor(bte quartile);

//! The value at a rank from the top, counting duplicates. Nil if there are fewer values.
template <class T>
stat_functor<T> vask_largest_functor(lng k) {
    return [k](T *result, stat_flag *flag, std::span<T> values, bte type) {
        return vask_select_kth(result, flag, values, type, k);
    };
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
    if (n >= smallest_parallel_sort) {
        tbb::parallel_sort(keys, keys + n);
        end_if_cancelled();
    } else {
        std::sort(keys, keys + n);
    }
    return keys;
}

//! The most frequent value; of several, the smallest. Nil when no value occurs twice. Never fails.
//! A NaN equals nothing, so NaNs are no candidates; zeros of both signs are one value, given as
//! -0.0 if there is one of those.
template <class T>
class vask_mode_functor {
public:
    vask_mode_functor() = default;
    //! A copy has a table of its own.
    vask_mode_functor(const vask_mode_functor &) noexcept {}
    vask_mode_functor &operator=(const vask_mode_functor &) = delete;
    ~vask_mode_functor() = default;

    int operator()(T *result, stat_flag *flag, std::span<T> values, bte type) {
        *flag = 0;
        *result = nil_of<T>(type);
        std::optional<frequent_value<T>> mode;
        if constexpr (std::integral<T>)
            mode = count_mode<T>(values);
        if (!mode && values.size() >= fewest_hashed)
            mode = hash_mode<T>(values, table_);
        if (!mode)
            mode = sorted_mode(values);
        if (mode->count > 1)
            *result = mode->value;
        return 1;
    }

private:
    static frequent_value<T> sorted_mode(std::span<T> values) {
        const std::size_t n = values.size();
        const order_key_t<T> *keys = sort_as_keys(values);
        frequent_value<T> mode{{}, 1}; // a run has to be longer
        for (std::size_t run = 0; run < n;) {
            // Equality is the type's own and not that of the keys.
            const T value = from_order_key<T>(keys[run]);
            std::size_t end = run + 1;
            while (end < n && from_order_key<T>(keys[end]) == value)
                ++end;
            if (end - run > mode.count)
                mode = {value, static_cast<std::uint32_t>(end - run)};
            run = end;
        }
        return mode;
    }

    std::optional<value_counts<T>> table_;
};

} // namespace vask
