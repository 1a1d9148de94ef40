// Statistics in the plainest way: sort, count, or add up in a loop, then the formula. What the
// operators promise to the last bit can only be had by their own formula; whether that formula is
// right, another one judges: a textbook's definition in more digits than the operators have.
#pragma once

#include "aggregates/result_types.h"

#include "support/element_types.h"
#include "vask/embed.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <compare>
#include <cstring>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace support {

template <class T>
bool same_bits(T a, T b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

//! Ascending; floats in the total order of IEEE 754.
template <class T>
std::vector<T> sorted(std::vector<T> values) {
    std::sort(values.begin(), values.end(),
              [](T a, T b) { return std::strong_order(a, b) == std::strong_ordering::less; });
    return values;
}

template <class T>
T plain_largest(const std::vector<T> &values, lng k, T nil) {
    const auto n = static_cast<lng>(values.size());
    return k > n ? nil : sorted(values)[static_cast<std::size_t>(n - k)];
}

//! The most frequent value, of several the smallest; nil when no value occurs twice.
template <class T>
T plain_mode(const std::vector<T> &values, T nil) {
    std::map<T, std::pair<std::size_t, T>> counts; // NaNs would spoil its order
    for (const T v : sorted(values))
        if (v == v)
            ++counts.try_emplace(v, 0, v).first->second.first;
    std::size_t best = 1;
    T mode = nil;
    for (const auto &[value, entry] : counts)
        if (entry.first > best) {
            best = entry.first;
            mode = entry.second;
        }
    return mode;
}

//! The values at the two whole positions around p·(n − 1), and the line between them.
template <class T>
double plain_percentile(const std::vector<T> &values, double p) {
    std::vector<double> v(values.begin(), values.end());
    v = sorted(std::move(v));
    const double span = static_cast<double>(v.size()) - 1;
    const std::size_t at = v.size() - static_cast<std::size_t>((1 - p) * span + 1);
    const double upper = v[at];
    const double lower = at == 0 ? upper : v[at - 1];
    if (lower == upper)
        return lower;
    const double hi = static_cast<double>(at) / span;
    const double lo = static_cast<double>(at - 1) / span;
    return ((p - lo) / (hi - lo)) * (upper - lower) + lower;
}

//! The textbook's percentile: on the line between the values at the whole positions around
//! p·(n − 1). `accuracy` is what doubles lose on the way there at most.
struct textbook_percentile {
    double value;
    double accuracy;

    template <class T>
    textbook_percentile(const std::vector<T> &values, double p) {
        const std::vector<T> ascending = sorted(values);
        const std::size_t last = ascending.size() - 1;
        const auto at = [&](std::size_t position) {
            return static_cast<long double>(ascending[std::min(position, last)]);
        };
        const long double place = static_cast<long double>(p) * static_cast<long double>(last);
        const auto below = static_cast<std::size_t>(place);
        const long double share = place - static_cast<long double>(below);
        const long double found = at(below) + share * (at(below + 1) - at(below));
        // A place next to a whole position can fall to either side of it.
        const long double gap = at(below + 2) - at(below == 0 ? 0 : below - 1);
        const long double scale = static_cast<long double>(last) * gap + std::fabs(found);
        value = static_cast<double>(found);
        accuracy = static_cast<double>(scale) * 8 * std::numeric_limits<double>::epsilon();
    }
};

struct plain_sums {
    double s1 = 0, s2 = 0, s3 = 0, n = 0;

    void add(double y) {
        s1 += y;
        s2 += y * y;
        s3 += (y * y) * y;
        n += 1;
    }
    void add(const plain_sums &other) {
        s1 += other.s1;
        s2 += other.s2;
        s3 += other.s3;
        n += other.n;
    }
};

//! A one-column moment and what the operators say of it.
struct plain_moment {
    const char *name;
    bool skewness;
    bool population;
    bool root;

    [[nodiscard]] double of(const plain_sums &sums) const {
        const auto [s1, s2, s3, n] = sums;
        const double nil = refkernel::nil_of<double>();
        const double needed = (skewness ? 2 : 1) + (population ? 0 : 1);
        if (n < needed)
            return nil;
        if (!skewness) {
            const double v = (n * s2 - s1 * s1) / (population ? n * n : (n - 1) * n);
            const double variance = v < 0 ? 0 : v;
            return root ? std::sqrt(variance) : variance;
        }
        const double spread = n * n * s2 - s1 * s1 * n;
        if (spread < 1e-7)
            return nil;
        const double third = n * n * n * s3 - n * n * 3 * s1 * s2 + s1 * s1 * s1 * (n * 2);
        const double factor = population ? std::sqrt(n) : std::sqrt(n - 1) * n / (n - 2);
        return third * factor / std::pow(spread, 1.5);
    }
};

inline constexpr plain_moment plain_moments[] = {
    {"stdev", false, false, true},     {"stdevp", false, true, true},
    {"variance", false, false, false}, {"variancep", false, true, false},
    {"skews", true, false, false},     {"skewp", true, true, false},
};

//! A moment as textbooks define it, by the deviations from the mean; nothing where the definition
//! divides by 0. `accuracy` is what sums of powers in doubles lose at most for some thousand
//! values.
struct textbook_moment {
    std::optional<double> value;
    double accuracy = 0;

    template <class T>
    textbook_moment(const plain_moment &moment, const std::vector<T> &values) {
        constexpr long double lost = 1e-12L;
        const auto n = static_cast<long double>(values.size());
        const auto sum_of = [&values](auto term) {
            long double sum = 0;
            for (const T v : values)
                sum += term(static_cast<long double>(v));
            return sum;
        };
        const long double mean = sum_of([](long double v) { return v; }) / n;
        const long double variance =
            sum_of([&](long double v) { return (v - mean) * (v - mean); }) / n;
        if (moment.skewness ? n < (moment.population ? 1 : 3) || variance == 0
                            : n < (moment.population ? 1 : 2))
            return;
        const long double uncertain = (variance + mean * mean) * lost; // of the variance
        long double found = 0;
        long double off = 0;
        if (moment.skewness) {
            const long double third =
                sum_of([&](long double v) { return (v - mean) * (v - mean) * (v - mean); }) / n;
            found = third / (variance * std::sqrt(variance));
            if (!moment.population)
                found *= std::sqrt(n * (n - 1)) / (n - 2);
            off = (1 + std::fabs(found)) * std::pow(uncertain / variance / lost, 1.5L) * lost;
        } else {
            found = moment.population ? variance : variance * n / (n - 1);
            off = 2 * uncertain;
            if (moment.root) {
                found = std::sqrt(found);
                off = found == 0 ? std::sqrt(off) : off / found;
            }
        }
        value = static_cast<double>(found);
        accuracy = static_cast<double>(off);
    }
};

//! The moment at a place of plain_moments as an aggregate of columns of T.
template <std::size_t place>
struct moment_at {
    template <class T>
    struct aggregate {
        using types = vask::statistic_result<T>;
        using result = typename types::type;
        using partial = plain_sums;
        static partial of(const std::vector<T> &values) {
            partial sums;
            for (const T v : values)
                sums.add(static_cast<double>(v));
            return sums;
        }
        static std::optional<double> total(const std::vector<partial> &partitions) {
            partial sums;
            for (const partial &each : partitions)
                sums.add(each);
            const double moment = plain_moments[place].of(sums);
            return moment == refkernel::nil_of<double>() ? std::nullopt : std::optional(moment);
        }
    };
};

//! Sums over pairs of values; `y` is the dependent column.
struct plain_pair_sums {
    double x = 0, y = 0, xy = 0, xx = 0, yy = 0, n = 0;

    void add(double a, double b) { add({a, b, a * b, a * a, b * b, 1}); }
    void add(const plain_pair_sums &other) {
        x += other.x;
        y += other.y;
        xy += other.xy;
        xx += other.xx;
        yy += other.yy;
        n += other.n;
    }

    //! Both of fewer than `needed` pairs and of too small a spread there is none.
    [[nodiscard]] double covariance(double needed) const {
        return n < needed ? refkernel::nil_of<double>()
                          : (n * xy - y * x) / ((n - (needed - 1)) * n);
    }
    [[nodiscard]] double correlation() const {
        const double d = n * n * xx * yy - n * xx * (y * y) - x * x * n * yy + x * x * (y * y);
        if (n == 0 || d < 1e-7)
            return refkernel::nil_of<double>();
        const double r = (n * xy - x * y) / std::sqrt(d);
        return std::isnan(r) ? r : std::clamp(r, -1.0, 1.0);
    }
    [[nodiscard]] double line(bool slope) const {
        const double d = n * xx - x * x;
        if (n == 0 || std::fabs(d) < 1e-7)
            return refkernel::nil_of<double>();
        return (slope ? n * xy - y * x : xx * y - xy * x) / d;
    }
};

//! The statistics of two columns; those of a line take the dependent column first.
struct plain_pair_statistic {
    const char *name;
    bool is_line;
    double (*of)(const plain_pair_sums &);
};

inline constexpr plain_pair_statistic plain_pair_statistics[] = {
    {"covars", false, [](const plain_pair_sums &s) { return s.covariance(2); }},
    {"covarp", false, [](const plain_pair_sums &s) { return s.covariance(1); }},
    {"correl", false, [](const plain_pair_sums &s) { return s.correlation(); }},
    {"slope", true, [](const plain_pair_sums &s) { return s.line(true); }},
    {"intercept", true, [](const plain_pair_sums &s) { return s.line(false); }},
};

//! What `add(row, sums)` adds up over some rows, partition by partition, in order.
template <class Sums, class Add>
Sums sums_of(const std::vector<std::vector<BUN>> &partitions, Add add) {
    Sums total;
    for (const auto &rows : partitions) {
        Sums partial;
        for (const BUN row : rows)
            add(row, partial);
        total.add(partial);
    }
    return total;
}

//! Values of few or many kinds; `nils` percent of them nil. Floats get zeros of both signs, and, on
//! request, infinities and NaNs.
template <class T>
std::vector<T> statistic_values(std::size_t rows, std::uint32_t distinct, std::uint32_t nils,
                                std::mt19937 &random, bool with_specials = false) {
    std::vector<T> values(rows);
    for (T &v : values) {
        const auto i = static_cast<std::int64_t>(random() % distinct) - distinct / 2;
        if constexpr (std::is_floating_point_v<T>) {
            v = static_cast<T>(i) / 3;
            if (i == 0 && random() % 2 == 0)
                v = -v;
            using limits = std::numeric_limits<T>;
            const T specials[] = {limits::quiet_NaN(), -limits::quiet_NaN(), limits::infinity(),
                                  -limits::infinity()};
            if (with_specials && random() % 8 == 0)
                v = specials[random() % 4];
        } else {
            v = static_cast<T>(i * 7919);
        }
        if (v == refkernel::nil_of<T>())
            v = 0;
        if (random() % 100 < nils)
            v = refkernel::nil_of<T>();
    }
    return values;
}

//! A column of copies of the values.
template <class T>
refkernel::bat column_of(const std::vector<T> &values,
                         const refkernel::column_options &options = {}) {
    return refkernel::make_column<T>(std::span<const T>(values), options);
}

//! The same, marked as free of nils: what an order statistic asks for.
template <class T>
refkernel::bat nonil_column(const std::vector<T> &values, BUN first = 0,
                            int type = refkernel::type_code_of<T>) {
    return column_of(values, {.type = type, .tail = {.nonil = true}, .first = first});
}

//! What a statistic reads a parameter from.
template <class T>
refkernel::bat parameter(T value, int type = refkernel::type_code_of<T>) {
    return column_of(std::vector<T>{value}, {.type = type});
}

inline refkernel::operator_failure call(char *message) {
    return refkernel::take_exception(message);
}

inline const refkernel::operator_failure success{};

//! How an order statistic says no.
inline refkernel::operator_failure refused(const char *text) {
    return {"statistics.func", text};
}

inline constexpr const char *quartile_text =
    "Quartile function: Invalid input parameter. Input parameter should be one of the following: "
    "0, 1, 2, 3 or 4.";
inline constexpr const char *percentile_text =
    "Percentile function: Invalid input parameter. Input parameter should be between 0 and 1 "
    "(including).";
inline constexpr const char *largest_text =
    "Largest function: Invalid input parameter. Input parameter should be a positive integer.";

//! Evenly between 0 and 1.
inline double random_share(std::mt19937 &random) {
    return static_cast<double>(random()) / 4294967296.0;
}

} // namespace support
