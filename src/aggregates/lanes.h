// Several partitions taken row by row of all at once. An addition that keeps the order of rows
// waits for the one before it, but not for those of other partitions, so one task adds to a vector
// with a lane for each of them: the same sums, to the bit, in a third of the time.
#pragma once

#include "aggregates/aggregate.h"
#include "aggregates/group_scan.h"
#include "kernel/cancelled.h"
#include "kernel/frame.h"

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <tuple>
#include <type_traits>
#include <utility>

#include <tbb/task_arena.h>

namespace vask {

inline constexpr std::size_t lane_count = 4;

using dbl_lanes [[gnu::vector_size(lane_count * sizeof(dbl))]] = dbl;
using lng_lanes [[gnu::vector_size(lane_count * sizeof(lng))]] = lng;

//! One element of each column at a row of each lane.
template <std::size_t Columns>
using lane_values = std::array<dbl_lanes, Columns>;

//! -0.0, whose addition changes no sum, in the place of what is no value.
VASK_ALWAYS_INLINE dbl_lanes values_or_zero(const dbl_lanes &values,
                                            const lng_lanes &is_value) noexcept {
    constexpr dbl_lanes zero{-0.0, -0.0, -0.0, -0.0};
    return is_value ? values : zero;
}

//! A row source of numbers in memory: `values(p)` gives for each column where the value at p lies,
//! with those up to the end of the loaded block behind it.
template <class Rows>
concept has_values_in_memory = requires(const Rows rows, BUN p) {
    *rows.values(p)[0];
};

//! Such a source of dbls. Its nils are flagged, or equal `nil`.
template <class Rows>
concept has_dbls_in_memory = has_values_in_memory<Rows> && requires(const Rows rows, BUN p) {
    { rows.values(p)[0] } -> std::convertible_to<const dbl *>;
};

//! A row source where `nil_flags(p)` gives where the flags of the row at p and those behind it lie,
//! 1 for a nil, 0 for a value; null if the block has no nil. Without flags a value is a nil where
//! it equals `nil`, and a row where any of its values is.
template <class Rows>
concept flags_nils = requires(const Rows rows, BUN p) {
    { rows.nil_flags(p) } -> std::same_as<const std::uint8_t *>;
};

//! An aggregate whose partial there is by lane, of which its fields are the first:
//! Aggregate::lanes, to which add_lanes(lanes, values, is_value) adds; is_value has all bits set
//! where there is a value.
template <class Aggregate, class Rows>
concept adds_lanes = has_dbls_in_memory<Rows> && requires {
    typename Aggregate::lanes;
};

//! What doubles hold of sums of integers whose squares add up to less: each of their sums and
//! partial sums. Twice as much would do, but the sum that is compared may be rounded.
inline constexpr dbl largest_exact_sum = 0x1p52;

VASK_ALWAYS_INLINE dbl sum_of_lanes(const dbl_lanes &sums) noexcept {
    return (sums[0] + sums[1]) + (sums[2] + sums[3]);
}

//! The partial of a lane.
template <class Partial, class Lanes>
Partial partial_of_lane(const Lanes &all, std::size_t lane) noexcept {
    Partial result{};
    [&]<std::size_t... i>(std::index_sequence<i...>) {
        const auto to = Partial::fields();
        const auto from = Lanes::fields();
        const auto set = [lane](auto &field, const auto &of_all) {
            field = static_cast<std::remove_reference_t<decltype(field)>>(of_all[lane]);
        };
        (set(result.*std::get<i>(to), all.*std::get<i>(from)), ...);
    }
    (std::make_index_sequence<std::tuple_size_v<decltype(Partial::fields())>>{});
    return result;
}

//! As many neighbours as there are lanes, converted.
template <class Lanes, class T>
VASK_ALWAYS_INLINE Lanes neighbours_in_lanes(const T *from) noexcept {
    using elements [[gnu::vector_size(lane_count * sizeof(T))]] = T;
    elements loaded;
    std::memcpy(&loaded, from, sizeof loaded);
    return __builtin_convertvector(loaded, Lanes);
}

//! Rows at `row` and behind it in memory.
template <class Rows>
struct rows_in_memory {
    using addresses = decltype(std::declval<const Rows &>().values(BUN{}));
    static constexpr std::size_t columns = std::tuple_size_v<addresses>;

    addresses values;
    const std::uint8_t *nils = nullptr; // flags, if there are

    rows_in_memory() = default;
    rows_in_memory(const Rows &rows, BUN row) noexcept : values(rows.values(row)) {
        if constexpr (flags_nils<Rows>)
            nils = rows.nil_flags(row);
    }
};

//! Adds the rows of a block to lanes. `values_at(c, i)` gives the values of column c that are taken
//! together at step i, `flags_at(i)` their flags where `flagged`.
template <class Aggregate, class Rows, class ValuesAt, class FlagsAt>
VASK_ALWAYS_INLINE void add_to_lanes(typename Aggregate::lanes &sums, const Rows &rows, BUN steps,
                                     bool flagged, const ValuesAt &values_at,
                                     const FlagsAt &flags_at) noexcept {
    constexpr std::size_t columns = rows_in_memory<Rows>::columns;
    typename Aggregate::lanes own = sums;
    const auto add_all = [&](const auto &is_value_at) __attribute__((always_inline)) {
        for (BUN i = 0; i < steps; ++i) {
            const lane_values<columns> values = [&]<std::size_t... c>(std::index_sequence<c...>)
                __attribute__((always_inline)) {
                return lane_values<columns>{values_at(c, i)...};
            }
            (std::make_index_sequence<columns>{});
            Aggregate::add_lanes(own, values, is_value_at(values, i));
        }
    };
    constexpr lng_lanes all{-1, -1, -1, -1};
    if constexpr (flags_nils<Rows>) {
        if (flagged)
            add_all([&](const auto &, BUN i) { return flags_at(i) == lng_lanes{}; });
        else
            add_all([&](const auto &, BUN) { return all; });
    } else {
        const dbl_lanes nils = static_cast<dbl>(rows.nil) - dbl_lanes{};
        add_all([&](const auto &values, BUN) {
            lng_lanes is_value = all;
            for (const dbl_lanes &value : values)
                is_value &= value != nils;
            return is_value;
        });
    }
    sums = own;
}

//! The partials of so many partitions, in order. They have as many rows as the first, but for the
//! last, which may have more.
template <class Aggregate, class Rows>
std::array<typename Aggregate::partial, lane_count>
scan_in_lanes(const Rows &rows, const std::array<vask_row_range, lane_count> &partitions) {
    using partial = typename Aggregate::partial;
    // The blocks of all lanes stay in the first-level cache.
    constexpr BUN most_rows = loads_blocks<Rows> ? 256 : BUN{1} << 16;
    static constexpr std::uint8_t no_nils[most_rows]{};

    const BUN n = partitions[0].size();
    std::array<Rows, lane_count> sources{rows, rows, rows, rows};
    typename Aggregate::lanes sums{};
    for (BUN done = 0; done < n;) {
        end_if_cancelled();
        const BUN block = std::min(most_rows, n - done);
        std::array<rows_in_memory<Rows>, lane_count> at;
        for (std::size_t lane = 0; lane < lane_count; ++lane) {
            const BUN from = partitions[lane].begin + done;
            if constexpr (loads_blocks<Rows>) {
                // Blocks of several partitions in turn are no order that the processor sees.
                sources[lane].prefetch(from, block);
                sources[lane].load({from, from + block});
            }
            at[lane] = rows_in_memory(sources[lane], from);
        }
        const bool flagged =
            std::any_of(at.begin(), at.end(), [](const auto &of) { return of.nils != nullptr; });
        for (rows_in_memory<Rows> &of : at)
            of.nils = of.nils != nullptr ? of.nils : no_nils;
        with_best_instruction_set([&, at ]() __attribute__((always_inline)) {
            add_to_lanes<Aggregate>(
                sums, rows, block, flagged,
                [&](std::size_t c, BUN i) __attribute__((always_inline)) {
                    return dbl_lanes{at[0].values[c][i], at[1].values[c][i], at[2].values[c][i],
                                     at[3].values[c][i]};
                },
                [&](BUN i) __attribute__((always_inline)) {
                    return lng_lanes{at[0].nils[i], at[1].nils[i], at[2].nils[i], at[3].nils[i]};
                });
        });
        done += block;
    }

    std::array<partial, lane_count> results;
    for (std::size_t lane = 0; lane < lane_count; ++lane)
        results[lane] = partial_of_lane<partial>(sums, lane);
    const vask_row_range last = partitions[lane_count - 1];
    for_each_block(rows, {last.begin + n, last.end}, [&](const Rows &loaded, vask_row_range block) {
        for (BUN p = block.begin; p < block.end; ++p)
            if (!loaded.is_nil(p))
                Aggregate::add(results[lane_count - 1], loaded[p]);
    });
    return results;
}

//! A row source that tells whether all its values are integers, sums of which are the same in any
//! order as far as doubles hold them, and an aggregate of which `is_exact(lanes)` says whether they
//! have held all that was added up.
template <class Aggregate, class Rows>
concept knows_integers = has_values_in_memory<Rows> &&
    requires(const Rows rows, const typename Aggregate::lanes sums) {
    { rows.are_integers() } -> std::same_as<bool>;
    { Aggregate::is_exact(sums) } -> std::same_as<bool>;
};

template <class Aggregate, class Rows>
bool adds_in_any_order(const Rows &rows) noexcept {
    if constexpr (knows_integers<Aggregate, Rows>)
        return rows.are_integers();
    else
        return false;
}

//! The partial of rows of such a source, neighbouring rows in the lanes: no addition waits for the
//! one before it. Where the sums leave what doubles hold, the rest is added in the order of rows,
//! so that the result is what that order makes of all, to the bit.
template <class Aggregate, class Rows>
typename Aggregate::partial scan_integers(Rows rows, vask_row_range r) {
    using lanes = typename Aggregate::lanes;
    using partial = typename Aggregate::partial;
    const auto total_of = [](const lanes &sums) {
        partial total{};
        for (std::size_t lane = 0; lane < lane_count; ++lane)
            Aggregate::merge(total, partial_of_lane<partial>(sums, lane));
        return total;
    };
    lanes sums{};
    for (BUN p = r.begin; p < r.end;) {
        const vask_row_range block{p, p + std::min(scan_block_rows, r.end - p)};
        if constexpr (loads_blocks<Rows>)
            rows.load(block);
        const rows_in_memory<Rows> at(rows, p);
        const lanes before = sums;
        with_best_instruction_set([&, at ]() __attribute__((always_inline)) {
            add_to_lanes<Aggregate>(
                sums, rows, block.size() / lane_count, at.nils != nullptr,
                [&](std::size_t c, BUN i) __attribute__((always_inline)) {
                    return neighbours_in_lanes<dbl_lanes>(at.values[c] + i * lane_count);
                },
                [&](BUN i) __attribute__((always_inline)) {
                    return neighbours_in_lanes<lng_lanes>(at.nils + i * lane_count);
                });
        });
        if (!Aggregate::is_exact(sums))
            return Aggregate::scan(rows, {p, r.end}, total_of(before));
        p = block.end;
    }
    return Aggregate::scan(rows, {r.end - static_cast<BUN>(r.size() % lane_count), r.end},
                           total_of(sums));
}

//! How many of the partitions, from the first on, are better taken in lanes: all that fill some, as
//! long as the threads have work.
template <class Aggregate, class Rows>
std::uint64_t partitions_in_lanes(std::uint64_t nparts) noexcept {
    if constexpr (adds_lanes<Aggregate, Rows>) {
        const auto threads = static_cast<std::uint64_t>(tbb::this_task_arena::max_concurrency());
        return nparts >= 2 * threads ? nparts - nparts % lane_count : 0;
    } else {
        return 0;
    }
}

} // namespace vask
