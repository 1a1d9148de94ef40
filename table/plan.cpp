#include "table/plan.h"

#include "table/errors.h"
#include "table/gathered.h"
#include "table/kernel_column.h"
#include "table/operands.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <set>
#include <type_traits>
#include <utility>

namespace vask::table {
namespace {

using refkernel::bat;
using refkernel::nil_of;

constexpr wide_integer largest_lng = std::numeric_limits<lng>::max();

double scale_of(const column &of) {
    return power_of_ten(of.type().scale);
}

// ---- statistics of a group's values, which they may put in another order ------------------------

// As the operators have it: position p(n - 1), interpolated linearly.
struct place_in_order {
    std::size_t below;
    double share; // of the next value

    place_in_order(double p, std::size_t n) {
        const double position = p * static_cast<double>(n - 1);
        below = static_cast<std::size_t>(position);
        share = position - static_cast<double>(below);
    }
};

// The values at several fractions, ascending; each selects in what lies above the one before.
template <class T>
void select_quantiles(std::span<T> values, std::span<const double> fractions,
                      std::span<std::array<T, 2>> found, std::span<double> shares) {
    std::size_t sorted_to = 0; // values below stand where they would in order
    for (std::size_t i = 0; i < fractions.size(); ++i) {
        const place_in_order place(fractions[i], values.size());
        const auto at = [&](std::size_t n) {
            return values.begin() + static_cast<std::ptrdiff_t>(n);
        };
        if (place.below >= sorted_to) {
            std::nth_element(at(sorted_to), at(place.below), values.end());
            sorted_to = place.below + 1;
        }
        T above = values[place.below];
        if (place.share > 0) {
            if (place.below + 1 >= sorted_to) {
                const auto least = std::min_element(at(place.below + 1), values.end());
                std::iter_swap(at(place.below + 1), least);
                sorted_to = place.below + 2;
            }
            above = values[place.below + 1];
        }
        found[i] = {values[place.below], above};
        shares[i] = place.share;
    }
}

template <class T>
double between(const std::array<T, 2> &found, double share) {
    const auto low = static_cast<double>(found[0]);
    const auto high = static_cast<double>(found[1]);
    return share == 0 ? low : low + share * (high - low);
}

// The same for 64-bit times, of which a dbl would lose digits. Halves go away from zero.
lng between_times(const std::array<lng, 2> &found, double share) {
    const auto distance = static_cast<long double>(static_cast<wide_integer>(found[1]) - found[0]);
    const long double way = distance * static_cast<long double>(share);
    const auto below = found[0] + static_cast<wide_integer>(way);
    const long double rest = way - std::floor(way);
    return static_cast<lng>(below + (rest > 0.5L || (rest == 0.5L && below >= 0) ? 1 : 0));
}

template <class T>
double median_distance(std::span<T> values) {
    const std::array<double, 1> half{0.5};
    std::array<std::array<T, 2>, 1> found{};
    std::array<double, 1> share{};
    select_quantiles<T>(values, half, found, share);
    const double median = between(found[0], share[0]);
    std::vector<double> distances(values.size());
    std::transform(values.begin(), values.end(), distances.begin(),
                   [median](T value) { return std::abs(static_cast<double>(value) - median); });
    std::array<std::array<double, 2>, 1> middle{};
    select_quantiles<double>(distances, half, middle, share);
    return between(middle[0], share[0]);
}

template <class T>
std::optional<T> most_frequent(std::span<T> values) {
    std::sort(values.begin(), values.end());
    std::optional<T> mode;
    std::size_t longest = 1;
    for (std::size_t run = 0; run < values.size();) {
        std::size_t end = run + 1;
        while (end < values.size() && values[end] == values[run])
            ++end;
        if (end - run > longest) {
            longest = end - run;
            mode = values[run];
        }
        run = end;
    }
    return mode;
}

bool is_quantile(const function_rule &rule) {
    return rule.name == "median" || rule.name == "quantile" || rule.name == "quartile";
}

double fraction_of(const asked_function &asked) {
    if (asked.rule->name == "median")
        return 0.5;
    return asked.rule->name == "quartile" ? *asked.parameter / 4 : *asked.parameter;
}

// ---- the plan -----------------------------------------------------------------------------------

class query_run {
public:
    query_run(std::int64_t rows, const query &asked, const query_context &context)
        : asked_(asked),
          context_(context),
          nan_missing_((asked.flags & VASK_NAN_IS_NULL) != 0),
          by_(rows, groups_of(asked), context.operators, context.tell) {
        find_shared_quantiles();
    }

    std::vector<result_column> run() {
        const double steps = static_cast<double>(asked_.functions.size()) + 1;
        double done = 1;
        std::vector<result_column> result;
        for (const column_pointer &key : asked_.by)
            result.push_back(finish_answer(key->name(), key->type(), rows_of_groups(), by_,
                                           key.get(), groups_of(asked_).nan_missing,
                                           context_.tell));
        for (const asked_function &function : asked_.functions) {
            context_.progress(done / steps);
            result.push_back(column_of(function));
            ++done;
        }
        context_.progress(1);
        return result;
    }

private:
    // ---- what answers are made of ----

    std::vector<lng> by_first_rows() const {
        const auto rows = by_.first_rows();
        return {rows.begin(), rows.end()};
    }

    // Their first rows. Made once, as many columns of the result are read from them.
    const answer &rows_of_groups() {
        if (first_rows_.values == nullptr)
            first_rows_ = rows_answer(by_first_rows());
        return first_rows_;
    }

    static answer rows_answer(std::vector<lng> rows) {
        return answer_of(form::row, std::move(rows));
    }

    result_column column_of(const asked_function &asked) {
        const column *const source = asked.columns.empty() ? nullptr : asked.columns[0].get();
        const value_type type =
            result_type(*asked.rule, source == nullptr ? value_type{} : source->type(),
                        (asked_.flags & VASK_WIDE_SUMS) != 0);
        answer values = answer_to(asked);
        if ((asked_.flags & VASK_KEEP_NULLS) != 0 && asked.rule->of != family::rows &&
            asked.rule->of != family::count && asked.rule->of != family::distinct)
            for (const column_pointer &column : asked.columns)
                drop_groups_with_nulls(*column, type, values);
        return finish_answer(asked.title, type, values, by_, source, nan_missing_, context_.tell);
    }

    void drop_groups_with_nulls(const column &of, const value_type &type, answer &values) {
        if (missing_in(of) == 0)
            return;
        const auto sizes = by_.sizes();
        const std::vector<lng> &counts = counts_of(of);
        if (values.present.empty())
            values.present = presence_of(values, type);
        for (std::size_t i = 0; i < counts.size(); ++i)
            if (counts[i] < sizes[i])
                values.present[i] = 0;
    }

    // Whether nobody sees what a group's values come to: its result is null because one of them is,
    // or it is left out.
    bool is_dropped(const column &of, std::size_t group) {
        const auto order = by_.order();
        return ((asked_.flags & VASK_KEEP_NULLS) != 0 &&
                counts_of(of)[group] < by_.sizes()[group]) ||
               (!by_.in_order() && std::find(order.begin(), order.end(), group) == order.end());
    }

    // What the answer's nils say, as bytes.
    std::vector<std::uint8_t> presence_of(const answer &values, const value_type &) const {
        std::vector<std::uint8_t> present(by_.count(), 1);
        if (values.no_nil)
            return present;
        const auto mark = [&]<class T>(std::type_identity<T>) {
            const auto all = values.as<T>(by_.count());
            for (std::size_t i = 0; i < present.size(); ++i)
                present[i] = all[i] != nil_of<T>();
        };
        switch (values.stored) {
            case form::bte:
                mark(std::type_identity<bte>{});
                break;
            case form::sht:
                mark(std::type_identity<sht>{});
                break;
            case form::int_:
            case form::rank:
                mark(std::type_identity<std::int32_t>{});
                break;
            case form::flt:
                mark(std::type_identity<flt>{});
                break;
            case form::dbl:
                mark(std::type_identity<dbl>{});
                break;
            case form::lng:
                mark(std::type_identity<lng>{});
                break;
            case form::row: {
                const auto rows = values.as<lng>(by_.count());
                for (std::size_t i = 0; i < present.size(); ++i)
                    present[i] = rows[i] >= 0;
                break;
            }
            case form::unsigned_lng:
            case form::wide:
                break;
        }
        return present;
    }

    std::uint64_t missing_in(const column &of) const {
        return of.missing(nan_missing_, context_.tell);
    }

    const numbers &numbers_of(const column &of) const {
        return of.as_numbers(nan_missing_, context_.tell);
    }

    // By row, whether there is a value.
    template <class T>
    static auto presence_in(const numbers &of) {
        return [values = of.values.template values<T>(),
                present = of.present.empty() ? nullptr : of.present.data(),
                beyond = of.beyond](std::size_t row) {
            return beyond ? present == nullptr || present[row] != 0 : values[row] != nil_of<T>();
        };
    }

    // Calls `f(std::type_identity<T>{})` with the type whose order and arithmetic the values have.
    template <class F>
    decltype(auto) visit_true_type(const column &of, const numbers &values, F f) {
        if (values.beyond && of.type().of == kind::uint64)
            return f(std::type_identity<std::uint64_t>{});
        return visit_storage(values.values.type(), f);
    }

    template <class T>
    gathered_values<T> gather(const column &of) {
        const numbers &values = numbers_of(of);
        using stored = std::conditional_t<std::is_same_v<T, std::uint64_t>, lng, T>;
        const auto all = values.values.template values<stored>();
        return gathered_values<T>(
            by_, [all](std::size_t row) { return static_cast<T>(all[row]); },
            presence_in<stored>(values));
    }

    void refuse_nan(const asked_function &asked) {
        const column &of = *asked.columns[0];
        if (is_float(of.type().of) && numbers_of(of).nan)
            fail(VASK_BAD_DATA,
                 "{}: column '{}' holds NaN, which has no place in an order; set "
                 "VASK_NAN_IS_NULL to leave NaN out as nulls, or remove them",
                 shown(asked.title), shown(of.name()));
    }

    // What an operator works on, for a reader.
    static std::string about(const asked_function &asked) {
        std::string text;
        for (const column_pointer &column : asked.columns)
            text += fmt::format("{}{}", text.empty() ? "" : ", ", column->name());
        if (asked.parameter)
            text += fmt::format(", {}", *asked.parameter);
        return text;
    }

    // The groups' map and extents behind an operator's columns, or its whole form's slot.
    answer call(const function_rule &rule, const std::vector<const bat *> &columns,
                std::string_view about, const bat *map = nullptr) {
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
            static constexpr std::array<std::pair<int, std::string_view>, 6> names{
                {{TYPE_bte, "bte"},
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

    // ---- functions ----

    answer answer_to(const asked_function &asked) {
        std::string key(asked.rule->name);
        for (const column_pointer &column : asked.columns)
            key += fmt::format(" {}", static_cast<const void *>(column.get()));
        if (asked.parameter)
            key += fmt::format(" {}", *asked.parameter);
        if (const auto known = done_.find(key); known != done_.end())
            return known->second;
        answer made = make_answer(asked);
        done_.emplace(std::move(key), made);
        return made;
    }

    answer part(std::string_view name, const asked_function &of,
                std::optional<double> parameter = {}) {
        return answer_to({&function(name), of.columns, parameter, of.title});
    }

    answer make_answer(const asked_function &asked) {
        switch (asked.rule->of) {
            case family::rows:
                return asked.rule->name == "size" ? sizes() : first_rows();
            case family::count:
                return asked.rule->name == "count" ? counts(*asked.columns[0])
                                                   : nulls(*asked.columns[0]);
            case family::distinct:
                return distinct(*asked.columns[0]);
            case family::sum:
                return asked.rule->name == "sum" ? sum(asked) : mean(asked);
            case family::weighted:
                return weighted_mean(asked);
            case family::extreme:
                if (asked.rule->result == result_rule::truth)
                    return truth(asked);
                return asked.rule->name == "range" ? range(asked) : extreme(asked);
            case family::moment:
                return moment(asked);
            case family::order:
                return order_statistic(asked);
            case family::pair:
                return pair_statistic(asked);
            case family::state:
                return part_of_state(asked);
            case family::place:
                break;
        }
        return place(asked);
    }

    answer sizes() {
        const auto all = by_.sizes();
        answer result = answer_of(form::lng, std::vector<lng>(all.begin(), all.end()));
        result.no_nil = true;
        return result;
    }

    answer first_rows() {
        answer result = answer_of(form::lng, by_first_rows());
        result.no_nil = by_.rows() > 0;
        if (by_.rows() == 0)
            result.present.assign(by_.count(), 0);
        return result;
    }

    const std::vector<lng> &counts_of(const column &of) {
        std::vector<lng> &counts = counts_[&of];
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
        const bat &values = !text           ? own->values
                            : of.has_heap() ? of.heap()
                                            : of.as_texts(context_.tell).codes;
        const std::array operands{&values, &by_.map(), &by_.extents()};
        const bat made = context_.operators.call("vask_grp_count", operands, of.name());
        const auto all = made.values<lng>();
        counts.assign(all.begin(), all.end());
        return counts;
    }

    answer counts(const column &of) {
        answer result = answer_of(form::lng, counts_of(of));
        result.no_nil = true;
        return result;
    }

    answer nulls(const column &of) {
        const auto sizes = by_.sizes();
        std::vector<lng> missing(counts_of(of));
        for (std::size_t i = 0; i < missing.size(); ++i)
            missing[i] = sizes[i] - missing[i];
        answer result = answer_of(form::lng, std::move(missing));
        result.no_nil = true;
        return result;
    }

    answer distinct(const column &of) {
        const std::vector<bat> &keys = of.as_keys(nan_missing_, context_.tell);
        std::vector<lng> result;
        if (keys.size() > 1 || (!is_text(of.type().of) && numbers_of(of).beyond)) {
            result.resize(by_.count());
            visit_values(keys[0], [&]<class T>(std::span<const T> all) {
                const numbers &own = numbers_of(of);
                gathered_values<T> values(
                    by_, [all](std::size_t row) { return all[row]; },
                    [&own](std::size_t row) {
                        return own.present.empty() || own.present[row] != 0;
                    });
                values.for_each([&](std::size_t group, std::span<T> own_values) {
                    std::sort(own_values.begin(), own_values.end());
                    result[group] =
                        std::unique(own_values.begin(), own_values.end()) - own_values.begin();
                });
            });
        } else {
            const std::array operands{&keys[0], &by_.map(), &by_.extents()};
            const bat made = context_.operators.call("AggrX3_countDistinct", operands, of.name());
            const auto all = made.values<lng>();
            result.assign(all.begin(), all.end());
            // To the operator the missing ones of a group are one more value.
            if (missing_in(of) > 0) {
                const std::vector<lng> &counts = counts_of(of);
                const auto sizes = by_.sizes();
                for (std::size_t i = 0; i < result.size(); ++i)
                    result[i] -= counts[i] < sizes[i] ? 1 : 0;
            }
        }
        answer made = answer_of(form::lng, std::move(result));
        made.no_nil = true;
        return made;
    }

    // ---- sums ----

    // Whether a sum of the values may not be a lng, of which the nil is none.
    bool may_leave_lng(const column &of, const numbers &values) const {
        if (values.beyond)
            return true;
        const auto rows = static_cast<wide_integer>(by_.rows());
        const auto [low, high] = [&]() -> std::array<lng, 2> {
            // Narrow types need no look at their values: there are not rows enough.
            if (values.values.type() != TYPE_lng)
                return {0, std::numeric_limits<std::int32_t>::max()};
            return of.bounds(context_.tell);
        }();
        return rows * std::max(-static_cast<wide_integer>(low), static_cast<wide_integer>(high)) >
               largest_lng;
    }

    // By group number, in 128 bits.
    const std::vector<wide_integer> &exact_sums(const column &of) {
        std::vector<wide_integer> &sums = exact_[&of];
        if (!sums.empty() || by_.count() == 0)
            return sums;
        sums.assign(by_.count(), 0);
        const numbers &values = numbers_of(of);
        const auto groups = by_.numbers();
        visit_true_type(of, values, [&]<class T>(std::type_identity<T>) {
            if constexpr (std::is_integral_v<T>) {
                using stored = std::conditional_t<std::is_same_v<T, std::uint64_t>, lng, T>;
                const auto all = values.values.values<stored>();
                const auto present = presence_in<stored>(values);
                for (std::size_t row = 0; row < all.size(); ++row)
                    if (present(row))
                        sums[groups.empty() ? 0 : static_cast<std::size_t>(groups[row])] +=
                            static_cast<T>(all[row]);
            }
        });
        return sums;
    }

    void mark_groups_without_values(const column &of, answer &values) {
        const std::vector<lng> &counts = counts_of(of);
        values.present.resize(counts.size());
        for (std::size_t i = 0; i < counts.size(); ++i)
            values.present[i] = counts[i] > 0;
    }

    answer sum(const asked_function &asked) {
        const column &of = *asked.columns[0];
        if (is_float(of.type().of))
            return sum_of_floats(of);
        const numbers &values = numbers_of(of);
        const bool wide = of.type().of == kind::decimal || (asked_.flags & VASK_WIDE_SUMS) != 0;
        if (!may_leave_lng(of, values)) {
            answer result = call(*asked.rule, {&values.values}, about(asked));
            result.no_nil = missing_in(of) == 0 && by_.rows() > 0;
            return result;
        }
        context_.tell(fmt::format("{}: the sum may leave 64 bits, so it is taken in 128",
                                  shown(asked.title)));
        const std::vector<wide_integer> &sums = exact_sums(of);
        answer result;
        if (wide) {
            result = answer_of(form::wide, sums);
        } else {
            std::vector<lng> narrow(sums.size());
            for (std::size_t i = 0; i < sums.size(); ++i) {
                narrow[i] = static_cast<lng>(sums[i]);
                if (narrow[i] != sums[i] && !is_dropped(of, i))
                    throw sum_overflow(
                        fmt::format("{}: the sum of column '{}'{} leaves 64 bits; set "
                                    "VASK_WIDE_SUMS for decimals of 38 digits, or cast the column "
                                    "to float64",
                                    shown(asked.title), shown(of.name()), by_.named(i)),
                        {asked.title, &of,
                         by_.is_whole() ? std::nullopt
                                        : std::optional<std::size_t>(by_.first_rows()[i])});
            }
            result = answer_of(form::lng, std::move(narrow));
        }
        mark_groups_without_values(of, result);
        return result;
    }

    // A group's sum may be the number that is the nil.
    answer sum_of_floats(const column &of) {
        if (numbers_of(of).beyond)
            return sum_in_row_order(of);
        answer result = call(function("sum"), {&doubles_of(of)}, of.name());
        const auto all = result.as<dbl>(by_.count());
        if (std::find(all.begin(), all.end(), nil_of<dbl>()) != all.end())
            mark_groups_without_values(of, result);
        else
            result.no_nil = true;
        return result;
    }

    // Of values that the operators would take for nils.
    answer sum_in_row_order(const column &of) {
        const numbers &values = numbers_of(of);
        const auto all = values.values.values<dbl>();
        const auto present = presence_in<dbl>(values);
        const auto groups = by_.numbers();
        std::vector<dbl> sums(by_.count());
        for (std::size_t row = 0; row < all.size(); ++row)
            if (present(row))
                sums[groups.empty() ? 0 : static_cast<std::size_t>(groups[row])] += all[row];
        answer result = answer_of(form::dbl, std::move(sums));
        mark_groups_without_values(of, result);
        return result;
    }

    // As dbl: own values where they are.
    const bat &doubles_of(const column &of) {
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

    answer mean(const asked_function &asked) {
        const column &of = *asked.columns[0];
        const std::vector<lng> &counts = counts_of(of);
        if (is_temporal(of.type().of)) {
            const std::vector<wide_integer> &sums = exact_sums(of);
            std::vector<lng> means(counts.size());
            for (std::size_t i = 0; i < counts.size(); ++i)
                means[i] = counts[i] == 0 ? 0 : rounded_quotient(sums[i], counts[i]);
            answer result = answer_of(form::lng, std::move(means));
            mark_groups_without_values(of, result);
            return result;
        }
        std::vector<dbl> means(counts.size(), nil_of<dbl>());
        if (is_float(of.type().of)) {
            const answer sums = part("sum", asked);
            const auto all = sums.as<dbl>(by_.count());
            for (std::size_t i = 0; i < counts.size(); ++i)
                means[i] = all[i] / static_cast<double>(counts[i]);
        } else if (may_leave_lng(of, numbers_of(of))) {
            const std::vector<wide_integer> &sums = exact_sums(of);
            for (std::size_t i = 0; i < counts.size(); ++i)
                means[i] = scaled_mean(sums[i], counts[i], of.type().scale);
        } else {
            const answer sums = part("sum", asked);
            const auto all = sums.as<lng>(by_.count());
            for (std::size_t i = 0; i < counts.size(); ++i)
                means[i] = scaled_mean(all[i], counts[i], of.type().scale);
        }
        answer result = answer_of(form::dbl, std::move(means));
        mark_groups_without_values(of, result);
        return result;
    }

    // Sums of products and of weights over rows with both values; nil without such a row.
    std::array<answer, 2> weighted_sums(const asked_function &asked) {
        const auto x = doubles_of(*asked.columns[0]).values<dbl>();
        const auto w = doubles_of(*asked.columns[1]).values<dbl>();
        const dbl nil = nil_of<dbl>();
        fresh_column<dbl> products(x.size());
        fresh_column<dbl> weights(x.size());
        for_rows(x.size(), [&](std::size_t begin, std::size_t end) {
            for (std::size_t row = begin; row < end; ++row) {
                const bool both = x[row] != nil && w[row] != nil;
                products.values[row] = both ? x[row] * w[row] : nil;
                weights.values[row] = both ? w[row] : nil;
            }
        });
        const bat product_column = std::move(products).finish();
        const bat weight_column = std::move(weights).finish();
        return {call(function("sum"), {&product_column}, about(asked)),
                call(function("sum"), {&weight_column}, asked.columns[1]->name())};
    }

    answer weighted_mean(const asked_function &asked) {
        const auto [above, below] = weighted_sums(asked);
        const auto sums = above.as<dbl>(by_.count());
        const auto totals = below.as<dbl>(by_.count());
        const dbl nil = nil_of<dbl>();
        std::vector<dbl> means(by_.count(), nil);
        for (std::size_t i = 0; i < means.size(); ++i)
            if (sums[i] != nil && totals[i] != nil && totals[i] != 0)
                means[i] = sums[i] / totals[i];
        return answer_of(form::dbl, std::move(means));
    }

    // ---- extremes ----

    answer extreme(const asked_function &asked) {
        const column &of = *asked.columns[0];
        if (is_text(of.type().of)) {
            answer result =
                call(*asked.rule, {&of.as_ranked_texts(context_.tell).ranks}, about(asked));
            result.stored = form::rank;
            return result;
        }
        if (!asked_.extremes_of_nan)
            refuse_nan(asked);
        const numbers &values = numbers_of(of);
        if (!values.beyond)
            return call(*asked.rule, {&values.values}, about(asked));
        const bool least = asked.rule->name == "min";
        return by_group(of, [least]<class T>(std::span<T> own) {
            return least ? *std::min_element(own.begin(), own.end())
                         : *std::max_element(own.begin(), own.end());
        });
    }

    // The extreme of whether values are 0; a NaN is not.
    answer truth(const asked_function &asked) {
        const numbers &values = numbers_of(*asked.columns[0]);
        const bat truths = visit_values(values.values, [&]<class T>(std::span<const T> all) {
            const auto present = presence_in<T>(values);
            fresh_column<bte> made(all.size());
            for_rows(all.size(), [&](std::size_t begin, std::size_t end) {
                for (std::size_t row = begin; row < end; ++row)
                    made.values[row] =
                        present(row) ? static_cast<bte>(all[row] != T{0}) : nil_of<bte>();
            });
            return std::move(made).finish(
                {.nil = values.missing > 0, .nonil = values.missing == 0});
        });
        return call(function(asked.rule->name == "all_true" ? "min" : "max"), {&truths},
                    about(asked));
    }

    // `work` gives a value of the group's values, of which there is at least one.
    template <class Work>
    answer by_group(const column &of, const Work &work) {
        return visit_true_type(of, numbers_of(of), [&]<class T>(std::type_identity<T>) {
            gathered_values<T> values = gather<T>(of);
            std::vector<T> found(by_.count());
            std::vector<std::uint8_t> present(by_.count());
            values.for_each([&](std::size_t group, std::span<T> own) {
                if (own.empty())
                    return;
                present[group] = 1;
                found[group] = work(own);
            });
            answer result = answer_of(form_of<T>(), std::move(found));
            result.present = std::move(present);
            return result;
        });
    }

    template <class T>
    static constexpr form form_of() {
        if constexpr (std::is_same_v<T, std::uint64_t>)
            return form::unsigned_lng;
        else if constexpr (std::is_same_v<T, bte>)
            return form::bte;
        else if constexpr (std::is_same_v<T, sht>)
            return form::sht;
        else if constexpr (std::is_same_v<T, std::int32_t>)
            return form::int_;
        else if constexpr (std::is_same_v<T, flt>)
            return form::flt;
        else if constexpr (std::is_same_v<T, dbl>)
            return form::dbl;
        else
            return form::lng;
    }

    answer range(const asked_function &asked) {
        const column &of = *asked.columns[0];
        refuse_nan(asked);
        const answer low = part("min", asked);
        const answer high = part("max", asked);
        const std::vector<lng> &counts = counts_of(of);
        std::vector<dbl> distances(counts.size());
        std::vector<lng> whole(counts.size());
        bool too_far = false;
        std::size_t farthest = 0;
        visit_true_type(of, numbers_of(of), [&]<class T>(std::type_identity<T>) {
            const auto lows = low.as<T>(counts.size());
            const auto highs = high.as<T>(counts.size());
            for (std::size_t i = 0; i < counts.size(); ++i) {
                if (counts[i] == 0)
                    continue;
                if constexpr (std::is_floating_point_v<T>) {
                    distances[i] = static_cast<double>(highs[i]) - static_cast<double>(lows[i]);
                } else {
                    const wide_integer distance = static_cast<wide_integer>(highs[i]) - lows[i];
                    whole[i] = static_cast<lng>(distance);
                    if (distance > largest_lng && !too_far && !is_dropped(of, i)) {
                        too_far = true;
                        farthest = i;
                    }
                }
            }
        });
        if (too_far)
            fail(VASK_BAD_DATA,
                 "{}: the range of column '{}'{} leaves 64 bits; cast the column to float64",
                 shown(asked.title), shown(of.name()), by_.named(farthest));
        answer result = is_float(of.type().of) ? answer_of(form::dbl, std::move(distances))
                                               : answer_of(form::lng, std::move(whole));
        mark_groups_without_values(of, result);
        return result;
    }

    // ---- moments and pairs ----

    const centred_values &centred_of(const column &of) {
        const auto [at, is_new] = centred_.try_emplace(&of);
        if (is_new) {
            const numbers &values = numbers_of(of);
            const bool plain = !values.beyond && of.type().of != kind::decimal;
            at->second = centred(plain ? values.values : doubles_of(of), by_);
        }
        return at->second;
    }

    answer moment(const asked_function &asked) {
        return call(*asked.rule, {&centred_of(*asked.columns[0]).distances}, about(asked));
    }

    answer pair_statistic(const asked_function &asked) {
        // The operators refuse groups without rows at all.
        if (by_.rows() == 0)
            return answer_of(form::dbl, std::vector<dbl>(by_.count(), nil_of<dbl>()));
        const centred_values &first = centred_of(*asked.columns[0]);
        const centred_values &second = centred_of(*asked.columns[1]);
        answer result = call(*asked.rule, {&first.distances, &second.distances}, about(asked));
        if (asked.rule->name != "intercept")
            return result;
        // The line through the distances goes through the values when it is moved by their centres.
        const answer slopes = part("slope", asked);
        const auto at_centre = result.as<dbl>(by_.count());
        const auto slope = slopes.as<dbl>(by_.count());
        std::vector<dbl> moved(by_.count(), nil_of<dbl>());
        for (std::size_t i = 0; i < moved.size(); ++i)
            if (at_centre[i] != nil_of<dbl>() && slope[i] != nil_of<dbl>())
                moved[i] = first.centres[i] + (at_centre[i] - slope[i] * second.centres[i]);
        return answer_of(form::dbl, std::move(moved));
    }

    // ---- order statistics ----

    struct present_rows {
        bat values;
        bat map; // by group
    };

    const present_rows &present_in(const bat &values, std::uint64_t missing, const column &of) {
        const auto [at, is_new] = present_.try_emplace(&of);
        if (is_new && missing == 0) {
            at->second.values = bat::share(values.id());
            if (!by_.is_whole())
                at->second.map = bat::share(by_.map().id());
        } else if (is_new) {
            at->second.values = present_values(values, missing);
            if (!by_.is_whole())
                at->second.map = map_of_present(values, missing, by_.map(), at->second.values);
        }
        return at->second;
    }

    bool is_wide(const column &of) const {
        constexpr lng most = lng{1} << 53;
        if (is_text(of.type().of) || numbers_of(of).values.type() != TYPE_lng)
            return false;
        const auto [low, high] = of.bounds(context_.tell);
        return low < -most || high > most;
    }

    // Fractions that quantiles of one column ask for: where values are gathered, one selection
    // gives them all.
    void find_shared_quantiles() {
        for (const asked_function &asked : asked_.functions) {
            if (asked.rule->name == "iqr")
                fractions_[asked.columns[0].get()].insert({0.25, 0.75});
            else if (is_quantile(*asked.rule))
                fractions_[asked.columns[0].get()].insert(fraction_of(asked));
        }
    }

    struct quantiles {
        std::vector<double> fractions;
        std::vector<std::vector<dbl>> numbers; // by fraction, then group
        std::vector<std::vector<lng>> times;
    };

    const quantiles &quantiles_of(const column &of) {
        const auto [at, is_new] = quantiles_.try_emplace(&of);
        quantiles &made = at->second;
        if (!is_new)
            return made;
        const std::set<double> &wanted = fractions_[&of];
        made.fractions.assign(wanted.begin(), wanted.end());
        const std::size_t n = made.fractions.size();
        const bool times = is_temporal(of.type().of);
        if (times)
            made.times.assign(n, std::vector<lng>(by_.count()));
        else
            made.numbers.assign(n, std::vector<dbl>(by_.count(), nil_of<dbl>()));
        const double unit = scale_of(of);
        visit_true_type(of, numbers_of(of), [&]<class T>(std::type_identity<T>) {
            gathered_values<T> values = gather<T>(of);
            values.for_each([&](std::size_t group, std::span<T> own) {
                if (own.empty())
                    return;
                std::vector<std::array<T, 2>> found(n);
                std::vector<double> shares(n);
                select_quantiles<T>(own, made.fractions, found, shares);
                for (std::size_t i = 0; i < n; ++i)
                    if (times)
                        made.times[i][group] = between_times(
                            {static_cast<lng>(found[i][0]), static_cast<lng>(found[i][1])},
                            shares[i]);
                    else
                        made.numbers[i][group] = between(found[i], shares[i]) / unit;
            });
        });
        return made;
    }

    answer shared_quantile(const column &of, double fraction) {
        const quantiles &all = quantiles_of(of);
        const auto i = static_cast<std::size_t>(
            std::lower_bound(all.fractions.begin(), all.fractions.end(), fraction) -
            all.fractions.begin());
        answer result = is_temporal(of.type().of) ? answer_of(form::lng, all.times[i])
                                                  : answer_of(form::dbl, all.numbers[i]);
        mark_groups_without_values(of, result);
        return result;
    }

    answer order_statistic(const asked_function &asked) {
        const column &of = *asked.columns[0];
        const std::string_view name = asked.rule->name;
        const bool text = is_text(of.type().of);
        if (!text)
            refuse_nan(asked);
        if (!text && of.type().of == kind::null)
            return nothing();
        if (name == "iqr")
            return quartile_distance(asked);
        if (name == "mad") {
            const double unit = scale_of(of);
            return by_group_number(
                of, [unit]<class T>(std::span<T> own) { return median_distance(own) / unit; });
        }
        const bool beyond = !text && numbers_of(of).beyond;
        if (is_quantile(*asked.rule)) {
            // An operator selects four times as fast as values are gathered. Its last digits are
            // not exact, which would show in times, as they are whole, and in numbers beyond 2^53.
            if (beyond || is_temporal(of.type().of) || is_wide(of)) {
                fractions_[&of].insert(fraction_of(asked));
                return shared_quantile(of, fraction_of(asked));
            }
        } else if (beyond) {
            return ranked(asked);
        }
        const bat &values = text ? of.as_ranked_texts(context_.tell).ranks : numbers_of(of).values;
        const present_rows &present = present_in(values, missing_in(of), of);
        std::vector<const bat *> operands{&present.values};
        bat parameter;
        if (asked.parameter) {
            parameter =
                asked.rule->parameter->whole
                    ? refkernel::make_column(std::vector{static_cast<lng>(*asked.parameter)})
                    : refkernel::make_column(std::vector{*asked.parameter});
            operands.push_back(&parameter);
        }
        answer result =
            call(*asked.rule, operands, about(asked), by_.is_whole() ? nullptr : &present.map);
        if (text)
            result.stored = form::rank;
        if (is_quantile(*asked.rule))
            return as_type_of_values(of, std::move(result));
        return result;
    }

    answer nothing() const {
        answer result = answer_of(form::dbl, std::vector<dbl>(by_.count(), nil_of<dbl>()));
        result.present.assign(by_.count(), 0);
        return result;
    }

    // Decimals are divided by their scale.
    answer as_type_of_values(const column &of, answer numbers) {
        const double unit = scale_of(of);
        if (unit == 1)
            return numbers;
        const auto all = numbers.as<dbl>(by_.count());
        std::vector<dbl> scaled(all.size());
        for (std::size_t i = 0; i < all.size(); ++i)
            scaled[i] = all[i] == nil_of<dbl>() ? nil_of<dbl>() : all[i] / unit;
        return answer_of(form::dbl, std::move(scaled));
    }

    // `work` gives a dbl.
    template <class Work>
    answer by_group_number(const column &of, const Work &work) {
        return visit_true_type(of, numbers_of(of), [&]<class T>(std::type_identity<T>) {
            gathered_values<T> values = gather<T>(of);
            std::vector<dbl> found(by_.count(), nil_of<dbl>());
            values.for_each([&](std::size_t group, std::span<T> own) {
                if (!own.empty())
                    found[group] = work(own);
            });
            return answer_of(form::dbl, std::move(found));
        });
    }

    answer quartile_distance(const asked_function &asked) {
        const column &of = *asked.columns[0];
        const answer low = part("quantile", asked, 0.25);
        const answer high = part("quantile", asked, 0.75);
        answer result;
        if (is_temporal(of.type().of)) {
            std::vector<lng> distance(by_.count());
            const std::vector<lng> &counts = counts_of(of);
            for (std::size_t i = 0; i < distance.size(); ++i) {
                const wide_integer wide = static_cast<wide_integer>(high.as<lng>(by_.count())[i]) -
                                          low.as<lng>(by_.count())[i];
                distance[i] = static_cast<lng>(wide);
                if (wide > largest_lng && counts[i] > 0 && !is_dropped(of, i))
                    fail(VASK_BAD_DATA,
                         "{}: the distance of the quartiles of column '{}'{} leaves 64 bits; cast "
                         "the column to float64",
                         shown(asked.title), shown(of.name()), by_.named(i));
            }
            result = answer_of(form::lng, std::move(distance));
        } else {
            std::vector<dbl> distance(by_.count());
            for (std::size_t i = 0; i < distance.size(); ++i)
                distance[i] = high.as<dbl>(by_.count())[i] - low.as<dbl>(by_.count())[i];
            result = answer_of(form::dbl, std::move(distance));
        }
        mark_groups_without_values(of, result);
        return result;
    }

    // Largest and mode of values that the operators cannot take.
    answer ranked(const asked_function &asked) {
        const column &of = *asked.columns[0];
        const bool mode = asked.rule->name == "mode";
        const auto k = static_cast<std::size_t>(asked.parameter.value_or(1));
        return visit_true_type(of, numbers_of(of), [&]<class T>(std::type_identity<T>) {
            gathered_values<T> values = gather<T>(of);
            std::vector<T> found(by_.count());
            std::vector<std::uint8_t> present(by_.count());
            values.for_each([&](std::size_t group, std::span<T> own) {
                std::optional<T> value;
                if (mode) {
                    value = most_frequent(own);
                } else if (own.size() >= k) {
                    const auto at = own.end() - static_cast<std::ptrdiff_t>(k);
                    std::nth_element(own.begin(), at, own.end());
                    value = *at;
                }
                present[group] = value.has_value();
                found[group] = value.value_or(T{});
            });
            answer result = answer_of(form_of<T>(), std::move(found));
            result.present = std::move(present);
            return result;
        });
    }

    // ---- states ----

    // Mean, less the centre, and centred sums of squares and cubes of a group's values.
    struct moment_states {
        std::vector<dbl> mean;
        std::vector<dbl> m2;
        std::vector<dbl> m3;
    };

    // Sums by group of what `value(row)` gives where that is not the nil.
    template <class Value>
    std::vector<dbl> sums_of(const Value &value) {
        const auto rows = static_cast<std::size_t>(by_.rows());
        fresh_column<dbl> values(rows);
        for_rows(rows, [&](std::size_t begin, std::size_t end) {
            for (std::size_t row = begin; row < end; ++row)
                values.values[row] = value(row);
        });
        const bat column = std::move(values).finish();
        const answer sums = call(function("sum"), {&column}, "powers of distances");
        const auto all = sums.as<dbl>(by_.count());
        return {all.begin(), all.end()};
    }

    const moment_states &moments_of(const column &of) {
        const auto [at, is_new] = moments_.try_emplace(&of);
        moment_states &made = at->second;
        if (!is_new)
            return made;
        const centred_values &own = centred_of(of);
        const auto distance = own.distances.values<dbl>();
        const dbl nil = nil_of<dbl>();
        const auto power = [&](int exponent) {
            return sums_of([distance, nil, exponent](std::size_t row) {
                const double d = distance[row];
                return d == nil ? nil : exponent == 1 ? d : exponent == 2 ? d * d : d * d * d;
            });
        };
        made.mean = power(1);
        made.m2 = power(2);
        made.m3 = power(3);
        const std::vector<lng> &counts = counts_of(of);
        for (std::size_t i = 0; i < counts.size(); ++i) {
            if (counts[i] == 0)
                continue;
            const auto n = static_cast<double>(counts[i]);
            const double s1 = made.mean[i];
            const double s2 = made.m2[i];
            made.m3[i] += -3 * s1 * s2 / n + 2 * s1 * s1 * s1 / (n * n);
            made.m2[i] -= s1 * s1 / n;
            made.mean[i] = s1 / n;
        }
        return made;
    }

    // The same of two columns over the rows with both values.
    struct pair_states {
        std::vector<lng> n;
        std::array<std::vector<dbl>, 5> numbers; // mean x, mean y, m2 x, m2 y, co-moment
    };

    const pair_states &pairs_of(const column &x, const column &y) {
        const auto [at, is_new] = pairs_.try_emplace({&x, &y});
        pair_states &made = at->second;
        if (!is_new)
            return made;
        const centred_values &own_x = centred_of(x);
        const centred_values &own_y = centred_of(y);
        const auto dx = own_x.distances.values<dbl>();
        const auto dy = own_y.distances.values<dbl>();
        const dbl nil = nil_of<dbl>();
        const auto sums = [&](const auto &term) {
            return sums_of([&, dx, dy, nil](std::size_t row) {
                return dx[row] == nil || dy[row] == nil ? nil : term(dx[row], dy[row]);
            });
        };
        made.numbers = {sums([](double a, double) { return a; }),
                        sums([](double, double b) { return b; }),
                        sums([](double a, double) { return a * a; }),
                        sums([](double, double b) { return b * b; }),
                        sums([](double a, double b) { return a * b; })};
        const std::vector<dbl> counts = sums([](double, double) { return 1.0; });
        made.n.resize(counts.size());
        auto &[mean_x, mean_y, m2_x, m2_y, c] = made.numbers;
        for (std::size_t i = 0; i < counts.size(); ++i) {
            if (counts[i] == nil)
                continue;
            const double n = counts[i];
            made.n[i] = static_cast<lng>(n);
            c[i] -= mean_x[i] * mean_y[i] / n;
            m2_x[i] -= mean_x[i] * mean_x[i] / n;
            m2_y[i] -= mean_y[i] * mean_y[i] / n;
            mean_x[i] /= n;
            mean_y[i] /= n;
        }
        return made;
    }

    answer centres_of(const column &of) {
        answer result = answer_of(form::dbl, centred_of(of).centres);
        mark_groups_without_values(of, result);
        return result;
    }

    answer part_of_state(const asked_function &asked) {
        const std::string_view part = asked.rule->name.substr(asked.rule->name.find('.') + 1);
        const column &x = *asked.columns[0];
        if (part == "nulls") {
            std::vector<lng> nulls(by_.count());
            const auto sizes = by_.sizes();
            for (const column_pointer &column : asked.columns) {
                const std::vector<lng> &counts = counts_of(*column);
                for (std::size_t i = 0; i < nulls.size(); ++i)
                    nulls[i] += sizes[i] - counts[i];
            }
            answer result = answer_of(form::lng, std::move(nulls));
            result.no_nil = true;
            return result;
        }
        if (part == "products" || part == "weights")
            return weighted_sums(asked)[part == "products" ? 0 : 1];
        if (part == "high" || part == "low") {
            const std::vector<wide_integer> &sums = exact_sums(x);
            constexpr int low_bits = 32;
            std::vector<lng> halves(sums.size());
            for (std::size_t i = 0; i < sums.size(); ++i)
                halves[i] = part == "high" ? static_cast<lng>(sums[i] >> low_bits)
                                           : static_cast<lng>(sums[i] & 0xffffffff);
            answer result = answer_of(form::lng, std::move(halves));
            mark_groups_without_values(x, result);
            return result;
        }
        if (asked.columns.size() == 1) {
            if (part == "centre")
                return centres_of(x);
            const moment_states &all = moments_of(x);
            return answer_of(form::dbl, part == "mean" ? all.mean : part == "m2" ? all.m2 : all.m3);
        }
        if (part == "centre_x" || part == "centre_y")
            return centres_of(*asked.columns[part == "centre_x" ? 0 : 1]);
        const pair_states &all = pairs_of(x, *asked.columns[1]);
        if (part == "n_xy") {
            answer result = answer_of(form::lng, all.n);
            result.no_nil = true;
            return result;
        }
        static constexpr std::array<std::string_view, 5> numbers{"mean_x", "mean_y", "m2_x", "m2_y",
                                                                 "c_xy"};
        const auto i = static_cast<std::size_t>(std::find(numbers.begin(), numbers.end(), part) -
                                                numbers.begin());
        return answer_of(form::dbl, all.numbers[i]);
    }

    // ---- values of certain rows ----

    answer place(const asked_function &asked) {
        const column &of = *asked.columns[0];
        const bool last = asked.rule->name == "last";
        const std::uint64_t missing = missing_in(of);
        std::vector<lng> rows(by_.count(), -1);
        if (by_.rows() == 0)
            return rows_answer(std::move(rows));
        if (!last && missing == 0)
            return rows_of_groups();
        const auto numbers = by_.numbers();
        const auto find = [&](const auto &is_present) {
            const auto count = static_cast<std::size_t>(by_.rows());
            for (std::size_t i = 0; i < count; ++i) {
                const std::size_t row = last ? i : count - 1 - i;
                if (is_present(row))
                    rows[numbers.empty() ? 0 : static_cast<std::size_t>(numbers[row])] =
                        static_cast<lng>(row);
            }
        };
        if (missing == 0)
            find([](std::size_t) { return true; });
        else if (is_text(of.type().of))
            find([codes = of.as_texts(context_.tell).codes.values<std::int32_t>()](
                     std::size_t row) { return codes[row] != nil_of<std::int32_t>(); });
        else
            visit_values(numbers_of(of).values, [&]<class T>(std::span<const T>) {
                find(presence_in<T>(numbers_of(of)));
            });
        return rows_answer(std::move(rows));
    }

    const query &asked_;
    const query_context &context_;
    bool nan_missing_;
    groups by_;
    answer first_rows_;
    std::map<std::string, answer> done_;
    std::map<const column *, std::vector<lng>> counts_;
    std::map<const column *, std::vector<wide_integer>> exact_;
    std::map<const column *, bat> doubles_;
    std::map<const column *, centred_values> centred_;
    std::map<const column *, present_rows> present_;
    std::map<const column *, moment_states> moments_;
    std::map<std::pair<const column *, const column *>, pair_states> pairs_;
    std::map<const column *, std::set<double>> fractions_;
    std::map<const column *, quantiles> quantiles_;
};

} // namespace

group_request groups_of(const query &asked) {
    return {asked.by, (asked.flags & (VASK_NAN_IS_NULL | VASK_NAN_KEY_IS_NULL)) != 0,
            (asked.flags & VASK_DROP_NULL_KEYS) != 0, (asked.flags & VASK_SORT_GROUPS) != 0};
}

asked_function bind_function(std::string_view name, std::vector<column_pointer> columns,
                             double parameter, std::string title) {
    const auto [rule, given] = find_function(name);
    if (columns.size() != rule->columns)
        fail(VASK_BAD_REQUEST, "{}: {} takes {} column{}, not {}", shown(title), rule->name,
             rule->columns, rule->columns == 1 ? "" : "s", columns.size());
    for (const column_pointer &column : columns)
        if (!accepts(rule->accepts, column->type().of))
            fail(VASK_BAD_REQUEST, "{}: column '{}' is {}; {} takes {}", shown(title),
                 shown(column->name()), name_of(column->type()), rule->name,
                 name_of(rule->accepts));
    asked_function result{rule, std::move(columns), given, std::move(title)};
    if (rule->parameter == nullptr || given) {
        if (parameter != 0 && parameter == parameter)
            fail(VASK_BAD_REQUEST, "{}: {} takes no parameter, but {} was given",
                 shown(result.title), shown(name), parameter);
        return result;
    }
    const parameter_rule &bounds = *rule->parameter;
    // Written so that a NaN is out of bounds, too.
    if (!(parameter >= bounds.lowest && parameter <= bounds.highest) ||
        (bounds.whole && parameter != std::floor(parameter)))
        fail(VASK_BAD_REQUEST, "{}: the parameter {} of {} is out of bounds; it is {}",
             shown(result.title), parameter, rule->name, bounds.meaning);
    result.parameter = parameter;
    return result;
}

std::vector<result_column> run_query(std::int64_t rows, const query &asked,
                                     const query_context &context) {
    return query_run(rows, asked, context).run();
}

} // namespace vask::table
