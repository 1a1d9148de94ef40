#include "table/shared_parts.h"

#include "table/errors.h"
#include "table/value_statistics.h"

#include "statistics/order_statistics.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace vask::table {

using refkernel::bat;
using refkernel::nil_of;

bool is_quantile(const function_rule &rule) {
    return rule.name == "median" || rule.name == "quantile" || rule.name == "quartile";
}

double fraction_of(const asked_function &asked) {
    if (asked.rule->name == "median")
        return 0.5;
    return asked.rule->name == "quartile" ? *asked.parameter / 4 : *asked.parameter;
}

double scale_of(const column &of) {
    return power_of_ten(of.type().scale);
}

shared_parts::shared_parts(std::int64_t rows, const query &asked, const query_context &context)
    : asked_(asked),
      context_(context),
      nan_missing_((asked.flags & VASK_NAN_IS_NULL) != 0),
      by_(rows, groups_of(asked), context.operators, context.tell),
      distances_(asked, context, by_,
                 [this](const column &of, bool looked) -> distance_statistics::column_values {
                     if (!looked)
                         if (auto values = of.as_they_lie(nan_missing_))
                             return {std::move(*values), true};
                     const numbers &values = numbers_of(of);
                     const bool plain = !values.beyond && of.type().of != kind::decimal;
                     return {bat::share((plain ? values.values : doubles_of(of)).id()), false};
                 }) {
    find_shared_quantiles();
}

std::uint64_t shared_parts::missing_in(const column &of) const {
    return of.missing(nan_missing_, context_.tell);
}

const numbers &shared_parts::numbers_of(const column &of) const {
    return of.as_numbers(nan_missing_, context_.tell);
}

const large_vector<lng> &shared_parts::counts_of(const column &of) {
    large_vector<lng> &counts = counts_[&of];
    if (!counts.empty() || by_.count() == 0)
        return counts;
    const auto sizes = by_.sizes();
    const std::uint64_t missing = missing_in(of);
    counts.assign(sizes.begin(), sizes.end());
    if (missing == 0)
        return counts;
    if (by_.is_whole()) {
        counts[0] -= static_cast<lng>(missing);
        return counts;
    }
    const bool text = is_text(of.type().of);
    const numbers *const own = text ? nullptr : &numbers_of(of);
    if (own != nullptr && own->beyond) {
        const auto numbers = by_.numbers();
        for (std::size_t row = 0; row < numbers.size(); ++row)
            counts[static_cast<std::size_t>(numbers[row])] -= own->present[row] == 0 ? 1 : 0;
        return counts;
    }
    const bat &values = text ? of.as_texts(context_.tell).codes : own->values;
    const std::array operands{&values, &by_.map(), &by_.extents()};
    const bat made = context_.operators.call("vask_grp_count", operands, of.name());
    const auto all = made.values<lng>();
    counts.assign(all.begin(), all.end());
    return counts;
}

void shared_parts::mark_groups_without_values(const column &of, answer &values) {
    const large_vector<lng> &counts = counts_of(of);
    values.present.resize(counts.size());
    for_rows(counts.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            values.present[i] = counts[i] > 0;
    });
}

answer shared_parts::call(const function_rule &rule, const std::vector<const bat *> &columns,
                          std::string_view about, const bat *map) {
    std::vector<const bat *> operands = columns;
    if (!by_.is_whole() || rule.whole.empty()) {
        operands.push_back(map == nullptr ? &by_.map() : map);
        operands.push_back(&by_.extents());
        return answer_of(context_.operators.call(std::string(rule.grouped), operands, about));
    }
    std::array<std::byte, sizeof(lng)> slot{};
    std::string name(rule.whole);
    int type = TYPE_dbl;
    const int operand = columns.front()->type();
    if (rule.by_type) {
        static constexpr std::array<std::pair<int, std::string_view>, 6> names{{{TYPE_bte, "bte"},
                                                                                {TYPE_sht, "sht"},
                                                                                {TYPE_int, "int"},
                                                                                {TYPE_lng, "lng"},
                                                                                {TYPE_flt, "flt"},
                                                                                {TYPE_dbl, "dbl"}}};
        for (const auto &[code, suffix] : names)
            if (code == operand)
                name += suffix;
        type = rule.of == family::sum && operand != TYPE_flt && operand != TYPE_dbl ? TYPE_lng
                                                                                    : operand;
    } else if (rule.result == result_rule::same) {
        type = operand;
    }
    context_.operators.call(name, slot.data(), operands, about);
    return visit_storage(type, [&]<class T>(std::type_identity<T>) {
        T value;
        std::memcpy(&value, slot.data(), sizeof value);
        return answer_of(refkernel::make_column(std::vector<T>{value}));
    });
}

bool shared_parts::may_leave_lng(const column &of) const {
    const numbers &values = numbers_of(of);
    if (values.beyond)
        return true;
    // Narrow types need no look at their values: there are not rows enough.
    if (values.values.type() != TYPE_lng)
        return false;
    const value_bounds found = of.bounds(context_.tell);
    const wide_integer farthest =
        std::max(-static_cast<wide_integer>(found.low), static_cast<wide_integer>(found.high));
    return !found.is_empty() && by_.rows() * farthest > std::numeric_limits<lng>::max();
}

const std::vector<wide_integer> &shared_parts::exact_sums(const column &of) {
    std::vector<wide_integer> &sums = exact_[&of];
    if (!sums.empty() || by_.count() == 0)
        return sums;
    sums.assign(by_.count(), 0);
    const numbers &values = numbers_of(of);
    const auto number_of = by_.number_of_row();
    visit_true_type(of, [&]<class T>(std::type_identity<T>) {
        if constexpr (std::is_integral_v<T>) {
            using stored = std::conditional_t<std::is_same_v<T, std::uint64_t>, lng, T>;
            const auto all = values.values.values<stored>();
            const auto present = presence_in<stored>(values);
            for (std::size_t row = 0; row < all.size(); ++row)
                if (present(row))
                    sums[number_of(row)] += static_cast<T>(all[row]);
        }
    });
    return sums;
}

const bat &shared_parts::doubles_of(const column &of) {
    const numbers &values = numbers_of(of);
    if (values.values.type() == TYPE_dbl && !values.beyond)
        return values.values;
    bat &made = doubles_[&of];
    if (!made) {
        context_.tell(fmt::format("column '{}' is added up as float64", shown(of.name())));
        made = as_doubles(of, values);
    }
    return made;
}

const weighted_sums &shared_parts::weighted_sums_of(const column &values, const column &weights) {
    const auto [at, is_new] = weighted_.try_emplace({&values, &weights});
    if (!is_new)
        return at->second;
    const auto x = doubles_of(values).values<dbl>();
    const auto w = doubles_of(weights).values<dbl>();
    const dbl nil = nil_of<dbl>();
    fresh_column<dbl> products(x.size());
    fresh_column<dbl> weights_of_both(x.size());
    for_rows(x.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t row = begin; row < end; ++row) {
            const bool both = x[row] != nil && w[row] != nil;
            products.values[row] = both ? x[row] * w[row] : nil;
            weights_of_both.values[row] = both ? w[row] : nil;
        }
    });
    const bat product_column = std::move(products).finish();
    const bat weight_column = std::move(weights_of_both).finish();
    at->second = {call(function("sum"), {&product_column},
                       fmt::format("{}, {}", values.name(), weights.name())),
                  call(function("sum"), {&weight_column}, weights.name())};
    return at->second;
}

const present_rows &shared_parts::present_in(const column &of, const bat &values) {
    const auto [at, is_new] = present_.try_emplace(values.id());
    if (!is_new)
        return at->second;
    present_rows &made = at->second;
    const std::uint64_t missing = missing_in(of);
    if (missing == 0) {
        made.values = bat::share(values.id());
        if (!by_.is_whole())
            made.map = bat::share(by_.map().id());
        return made;
    }
    const std::span<const std::uint8_t> present =
        is_text(of.type().of) ? std::span<const std::uint8_t>() : numbers_of(of).present;
    made.values = present_values(values, present, missing);
    if (!by_.is_whole())
        made.map = map_of_present(values, present, missing, by_.map(), made.values);
    return made;
}

// Fractions that quantiles of one column ask for: where values are gathered, one selection
// gives them all.
void shared_parts::find_shared_quantiles() {
    for (const asked_function &asked : asked_.functions) {
        if (asked.rule->name == "iqr")
            fractions_[asked.columns[0].get()].insert({0.25, 0.75});
        else if (is_quantile(*asked.rule))
            fractions_[asked.columns[0].get()].insert(fraction_of(asked));
    }
}

bool shared_parts::needs_own_selection(const column &of) const {
    constexpr lng most = lng{1} << 53;
    if (numbers_of(of).beyond)
        return true;
    if (numbers_of(of).values.type() != TYPE_lng)
        return false;
    const value_bounds found = of.bounds(context_.tell);
    return !found.is_empty() && (found.low < -most || found.high > most);
}

bool shared_parts::are_quantiles_shared(const column &of) const {
    return is_temporal(of.type().of) || needs_own_selection(of) ||
           (!by_.is_whole() && fractions_.at(&of).size() > 1);
}

const quantiles &shared_parts::quantiles_of(const column &of) {
    const auto [at, is_new] = quantiles_.try_emplace(&of);
    quantiles &made = at->second;
    if (!is_new)
        return made;
    const std::set<double> &wanted = fractions_.at(&of);
    made.fractions.assign(wanted.begin(), wanted.end());
    const std::size_t n = made.fractions.size();
    const bool times = is_temporal(of.type().of);
    if (times)
        made.times.assign(n, std::vector<lng>(by_.count()));
    else
        made.numbers.assign(n, std::vector<dbl>(by_.count(), nil_of<dbl>()));
    const double unit = scale_of(of);
    if (!times && !needs_own_selection(of)) {
        std::vector<stat_functor<dbl>> functors;
        for (const double fraction : made.fractions)
            functors.push_back(vask_percentile_functor(fraction));
        for_each_group<dbl>(of, [&](std::size_t group, std::span<dbl> own) {
            for (std::size_t i = 0; i < n && !own.empty(); ++i) {
                stat_flag flag = 0;
                functors[i](&made.numbers[i][group], &flag, own, TYPE_dbl);
                made.numbers[i][group] /= unit;
            }
        });
        return made;
    }
    visit_true_type(of, [&]<class T>(std::type_identity<T>) {
        for_each_group<T>(of, [&](std::size_t group, std::span<T> own) {
            if (own.empty())
                return;
            std::vector<std::array<T, 2>> found(n);
            std::vector<double> shares(n);
            select_quantiles<T>(own, made.fractions, found, shares);
            for (std::size_t i = 0; i < n; ++i)
                if (times)
                    made.times[i][group] = between_times(
                        {static_cast<lng>(found[i][0]), static_cast<lng>(found[i][1])}, shares[i]);
                else
                    made.numbers[i][group] = between(found[i], shares[i]) / unit;
        });
    });
    return made;
}

} // namespace vask::table
