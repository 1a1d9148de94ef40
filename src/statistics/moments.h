// Moments of one column: the power sums S1 = Σx, S2 = Σx², S3 = Σx³ as an aggregate, and the
// formulas that close them. One pass, no centring, no compensation: the formulas guard against what
// cancellation does to n·S2 − S1².
#pragma once

#include "aggregates/aggregate.h"
#include "aggregates/lanes.h"
#include "kernel/frame.h"
#include "statistics/statistic.h"

#include <tuple>

namespace vask {

//! The sums up to a power and the number of values, which the formulas want as a double. Number and
//! Count are of one row, or of one row of each lane.
template <int Power, class Number = dbl, class Count = lng>
struct power_sums;

template <class Number, class Count>
struct power_sums<1, Number, Count> {
    Number s1;
    Count n;
    static constexpr auto fields() noexcept { return std::tuple(&power_sums::s1, &power_sums::n); }
};

template <class Number, class Count>
struct power_sums<2, Number, Count> {
    Number s1;
    Number s2;
    Count n;
    static constexpr auto fields() noexcept {
        return std::tuple(&power_sums::s1, &power_sums::s2, &power_sums::n);
    }
};

template <class Number, class Count>
struct power_sums<3, Number, Count> {
    Number s1;
    Number s2;
    Number s3;
    Count n;
    static constexpr auto fields() noexcept {
        return std::tuple(&power_sums::s1, &power_sums::s2, &power_sums::s3, &power_sums::n);
    }
};

//! Every value is converted to a double before it is multiplied, so no integer can overflow.
template <int Power>
struct moment_sums {
    using partial = power_sums<Power>;

    VASK_ALWAYS_INLINE static void add(partial &sums, dbl y) noexcept {
        sums.s1 += y;
        if constexpr (Power >= 2)
            sums.s2 += y * y;
        if constexpr (Power == 3)
            sums.s3 += (y * y) * y;
        ++sums.n;
    }

    template <class T>
    VASK_ALWAYS_INLINE static void add(partial &sums, T value) noexcept {
        add(sums, static_cast<dbl>(value));
    }

    //! A zero in place of a value changes no sum: none can be -0.0, as all begin with 0.0.
    template <class T>
    VASK_ALWAYS_INLINE static dbl operand(T value, bool is_value) noexcept {
        return is_value ? static_cast<dbl>(value) : -0.0;
    }
    VASK_ALWAYS_INLINE static void add_operand(partial &sums, dbl of,
                                               std::uint8_t is_value) noexcept {
        add(sums, of);
        sums.n += is_value - 1;
    }

    using lanes = power_sums<Power, dbl_lanes, lng_lanes>;

    VASK_ALWAYS_INLINE static void add_lanes(lanes &sums, const lane_values<1> &values,
                                             const lng_lanes &is_value) noexcept {
        const dbl_lanes y = values_or_zero(values[0], is_value);
        sums.s1 += y;
        if constexpr (Power >= 2)
            sums.s2 += y * y;
        if constexpr (Power == 3)
            sums.s3 += (y * y) * y;
        sums.n -= is_value; // which is -1 for a value
    }

    //! Of integers no sum was larger than that of their squares, or, of cubes, its power of 1.5.
    static bool is_exact(const lanes &sums) noexcept requires(Power >= 2) {
        return sum_of_lanes(sums.s2) < (Power == 2 ? largest_exact_sum : 0x1p34);
    }

    VASK_ALWAYS_INLINE static void merge(partial &total, const partial &part) noexcept {
        total.s1 += part.s1;
        if constexpr (Power >= 2)
            total.s2 += part.s2;
        if constexpr (Power == 3)
            total.s3 += part.s3;
        total.n += part.n;
    }

    //! The sums are chains of additions in row order, which run side by side; their latency is the
    //! bound, so a nil costs a blend and never a mispredicted branch.
    template <class Rows>
    VASK_ALWAYS_INLINE static partial scan(const Rows &rows, vask_row_range r,
                                           const partial &before = {}) {
        partial sums = before;
        lng nils = 0;
        for_each_block(rows, r, [&](const Rows &loaded, vask_row_range block) {
            for (BUN p = block.begin; p < block.end; ++p) {
                const bool nil = loaded.is_nil(p);
                add(sums, operand(loaded[p], !nil));
                nils += nil;
            }
        });
        sums.n -= nils;
        return sums;
    }
};

//! Variance, (n·S2 − S1²) / (n·(n − 1)) for a sample and (n·S2 − S1²) / n² for a population, or its
//! root. Nil with fewer values than the divisor needs. Where cancellation makes the numerator
//! negative the result is 0, never NaN.
struct spread_of_values {
    using aggregate = moment_sums<2>;
    bool population;
    bool variance; // not its root

    dbl operator()(const power_sums<2> &total) const noexcept;
    //! One value has no spread: its variance is 0 as a population and none as a sample.
    bool is_zero_of_one_row() const noexcept { return population; }
};

//! Skewness: m3 / m2^1.5 of the central moments for a population, that times √(n·(n − 1)) / (n − 2)
//! for a sample. Nil with fewer values than that needs, and when the spread is too small for the
//! quotient to mean anything: the test is on n³ times the variance, not scaled by the values.
dbl vask_skew_from_sums(const power_sums<3> &total, bool population);

struct skewness {
    using aggregate = moment_sums<3>;
    bool population;

    dbl operator()(const power_sums<3> &total) const {
        return vask_skew_from_sums(total, population);
    }
    //! One value has no skewness in either form.
    static constexpr bool is_zero_of_one_row() noexcept { return false; }
};

//! Calls `f` with the moment of a kind and gives its result; `otherwise` for a kind that is none.
template <class R, class F>
R visit_moment(stat_kind kind, R otherwise, F f) {
    switch (kind) {
        case stat_kind::skews:
        case stat_kind::skewp:
            return f(skewness{kind == stat_kind::skewp});
        case stat_kind::stdev:
        case stat_kind::stdevp:
            return f(spread_of_values{kind == stat_kind::stdevp, false});
        case stat_kind::variance:
        case stat_kind::variancep:
            return f(spread_of_values{kind == stat_kind::variancep, true});
        default:
            return otherwise;
    }
}

} // namespace vask
