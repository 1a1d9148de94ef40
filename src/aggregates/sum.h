// The sum as an aggregate: what whole-column and grouped sum share.
#pragma once

#include "aggregates/aggregate.h"
#include "aggregates/lanes.h"
#include "aggregates/result_types.h"
#include "kernel/frame.h"

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <tuple>

namespace vask {

//! Two's complement addition: a sum may wrap, and may land on the nil by wrapping.
VASK_ALWAYS_INLINE lng add_wrapping(lng a, lng b) noexcept {
    return static_cast<lng>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

template <std::floating_point T>
VASK_ALWAYS_INLINE T add_wrapping(T a, T b) noexcept {
    return a + b;
}

template <class T>
struct sum {
    using result = sum_result<T>;
    using accumulator = typename result::type;
    struct partial {
        accumulator value;
        bool seen;
        static constexpr auto fields() noexcept {
            return std::tuple(&partial::value, &partial::seen);
        }
    };

    VASK_ALWAYS_INLINE static void add(partial &p, accumulator value) noexcept {
        p.value = add_wrapping(p.value, value);
        p.seen = true;
    }

    //! Adding -0.0 changes no value, not even a sum of -0.0.
    static constexpr auto nothing = static_cast<accumulator>(std::floating_point<T> ? -0.0 : 0);

    VASK_ALWAYS_INLINE static accumulator operand(T value, bool is_value) noexcept {
        return is_value ? static_cast<accumulator>(value) : nothing;
    }
    VASK_ALWAYS_INLINE static void add_operand(partial &p, accumulator of,
                                               std::uint8_t is_value) noexcept {
        p.value = add_wrapping(p.value, of);
        p.seen |= is_value != 0;
    }

    VASK_ALWAYS_INLINE static void merge(partial &total, const partial &part) noexcept {
        add(total, part.value);
    }

    struct lanes {
        dbl_lanes value;
        lng_lanes seen;
        static constexpr auto fields() noexcept { return std::tuple(&lanes::value, &lanes::seen); }
    };

    VASK_ALWAYS_INLINE static void add_lanes(lanes &sums, const lane_values<1> &values,
                                             const lng_lanes &is_value) noexcept {
        sums.value += values_or_zero(values[0], is_value);
        sums.seen |= is_value;
    }

    VASK_ALWAYS_INLINE static partial scan(column_rows<T> column, vask_row_range r) noexcept {
        const T *rows = column.rows + r.begin;
        const T nil = column.nil;
        const std::size_t n = r.size();
        partial result{0, false};
        if constexpr (std::floating_point<T>) {
            // Additions stay in row order: the latency of the addition is the bound, and a branch
            // on nil would come on top.
            for (std::size_t i = 0; i < n; ++i) {
                const bool value = rows[i] != nil;
                result.value += operand(rows[i], value);
                result.seen |= value;
            }
        } else if constexpr (sizeof(T) < 4) {
            // As many rows as a 32-bit sum can take, so that a vector holds twice as many lanes.
            constexpr std::size_t block = std::size_t{1} << 16;
            for (std::size_t i = 0; i < n; i += block) {
                std::int32_t block_sum = 0;
                std::int32_t block_values = 0;
                for (std::size_t j = i, end = std::min(n, i + block); j < end; ++j) {
                    const bool value = rows[j] != nil;
                    block_sum += value ? rows[j] : 0;
                    block_values += value;
                }
                result.value += block_sum;
                result.seen |= block_values != 0;
            }
        } else {
            // The values are counted at the width of the sum: a bool of its own width beside it
            // keeps the loop from being vectorised, at a third of the speed.
            std::uint64_t total = 0;
            std::uint64_t values = 0;
            for (std::size_t i = 0; i < n; ++i) {
                const bool value = rows[i] != nil;
                total += value ? static_cast<std::uint64_t>(static_cast<lng>(rows[i])) : 0;
                values += value;
            }
            result.value = static_cast<lng>(total);
            result.seen = values != 0;
        }
        return result;
    }
};

} // namespace vask
