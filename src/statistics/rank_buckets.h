// The value at a rank of an array that lies in a cache, by counting how its keys are spread.
#pragma once

#include "rows/isa.h"
#include "statistics/order_key.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <type_traits>

namespace vask {

//! The keys at a rank, counted from the top, and the one after it, if there is one.
template <class T>
struct ranked_keys {
    order_key_t<T> key;
    std::optional<order_key_t<T>> next_lower;
};

//! Sizes for which buckets pay: a few values are sorted sooner, and many would be read twice from
//! memory. The grouped median of 10,000 times 1000 doubles takes 40 ms with them, 64 ms without.
inline constexpr std::size_t fewest_in_buckets = 16;
inline constexpr std::size_t most_in_buckets = std::size_t{1} << 15;

//! The k-th largest of values[0 .. n - 1], 1 <= k <= n, of as many values as are worth it, which
//! stay as they are. The keys between the smallest and the largest are cut into buckets of equal
//! width, and those of the bucket that holds the rank are sorted. Nothing where the keys are spread
//! so unevenly that too many of them lie in that bucket.
template <class T>
std::optional<ranked_keys<T>> rank_by_buckets(const T *values, std::size_t n,
                                              std::size_t k) noexcept {
    using key = order_key_t<T>;
    using offset = std::make_unsigned_t<key>;
    constexpr std::size_t values_per_bucket = 8;
    constexpr std::size_t fewest_buckets = 64;
    constexpr std::size_t most_sorted = 256;

    const auto [low, high] =
        with_best_instruction_set([ values, n ]() __attribute__((always_inline)) {
            key least = order_key(values[0]);
            key largest = least;
            for (std::size_t i = 1; i < n; ++i) {
                const key here = order_key(values[i]);
                least = std::min(least, here);
                largest = std::max(largest, here);
            }
            return std::array{least, largest};
        });
    const auto base = static_cast<offset>(low);
    const auto span = static_cast<offset>(static_cast<offset>(high) - base);
    const std::size_t buckets = std::bit_ceil(std::max(fewest_buckets, n / values_per_bucket));
    const int shift = std::max(0, static_cast<int>(std::bit_width(span)) -
                                      static_cast<int>(std::countr_zero(buckets)));
    const auto bucket_of = [=](T value) __attribute__((always_inline)) {
        const auto above = static_cast<offset>(static_cast<offset>(order_key(value)) - base);
        return static_cast<std::size_t>(above >> shift);
    };
    std::array<std::uint32_t, most_in_buckets / values_per_bucket> counts;
    std::fill_n(counts.begin(), buckets, 0);
    for (std::size_t i = 0; i < n; ++i)
        ++counts[bucket_of(values[i])];

    std::size_t at = bucket_of(from_order_key<T>(high));
    while (k > counts[at])
        k -= counts[at--];
    // The next lower value may lie in the next bucket that has any.
    std::size_t lowest = at;
    if (k == counts[at])
        while (lowest > 0 && counts[--lowest] == 0) {
        }
    const std::size_t sought = counts[at] + (lowest == at ? 0 : counts[lowest]);
    const auto key_of = [=](std::size_t bucket) {
        return static_cast<key>(static_cast<offset>(base + static_cast<offset>(bucket)));
    };
    if (shift == 0) { // every bucket is one key
        ranked_keys<T> found{key_of(at), std::nullopt};
        if (k < sought)
            found.next_lower = key_of(k < counts[at] ? at : lowest);
        return found;
    }
    if (sought > most_sorted)
        return std::nullopt;

    std::array<key, most_sorted + 1> sorted; // one more, to be written before it is dropped
    std::size_t taken = 0;
    std::size_t i = 0;
    do { // there is a value: a loop that may not run at all leaves nothing to read, for a compiler
        sorted[taken] = order_key(values[i]);
        taken += bucket_of(values[i]) - lowest <= at - lowest;
    } while (++i < n);
    std::sort(sorted.begin(), sorted.begin() + taken);
    ranked_keys<T> found{sorted[taken - k], std::nullopt};
    if (k < taken)
        found.next_lower = sorted[taken - k - 1];
    return found;
}

} // namespace vask
