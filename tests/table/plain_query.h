// What a query is to give, worked out value by value.
#pragma once

#include "tests/table/arrow_data.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace vask_test {

// A refusal, by its code.
struct plain_refusal {
    int code;
};

inline bool is_nan(const cell &of) {
    return of.is == sort_of::real && of.real != of.real;
}

class plain_query {
public:
    struct answer {
        cell value;
        double slack = 0; // of a real value: how far off it may be
        bool odd = false; // inf or NaN took part: any number that is not finite goes
    };
    struct result_column {
        std::string format;
        std::vector<answer> values;
    };

    plain_query(const table_data &data, const asked_query &asked) : data_(data), asked_(asked) {}

    // By row the group in order of first rows; -1: left out.
    const std::vector<int> &groups() {
        find_groups();
        return group_of_;
    }
    std::size_t group_count() const { return groups_.size(); }

    std::vector<result_column> run() {
        for (const wanted &function : asked_.functions)
            check_types(function);
        for (const wanted &function : asked_.functions)
            check_values(function);
        find_groups();
        std::vector<result_column> result;
        for (const std::string &key : asked_.by) {
            const column_data &of = column(key);
            result_column made{of.format, {}};
            for (const auto &rows : groups_)
                made.values.push_back({missing(of, rows[0]) ? cell::null() : of.values[rows[0]]});
            result.push_back(std::move(made));
        }
        for (const wanted &function : asked_.functions) {
            const column_data *const x =
                function.columns.empty() ? nullptr : &column(function.columns[0]);
            const column_data *const y =
                function.columns.size() < 2 ? nullptr : &column(function.columns[1]);
            result_column made{format_of(function.function, x), {}};
            for (const auto &rows : groups_)
                made.values.push_back(aggregate(function, x, y, rows));
            result.push_back(std::move(made));
        }
        return result;
    }

    static bool is_text(const column_data &of) {
        return sort_of_format(of.format) == sort_of::text;
    }
    static bool is_float(const column_data &of) {
        return sort_of_format(of.format) == sort_of::real;
    }
    static bool is_time(const column_data &of) { return of.format[0] == 't'; }
    static bool is_decimal(const column_data &of) { return of.format[0] == 'd'; }

    static bool is_ordered(const std::string &name) {
        for (const char *const each : {"min", "max", "range", "median", "quantile", "quartile",
                                       "iqr", "mad", "largest", "mode"})
            if (name == each)
                return true;
        return false;
    }

    // Whether states of the function have a fixed size.
    static bool has_states(const std::string &name) {
        for (const char *const each :
             {"first_row", "median", "quantile", "quartile", "iqr", "mad", "largest"})
            if (name == each)
                return false;
        return true;
    }

private:
    const column_data &column(const std::string &name) const {
        for (const column_data &of : data_.columns)
            if (of.name == name)
                return of;
        throw std::logic_error("no column " + name);
    }

    bool flag(unsigned which) const { return (asked_.flags & which) != 0; }

    bool missing(const column_data &of, std::size_t row) const {
        const cell &value = of.values[row];
        if (value.is_null() || (flag(VASK_NAN_IS_NULL) && is_nan(value)))
            return true;
        // The least number is no time.
        const bool time = of.format.substr(0, 2) == "ts" || of.format.substr(0, 2) == "tD";
        return time && value.whole == std::numeric_limits<std::int64_t>::min();
    }

    // -1, 0 or 1; a NaN above all numbers, nulls last.
    int compare(const column_data &of, std::size_t a, std::size_t b) const {
        const bool no_a = missing(of, a);
        const bool no_b = missing(of, b);
        if (no_a || no_b)
            return static_cast<int>(no_a) - static_cast<int>(no_b);
        const cell &x = of.values[a];
        const cell &y = of.values[b];
        if (x.is == sort_of::text)
            return x.text < y.text ? -1 : x.text > y.text ? 1 : 0;
        if (x.is == sort_of::whole)
            return x.whole < y.whole ? -1 : x.whole > y.whole ? 1 : 0;
        if (is_nan(x) || is_nan(y))
            return static_cast<int>(is_nan(x)) - static_cast<int>(is_nan(y));
        return x.real < y.real ? -1 : x.real > y.real ? 1 : 0;
    }

    int compare_keys(std::size_t a, std::size_t b) const {
        for (const std::string &key : asked_.by)
            if (const int order = compare(column(key), a, b))
                return order;
        return 0;
    }

    void find_groups() {
        if (found_)
            return;
        found_ = true;
        group_of_.assign(data_.rows(), -1);
        for (std::size_t row = 0; row < data_.rows(); ++row) {
            bool dropped = false;
            for (const std::string &key : asked_.by)
                dropped = dropped || (flag(VASK_DROP_NULL_KEYS) && missing(column(key), row));
            if (dropped)
                continue;
            std::size_t group = 0;
            while (group < groups_.size() && compare_keys(groups_[group][0], row) != 0)
                ++group;
            if (group == groups_.size())
                groups_.emplace_back();
            groups_[group].push_back(row);
        }
        if (asked_.by.empty() && groups_.empty())
            groups_.emplace_back();
        if (flag(VASK_SORT_GROUPS))
            std::stable_sort(groups_.begin(), groups_.end(), [&](const auto &a, const auto &b) {
                return !a.empty() && !b.empty() && compare_keys(a[0], b[0]) < 0;
            });
        for (std::size_t group = 0; group < groups_.size(); ++group)
            for (const std::size_t row : groups_[group])
                group_of_[row] = static_cast<int>(group);
    }

    void check_types(const wanted &function) const {
        const std::string &name = function.function;
        for (const std::string &each : function.columns) {
            const column_data &of = column(each);
            const bool sums_only = name == "sum" || name == "weighted_mean" || name == "mad" ||
                                   name.substr(0, 5) == "stdev" || name.substr(0, 4) == "vari" ||
                                   name.substr(0, 4) == "skew" || function.columns.size() == 2;
            const bool numbers_only = name == "mean" || name == "range" || name == "median" ||
                                      name == "quantile" || name == "quartile" || name == "iqr";
            if ((sums_only && (is_text(of) || is_time(of))) || (numbers_only && is_text(of)))
                throw plain_refusal{VASK_BAD_REQUEST};
        }
    }

    void check_values(const wanted &function) const {
        if (!is_ordered(function.function) || flag(VASK_NAN_IS_NULL))
            return;
        for (const cell &value : column(function.columns[0]).values)
            if (is_nan(value))
                throw plain_refusal{VASK_BAD_DATA};
    }

    std::string format_of(const std::string &name, const column_data *x) const {
        const std::string plain = x == nullptr ? "l" : x->format;
        const bool time = x != nullptr && is_time(*x);
        const bool is_null = plain == "n";
        if (x == nullptr || name.substr(0, 5) == "count")
            return "l";
        if (name == "min" || name == "max" || name == "largest" || name == "mode" ||
            name == "first" || name == "last" || name == "any")
            return plain;
        if (name == "sum") {
            if (is_decimal(*x))
                return "d:38," + plain.substr(plain.find(',') + 1);
            if (is_float(*x))
                return "g";
            return flag(VASK_WIDE_SUMS) && !is_null ? "d:38,0" : "l";
        }
        if (name == "mean" || name == "median" || name == "quantile" || name == "quartile")
            return time ? plain : "g";
        if (name == "range" || name == "iqr") {
            if (plain.substr(0, 2) == "ts")
                return std::string("tD") + plain[2];
            if (plain.substr(0, 2) == "tD")
                return plain;
            if (time)
                return "l";
            if (name == "range" && is_decimal(*x))
                return plain;
            return name == "range" && !is_float(*x) && !is_null ? "l" : "g";
        }
        return "g";
    }

    static double unit_of(const column_data &of) {
        return is_decimal(of)
                   ? std::pow(10.0, std::atoi(of.format.c_str() + of.format.find(',') + 1))
                   : 1;
    }

    static long double number(const column_data &of, const cell &value) {
        return value.is == sort_of::real ? value.real
                                         : static_cast<long double>(value.whole) / unit_of(of);
    }

    static wide halves_away(wide numerator, wide denominator) {
        const wide twice = 2 * numerator + (numerator < 0 ? -denominator : denominator);
        return twice / (2 * denominator);
    }

    static answer real(long double value, long double slack) {
        return {cell::of_real(static_cast<double>(value)), static_cast<double>(slack)};
    }

    answer aggregate(const wanted &function, const column_data *x, const column_data *y,
                     const std::vector<std::size_t> &rows) const {
        const std::string &name = function.function;
        if (name == "size")
            return {cell::of(static_cast<wide>(rows.size()))};
        if (name == "first_row")
            return {rows.empty() ? cell::null() : cell::of(static_cast<wide>(rows[0]))};
        std::vector<std::size_t> present;
        bool any_missing = false;
        for (const std::size_t row : rows) {
            const bool here = !missing(*x, row) && (y == nullptr || !missing(*y, row));
            any_missing = any_missing || !here;
            if (here)
                present.push_back(row);
        }
        const auto n = static_cast<wide>(present.size());
        if (name == "count")
            return {cell::of(n)};
        if (name == "count_nulls")
            return {cell::of(static_cast<wide>(rows.size()) - n)};
        std::vector<std::size_t> ordered = present;
        std::stable_sort(ordered.begin(), ordered.end(),
                         [&](std::size_t a, std::size_t b) { return compare(*x, a, b) < 0; });
        if (name == "count_distinct") {
            wide distinct = 0;
            for (std::size_t i = 0; i < ordered.size(); ++i)
                distinct += i == 0 || compare(*x, ordered[i - 1], ordered[i]) != 0 ? 1 : 0;
            return {cell::of(distinct)};
        }
        if (present.empty() || (flag(VASK_KEEP_NULLS) && any_missing))
            return {};
        if (y != nullptr)
            return of_pairs(name, *x, *y, present);
        if (name == "first" || name == "any")
            return {x->values[present.front()]};
        if (name == "last")
            return {x->values[present.back()]};
        if (name == "min")
            return {x->values[ordered.front()]};
        if (name == "max")
            return {x->values[ordered.back()]};
        if (name == "largest") {
            const auto k = static_cast<std::size_t>(function.parameter);
            return k > ordered.size() ? answer{} : answer{x->values[ordered[ordered.size() - k]]};
        }
        if (name == "mode")
            return mode(*x, ordered);
        if (name == "range")
            return range(*x, ordered);
        if (name == "sum" || name == "mean")
            return sum(name, *x, present);
        if (name == "median")
            return quantile(*x, ordered, 0.5);
        if (name == "quantile")
            return quantile(*x, ordered, function.parameter);
        if (name == "quartile")
            return quantile(*x, ordered, function.parameter / 4);
        if (name == "iqr")
            return iqr(*x, ordered);
        if (name == "mad")
            return mad(*x, ordered);
        return moment(name, *x, present);
    }

    answer mode(const column_data &x, const std::vector<std::size_t> &ordered) const {
        std::size_t longest = 1;
        answer found;
        for (std::size_t begin = 0; begin < ordered.size();) {
            std::size_t end = begin;
            while (end < ordered.size() && compare(x, ordered[begin], ordered[end]) == 0)
                ++end;
            if (end - begin > longest) {
                longest = end - begin;
                found = {x.values[ordered[begin]]};
            }
            begin = end;
        }
        return found;
    }

    static answer range(const column_data &x, const std::vector<std::size_t> &ordered) {
        const cell &low = x.values[ordered.front()];
        const cell &high = x.values[ordered.back()];
        if (low.is == sort_of::real) {
            answer made{cell::of_real(high.real - low.real), 0};
            made.odd = !std::isfinite(made.value.real);
            return made;
        }
        const wide distance = high.whole - low.whole;
        if (distance > std::numeric_limits<std::int64_t>::max())
            throw plain_refusal{VASK_BAD_DATA};
        return {cell::of(distance)};
    }

    answer sum(const std::string &name, const column_data &x,
               const std::vector<std::size_t> &present) const {
        const auto n = static_cast<wide>(present.size());
        if (is_float(x)) {
            long double total = 0;
            long double size = 0;
            for (const std::size_t row : present) {
                total += x.values[row].real;
                size += std::fabs(x.values[row].real);
            }
            const long double divisor = name == "mean" ? static_cast<long double>(n) : 1;
            answer made = real(total / divisor, 1e-13L * size);
            made.odd = !(size <= std::numeric_limits<double>::max());
            return made;
        }
        wide total = 0;
        for (const std::size_t row : present)
            total += x.values[row].whole;
        if (name == "mean") {
            if (is_time(x))
                return {cell::of(halves_away(total, n))};
            const long double value =
                static_cast<long double>(total) / static_cast<long double>(n) / unit_of(x);
            return real(value, std::fabs(value) * 1e-14L);
        }
        if (!is_decimal(x) && !flag(VASK_WIDE_SUMS) &&
            (total > std::numeric_limits<std::int64_t>::max() ||
             total < std::numeric_limits<std::int64_t>::min()))
            throw plain_refusal{VASK_BAD_DATA};
        return {cell::of(total)};
    }

    static answer quantile(const column_data &x, const std::vector<std::size_t> &ordered,
                           double fraction) {
        const double position = fraction * static_cast<double>(ordered.size() - 1);
        const auto below = static_cast<std::size_t>(position);
        const long double share = position - static_cast<double>(below);
        const cell &low = x.values[ordered[below]];
        const cell &high = share > 0 ? x.values[ordered[below + 1]] : low;
        if (is_time(x)) {
            // Exact for halves and quarters; otherwise off by one, and by what the share of far
            // distances loses as a double.
            const bool quarters = fraction * 4 == std::floor(fraction * 4);
            const auto part = static_cast<wide>(std::llround(share * 1'000'000));
            answer made{cell::of(halves_away(
                            low.whole * 1'000'000 + (high.whole - low.whole) * part, 1'000'000)),
                        quarters ? 0.0
                                 : 1.0 + 1e-14 * std::fabs(static_cast<double>(high.whole) -
                                                           static_cast<double>(low.whole))};
            return made;
        }
        const long double a = number(x, low);
        const long double b = number(x, high);
        answer made = real(a + share * (b - a), 4e-15L * (std::fabs(a) + std::fabs(b)));
        made.odd = !std::isfinite(static_cast<double>(a)) ||
                   !std::isfinite(static_cast<double>(b)) ||
                   !std::isfinite(static_cast<double>(b - a));
        if (share == 0) {
            made.odd = false;
            made.value.real = static_cast<double>(a);
        }
        return made;
    }

    static answer iqr(const column_data &x, const std::vector<std::size_t> &ordered) {
        const answer low = quantile(x, ordered, 0.25);
        const answer high = quantile(x, ordered, 0.75);
        if (is_time(x)) {
            const wide distance = high.value.whole - low.value.whole;
            if (distance > std::numeric_limits<std::int64_t>::max())
                throw plain_refusal{VASK_BAD_DATA};
            return {cell::of(distance)};
        }
        answer made = real(static_cast<long double>(high.value.real) - low.value.real,
                           static_cast<long double>(high.slack) + low.slack +
                               1e-15L * (std::fabs(high.value.real) + std::fabs(low.value.real)));
        made.odd = low.odd || high.odd || !std::isfinite(made.value.real);
        return made;
    }

    static answer mad(const column_data &x, const std::vector<std::size_t> &ordered) {
        const answer middle = quantile(x, ordered, 0.5);
        column_data distances{"", "g", {}};
        long double size = 0;
        for (const std::size_t row : ordered) {
            const long double value = number(x, x.values[row]);
            distances.values.push_back(
                cell::of_real(static_cast<double>(std::fabs(value - middle.value.real))));
            size = std::max(size, std::fabs(value));
        }
        std::vector<std::size_t> order(distances.values.size());
        for (std::size_t i = 0; i < order.size(); ++i)
            order[i] = i;
        std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
            return distances.values[a].real < distances.values[b].real;
        });
        answer made = quantile(distances, order, 0.5);
        made.slack += middle.slack + static_cast<double>(1e-14L * size);
        made.odd = made.odd || middle.odd || !(size <= std::numeric_limits<double>::max() / 4);
        return made;
    }

    struct centred {
        long double mean = 0;
        long double size = 0; // of the largest value
        bool odd = false;
        std::vector<long double> distance;
    };

    static centred centre(const column_data &x, const std::vector<std::size_t> &rows) {
        centred made;
        // From the first value on, so that equal values have no distance at all.
        const long double first = number(x, x.values[rows[0]]);
        for (const std::size_t row : rows) {
            const long double value = number(x, x.values[row]);
            made.mean += value - first;
            made.size = std::max(made.size, std::fabs(value));
            made.odd = made.odd || !(std::fabs(value) < 1e100L);
        }
        made.mean = first + made.mean / static_cast<long double>(rows.size());
        for (const std::size_t row : rows)
            made.distance.push_back(number(x, x.values[row]) - made.mean);
        return made;
    }

    // Spreads below this count as rounding.
    static constexpr long double least_spread = 1e-7L;

    static answer moment(const std::string &name, const column_data &x,
                         const std::vector<std::size_t> &rows) {
        const centred all = centre(x, rows);
        const auto n = static_cast<long double>(rows.size());
        const bool population = name.back() == 'p';
        long double m2 = 0;
        long double m3 = 0;
        for (const long double d : all.distance) {
            m2 += d * d;
            m3 += d * d * d;
        }
        answer made;
        if (name.substr(0, 4) == "skew") {
            if (n <= (population ? 1 : 2) || (!all.odd && n * n * m2 < least_spread))
                return {};
            long double skew = std::sqrt(n) * m3 / std::pow(m2, 1.5L);
            if (!population)
                skew *= std::sqrt(n * (n - 1)) / (n - 2);
            made = real(skew, 1e-9L * (1 + std::fabs(skew)));
        } else {
            if (n <= (population ? 0 : 1))
                return {};
            const long double variance = m2 / (population ? n : n - 1);
            made = name.substr(0, 5) == "stdev"
                       ? real(std::sqrt(variance), 1e-10L * std::sqrt(variance))
                       : real(variance, 1e-10L * variance);
        }
        made.odd = all.odd;
        return made;
    }

    static answer of_pairs(const std::string &name, const column_data &x, const column_data &y,
                           const std::vector<std::size_t> &rows) {
        if (name == "weighted_mean") {
            long double products = 0;
            long double weights = 0;
            long double size = 0;
            long double weight_size = 0;
            for (const std::size_t row : rows) {
                const long double w = number(y, y.values[row]);
                weight_size += std::fabs(w);
                const long double product = number(x, x.values[row]) * w;
                products += product;
                weights += w;
                size += std::fabs(product) + std::fabs(w);
            }
            // What is left of weights that cancel out is rounding.
            const bool cancelled = std::fabs(weights) < 1e-9L * weight_size;
            if (weights == 0 && !cancelled)
                return {};
            answer made = real(cancelled ? 0 : products / weights,
                               cancelled ? std::numeric_limits<double>::infinity()
                                         : 1e-12L * size / std::fabs(weights));
            made.odd = cancelled || !(size < 1e100L);
            return made;
        }
        const centred a = centre(x, rows);
        const centred b = centre(y, rows);
        const auto n = static_cast<long double>(rows.size());
        long double c = 0;
        long double m2_a = 0;
        long double m2_b = 0;
        for (std::size_t i = 0; i < rows.size(); ++i) {
            c += a.distance[i] * b.distance[i];
            m2_a += a.distance[i] * a.distance[i];
            m2_b += b.distance[i] * b.distance[i];
        }
        const bool odd = a.odd || b.odd;
        const long double size = std::sqrt(m2_a * m2_b);
        answer made;
        if (name == "covarp" || name == "covars") {
            const long double divisor = name == "covarp" ? n : n - 1;
            if (divisor < 1)
                return {};
            made = real(c / divisor, 1e-10L * size / divisor);
        } else if (name == "correl") {
            if (!odd && n * m2_a * n * m2_b < least_spread)
                return {};
            made = real(c / size, 1e-10L);
        } else {
            if (!odd && n * m2_b < least_spread)
                return {};
            const long double slope = c / m2_b;
            const long double slack = 1e-10L * std::sqrt(m2_a / m2_b);
            if (name == "slope")
                made = real(slope, slack);
            else
                made = real(a.mean - slope * b.mean,
                            slack * b.size + 1e-12L * (a.size + std::fabs(slope) * b.size));
        }
        made.odd = odd;
        return made;
    }

    const table_data &data_;
    const asked_query &asked_;
    bool found_ = false;
    std::vector<std::vector<std::size_t>> groups_;
    std::vector<int> group_of_;
};

// Whether a result's value is the one that was worked out.
inline bool agrees(const cell &value, const plain_query::answer &expected) {
    if (expected.odd)
        return value.is_null() || (value.is == sort_of::real && !std::isfinite(value.real)) ||
               value.real == expected.value.real ||
               std::fabs(value.real - expected.value.real) <= expected.slack ||
               std::fabs(expected.value.real) > 1e90 || !std::isfinite(expected.value.real);
    if (value.is != expected.value.is)
        return false;
    switch (value.is) {
        case sort_of::none:
            return true;
        case sort_of::text:
            return value.text == expected.value.text;
        case sort_of::whole: {
            const wide distance = value.whole - expected.value.whole;
            return (distance < 0 ? -distance : distance) <= static_cast<wide>(expected.slack);
        }
        case sort_of::real:
            break;
    }
    if (is_nan(value) || is_nan(expected.value))
        return is_nan(value) && is_nan(expected.value);
    return value.real == expected.value.real ||
           std::fabs(value.real - expected.value.real) <= expected.slack;
}

// The type as a result has it: views become plain, and states make texts large.
inline bool same_format(const std::string &value, const std::string &expected) {
    const auto plain = [](const std::string &format) {
        return format == "U" || format == "vu"   ? std::string("u")
               : format == "Z" || format == "vz" ? std::string("z")
                                                 : format;
    };
    return plain(value) == plain(expected);
}

// Nothing where all agree, else the first difference.
inline std::string difference(const table_data &result,
                              const std::vector<plain_query::result_column> &expected) {
    if (result.columns.size() != expected.size())
        return "columns";
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const column_data &own = result.columns[i];
        if (!same_format(own.format, expected[i].format))
            return "column " + own.name + " is " + own.format + ", not " + expected[i].format;
        if (own.values.size() != expected[i].values.size())
            return "column " + own.name + " has " + std::to_string(own.values.size()) +
                   " rows, not " + std::to_string(expected[i].values.size());
        for (std::size_t row = 0; row < own.values.size(); ++row)
            if (!agrees(own.values[row], expected[i].values[row]))
                return "column " + own.name + ", row " + std::to_string(row) + ": " +
                       shown(own.values[row]) + ", not " + shown(expected[i].values[row].value);
    }
    return "";
}

} // namespace vask_test
