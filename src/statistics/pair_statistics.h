// Statistics of two columns whose rows belong together by position: the power sums of the rows at
// which both have a value as an aggregate, and the formulas that close them. One pass, no means
// first, no compensation; the formulas take the numerical risk of that and guard against it only by
// a fixed threshold.
#pragma once

#include "aggregates/aggregate.h"
#include "aggregates/lanes.h"
#include "kernel/frame.h"
#include "statistics/paired_rows.h"
#include "statistics/statistic.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <tuple>

namespace vask {

namespace failure {
inline constexpr const char *unequal_lengths = "BAT parameters should be of equal length";
} // namespace failure

struct covariance_sums {
    dbl x;
    dbl y;
    dbl xy;
    std::uint64_t pairs;
    static constexpr auto fields() noexcept {
        return std::tuple(&covariance_sums::x, &covariance_sums::y, &covariance_sums::xy,
                          &covariance_sums::pairs);
    }
};

//! Number and Count are of one row, or of one row of each lane. The fields of the other sums are
//! the first of these.
template <class Number, class Count>
struct all_pair_sums {
    Number x;
    Number y;
    Number xy;
    Number xx;
    Number yy;
    Count pairs;
    static constexpr auto fields() noexcept {
        return std::tuple(&all_pair_sums::x, &all_pair_sums::y, &all_pair_sums::xy,
                          &all_pair_sums::pairs, &all_pair_sums::xx, &all_pair_sums::yy);
    }
};

using correlation_sums = all_pair_sums<dbl, std::uint64_t>;

struct regression_sums {
    dbl x;
    dbl y;
    dbl xy;
    dbl xx;
    std::uint64_t pairs;
    static constexpr auto fields() noexcept {
        return std::tuple(&regression_sums::x, &regression_sums::y, &regression_sums::xy,
                          &regression_sums::pairs, &regression_sums::xx);
    }
};

//! The aggregate of one of the sums above: those fields are added up that there are.
template <class Sums>
struct pair_sums {
    using partial = Sums;

    VASK_ALWAYS_INLINE static void add(Sums &sums, value_pair v) noexcept {
        sums.x += v.x;
        sums.y += v.y;
        sums.xy += v.y * v.x;
        if constexpr (requires { sums.xx; })
            sums.xx += v.x * v.x;
        if constexpr (requires { sums.yy; })
            sums.yy += v.y * v.y;
        ++sums.pairs;
    }

    using lanes = all_pair_sums<dbl_lanes, lng_lanes>;

    VASK_ALWAYS_INLINE static void add_lanes(lanes &sums, const lane_values<2> &values,
                                             const lng_lanes &is_value) noexcept {
        const dbl_lanes x = values_or_zero(values[0], is_value);
        const dbl_lanes y = values_or_zero(values[1], is_value);
        sums.x += x;
        sums.y += y;
        sums.xy += y * x;
        sums.xx += x * x;
        sums.yy += y * y;
        sums.pairs -= is_value; // which is -1 for a pair
    }

    //! Of integers no sum was larger than the larger one of squares.
    static bool is_exact(const lanes &sums) noexcept {
        return sum_of_lanes(sums.xx) < largest_exact_sum &&
               sum_of_lanes(sums.yy) < largest_exact_sum;
    }

    VASK_ALWAYS_INLINE static void merge(Sums &total, const Sums &part) noexcept {
        std::apply([&](auto... field) { ((total.*field += part.*field), ...); }, Sums::fields());
    }

    //! The sums are chains of additions in row order, which run side by side. Where each row asks
    //! the kernel they run in the shadow of those calls, 8 cycles each, though they have to be
    //! kept in memory meanwhile: summing a block after all its calls took a fifth more time.
    template <asks_kernel Rows>
    VASK_ALWAYS_INLINE static Sums scan(Rows rows, vask_row_range r, const Sums &before = {}) {
        Sums sums = before;
        for_each_block(rows, r, [&](const Rows &loaded, vask_row_range block) {
            for (BUN p = block.begin; p < block.end; ++p)
                if (!loaded.is_nil(p))
                    add(sums, loaded[p]);
        });
        return sums;
    }

    //! Otherwise the latency of the chains is the bound, and a nil must cost no branch: a zero in
    //! the place of a dropped pair changes no sum, as none can be -0.0, all beginning with 0.0. The
    //! memory brings the next block meanwhile (slope of 1e7 rows: 5.6 ms, against 7.7).
    template <class Rows>
    VASK_ALWAYS_INLINE static Sums scan(Rows rows, vask_row_range r, const Sums &before = {}) {
        Sums sums = before;
        constexpr BUN stretch = 16;
        for_each_block(rows, r, [&](const Rows &loaded, vask_row_range block) {
            const BUN nils = loaded.nils();
            for (BUN p = block.begin; p < block.end;) {
                loaded.prefetch(p, stretch);
                const BUN end = std::min(p + stretch, block.end);
                if (nils == 0) {
                    for (; p < end; ++p)
                        add(sums, loaded[p]);
                } else {
                    for (; p < end; ++p) {
                        const bool nil = loaded.is_nil(p);
                        add(sums, {nil ? -0.0 : loaded[p].x, nil ? -0.0 : loaded[p].y});
                    }
                }
            }
            sums.pairs -= nils;
        });
        return sums;
    }
};

//! Covariance, (n·Sxy − Sx·Sy) / ((n − 1)·n) of a sample and (n·Sxy − Sx·Sy) / n² of a population;
//! nothing with fewer pairs than that needs.
struct covariance {
    using sums = covariance_sums;
    using rows = atom_paired_rows;
    bool population;

    std::optional<dbl> operator()(const covariance_sums &total) const noexcept;
    //! One pair has a covariance as a population, which is 0.
    bool is_zero_of_one_row() const noexcept { return population; }
};

//! Pearson's correlation; nil without pairs and where the spread of a column is too small.
dbl vask_correlation_from_sums(const correlation_sums &total);

struct correlation {
    using sums = correlation_sums;
    using rows = atom_paired_rows;

    dbl operator()(const correlation_sums &total) const {
        return vask_correlation_from_sums(total);
    }
    static constexpr bool is_zero_of_one_row() noexcept { return false; }
};

//! The least-squares line y = slope·x + intercept; nil without pairs and where the spread of x is
//! too small.
struct regression {
    using sums = regression_sums;
    using rows = plainly_paired_rows;
    bool slope; // not the intercept

    dbl operator()(const regression_sums &total) const noexcept;
    static constexpr bool is_zero_of_one_row() noexcept { return false; }
};

//! Calls `f` with the statistic of two columns of a kind and gives its result; `otherwise` for a
//! kind that is none.
template <class R, class F>
R visit_pair_statistic(stat_kind kind, R otherwise, F f) {
    switch (kind) {
        case stat_kind::covars:
            return f(covariance{false});
        case stat_kind::covarp:
            return f(covariance{true});
        case stat_kind::correl:
            return f(correlation{});
        case stat_kind::slope:
            return f(regression{true});
        case stat_kind::intercept:
            return f(regression{false});
        default:
            return otherwise;
    }
}

//! Calls `f(std::type_identity<Rows>{})` with the source of rows that a statistic reads two columns
//! by: its own, or one that finds nils in line where the kernel allows it.
template <class Statistic, class F>
auto visit_rows_of(const BAT &first, const BAT &second, F f) {
    if (have_plain_nils(*first.tail, *second.tail))
        return f(std::type_identity<plainly_paired_rows>{});
    return f(std::type_identity<typename Statistic::rows>{});
}

//! What is wrong with the columns of a statistic of two; null if nothing is.
inline const char *refusal_of_pair(const BAT &first, const BAT &second) noexcept {
    if (!is_admitted(*first.tail) || !is_admitted(*second.tail))
        return failure::unsupported_tail;
    // Equal lengths are all that is asked for: rows are paired by position, whatever the heads say.
    return first.info->count == second.info->count ? nullptr : failure::unequal_lengths;
}

} // namespace vask
