#include "table/plan.h"

#include "distinct/count_distinct.h"

#include "table/errors.h"
#include "table/large_vector.h"
#include "table/parallel.h"
#include "table/shared_parts.h"
#include "table/value_statistics.h"
#include "table/whole_distinct.h"

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

// ---- the plan -----------------------------------------------------------------------------------

class query_run {
public:
    query_run(std::int64_t rows, const query &asked, const query_context &context)
        : asked_(asked),
          context_(context),
          nan_missing_((asked.flags & VASK_NAN_IS_NULL) != 0),
          parts_(rows, asked, context),
          by_(parts_.by()) {}

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
                drop_groups_with_nulls(*column, values);
        return finish_answer(asked.title, type, values, by_, source, nan_missing_, context_.tell);
    }

    void drop_groups_with_nulls(const column &of, answer &values) {
        if (parts_.missing_in(of) == 0)
            return;
        const auto sizes = by_.sizes();
        const large_vector<lng> &counts = parts_.counts_of(of);
        if (values.present.empty())
            values.present = presence_of(values, by_.count());
        for (std::size_t i = 0; i < counts.size(); ++i)
            if (counts[i] < sizes[i])
                values.present[i] = 0;
    }

    // Whether nobody sees what a group's values come to: its result is null because one of them is,
    // or it is left out.
    bool is_dropped(const column &of, std::size_t group) {
        const auto order = by_.order();
        return ((asked_.flags & VASK_KEEP_NULLS) != 0 &&
                parts_.counts_of(of)[group] < by_.sizes()[group]) ||
               (!by_.in_order() && std::find(order.begin(), order.end(), group) == order.end());
    }

    void refuse_nan(const asked_function &asked) {
        const column &of = *asked.columns[0];
        if (is_float(of.type().of) && parts_.numbers_of(of).nan)
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
                return asked.rule->name == "count" ? counts(*asked.columns[0]) : nulls(asked);
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
                return parts_.distances().statistic(asked);
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
        answer result = answer_of(form::lng, large_vector<lng>(all.begin(), all.end()));
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

    answer counts(const column &of) {
        answer result = answer_of(form::lng, parts_.counts_of(of));
        result.no_nil = true;
        return result;
    }

    // Of all the columns together.
    answer nulls(const asked_function &asked) {
        std::vector<lng> missing(by_.count());
        const auto sizes = by_.sizes();
        for (const column_pointer &column : asked.columns) {
            const large_vector<lng> &counts = parts_.counts_of(*column);
            for (std::size_t i = 0; i < missing.size(); ++i)
                missing[i] += sizes[i] - counts[i];
        }
        answer result = answer_of(form::lng, std::move(missing));
        result.no_nil = true;
        return result;
    }

    answer distinct(const column &of) {
        const std::vector<bat> &keys = of.as_keys(nan_missing_, context_.tell);
        // In a group of one row a value is the only one.
        if (by_.count() == static_cast<std::size_t>(by_.rows()))
            return counts(of);
        if (by_.is_whole() && keys.size() == 1 && !is_float(of.type().of) &&
            (is_text(of.type().of) || !parts_.numbers_of(of).beyond))
            if (const auto known = different_within(keys[0], of.bounds(context_.tell))) {
                answer result = answer_of(form::lng, std::vector{static_cast<lng>(*known)});
                result.no_nil = true;
                return result;
            }
        std::vector<lng> result;
        if (keys.size() > 1 || by_.count() > most_groups_counted_in_parallel ||
            (!is_text(of.type().of) && parts_.numbers_of(of).beyond)) {
            result.resize(by_.count());
            const present_rows &rows = parts_.present_in(of, keys[0]);
            visit_values(keys[0], [&]<class T>(std::span<const T>) {
                gathered_values<T, T>(rows, by_).for_each([&](std::size_t group, std::span<T> own) {
                    std::sort(own.begin(), own.end());
                    result[group] = std::unique(own.begin(), own.end()) - own.begin();
                });
            });
        } else {
            const std::array operands{&keys[0], &by_.map(), &by_.extents()};
            const bat made = context_.operators.call("AggrX3_countDistinct", operands, of.name());
            const auto all = made.values<lng>();
            result.assign(all.begin(), all.end());
            // To the operator the missing ones of a group are one more value.
            if (parts_.missing_in(of) > 0) {
                const large_vector<lng> &counts = parts_.counts_of(of);
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

    answer sum(const asked_function &asked) {
        const column &of = *asked.columns[0];
        if (is_float(of.type().of))
            return sum_of_floats(of);
        const numbers &values = parts_.numbers_of(of);
        const bool wide = of.type().of == kind::decimal || (asked_.flags & VASK_WIDE_SUMS) != 0;
        if (!parts_.may_leave_lng(of)) {
            answer result = parts_.call(*asked.rule, {&values.values}, about(asked));
            result.no_nil = parts_.missing_in(of) == 0 && by_.rows() > 0;
            return result;
        }
        context_.tell(fmt::format("{}: the sum may leave 64 bits, so it is taken in 128",
                                  shown(asked.title)));
        const std::vector<wide_integer> &sums = parts_.exact_sums(of);
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
        parts_.mark_groups_without_values(of, result);
        return result;
    }

    // A group's sum may be the number that is the nil.
    answer sum_of_floats(const column &of) {
        if (const std::optional<dbl> known = parts_.distances().whole_sum(of)) {
            answer result = answer_of(form::dbl, std::vector{*known});
            result.no_nil = *known != nil_of<dbl>();
            if (!result.no_nil)
                parts_.mark_groups_without_values(of, result);
            return result;
        }
        if (parts_.numbers_of(of).beyond)
            return sum_in_row_order(of);
        answer result = parts_.call(function("sum"), {&parts_.doubles_of(of)}, of.name());
        const auto all = result.as<dbl>(by_.count());
        if (std::find(all.begin(), all.end(), nil_of<dbl>()) != all.end())
            parts_.mark_groups_without_values(of, result);
        else
            result.no_nil = true;
        return result;
    }

    // Of values that the operators would take for nils.
    answer sum_in_row_order(const column &of) {
        const numbers &values = parts_.numbers_of(of);
        const auto all = values.values.values<dbl>();
        const auto present = shared_parts::presence_in<dbl>(values);
        const auto number_of = by_.number_of_row();
        std::vector<dbl> sums(by_.count());
        for (std::size_t row = 0; row < all.size(); ++row)
            if (present(row))
                sums[number_of(row)] += all[row];
        answer result = answer_of(form::dbl, std::move(sums));
        parts_.mark_groups_without_values(of, result);
        return result;
    }

    answer mean(const asked_function &asked) {
        const column &of = *asked.columns[0];
        const large_vector<lng> &counts = parts_.counts_of(of);
        const auto by_group = [&](const auto &mean_of) {
            using mean = decltype(mean_of(0));
            large_vector<mean> means(counts.size());
            for_rows(counts.size(), [&](std::size_t begin, std::size_t end) {
                for (std::size_t i = begin; i < end; ++i)
                    means[i] = mean_of(i);
            });
            answer result = answer_of(form_of<mean>(), std::move(means));
            parts_.mark_groups_without_values(of, result);
            return result;
        };
        const int scale = of.type().scale;
        if (is_temporal(of.type().of)) {
            const std::vector<wide_integer> &sums = parts_.exact_sums(of);
            return by_group([&](std::size_t i) {
                return counts[i] == 0 ? 0 : rounded_quotient(sums[i], counts[i]);
            });
        }
        if (!is_float(of.type().of) && parts_.may_leave_lng(of)) {
            const std::vector<wide_integer> &sums = parts_.exact_sums(of);
            return by_group([&](std::size_t i) { return scaled_mean(sums[i], counts[i], scale); });
        }
        const answer sums = part("sum", asked);
        if (is_float(of.type().of))
            return by_group([&, all = sums.as<dbl>(by_.count())](std::size_t i) {
                return all[i] / static_cast<double>(counts[i]);
            });
        return by_group([&, all = sums.as<lng>(by_.count())](std::size_t i) {
            return scaled_mean(all[i], counts[i], scale);
        });
    }

    answer weighted_mean(const asked_function &asked) {
        const weighted_sums &both = parts_.weighted_sums_of(*asked.columns[0], *asked.columns[1]);
        const auto sums = both.products.as<dbl>(by_.count());
        const auto totals = both.weights.as<dbl>(by_.count());
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
                parts_.call(*asked.rule, {&of.as_ranked_texts(context_.tell).ranks}, about(asked));
            result.stored = form::rank;
            return result;
        }
        if (!asked_.extremes_of_nan)
            refuse_nan(asked);
        const numbers &values = parts_.numbers_of(of);
        const bool least = asked.rule->name == "min";
        if (by_.is_whole())
            if (std::optional<answer> known = known_extreme(values, least))
                return std::move(*known);
        if (!values.beyond)
            return parts_.call(*asked.rule, {&values.values}, about(asked));
        return by_group(of, [least]<class T>(std::span<T> own) {
            return std::optional(least ? *std::min_element(own.begin(), own.end())
                                       : *std::max_element(own.begin(), own.end()));
        });
    }

    // What was seen when the column was looked through. Of -0.0 and 0.0 the first one counts, which
    // is known to the operator alone where there are both.
    static std::optional<answer> known_extreme(const numbers &values, bool least) {
        return visit_storage(
            values.values.type(), [&]<class T>(std::type_identity<T>) -> std::optional<answer> {
                T known{};
                if constexpr (std::is_floating_point_v<T>) {
                    if (!values.float_bounds)
                        return std::nullopt;
                    known = static_cast<T>((*values.float_bounds)[least ? 0 : 1]);
                    if (known == T{0} && values.minus_zero)
                        return std::nullopt;
                } else {
                    if (!values.bounds)
                        return std::nullopt;
                    known = static_cast<T>(least ? values.bounds->low : values.bounds->high);
                }
                return answer_of(form_of<T>(), std::vector<T>{known});
            });
    }

    // The extreme of whether values are 0; a NaN is not.
    answer truth(const asked_function &asked) {
        const numbers &values = parts_.numbers_of(*asked.columns[0]);
        const bat truths = visit_values(values.values, [&]<class T>(std::span<const T> all) {
            const auto present = shared_parts::presence_in<T>(values);
            fresh_column<bte> made(all.size());
            for_rows(all.size(), [&](std::size_t begin, std::size_t end) {
                for (std::size_t row = begin; row < end; ++row)
                    made.values[row] =
                        present(row) ? static_cast<bte>(all[row] != T{0}) : nil_of<bte>();
            });
            return std::move(made).finish(
                {.nil = values.missing > 0, .nonil = values.missing == 0});
        });
        return parts_.call(function(asked.rule->name == "all_true" ? "min" : "max"), {&truths},
                           about(asked));
    }

    // `work` gives a value for the group's values, of which there is at least one, or nothing.
    template <class Work>
    answer by_group(const column &of, const Work &work) {
        return parts_.visit_true_type(of, [&]<class T>(std::type_identity<T>) {
            using made = typename std::invoke_result_t<const Work &, std::span<T>>::value_type;
            std::vector<made> found(by_.count());
            std::vector<std::uint8_t> present(by_.count());
            parts_.for_each_group<T>(of, [&](std::size_t group, std::span<T> own) {
                const std::optional<made> value = own.empty() ? std::nullopt : work(own);
                present[group] = value.has_value();
                found[group] = value.value_or(made{});
            });
            answer result = answer_of(form_of<made>(), std::move(found));
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
        const large_vector<lng> &counts = parts_.counts_of(of);
        std::vector<dbl> distances(counts.size());
        std::vector<lng> whole(counts.size());
        bool too_far = false;
        std::size_t farthest = 0;
        parts_.visit_true_type(of, [&]<class T>(std::type_identity<T>) {
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
        parts_.mark_groups_without_values(of, result);
        return result;
    }

    // ---- moments and pairs ----

    answer pair_statistic(const asked_function &asked) {
        answer result = parts_.distances().statistic(asked);
        if (asked.rule->name != "intercept")
            return result;
        // The line through the distances goes through the values when it is moved by their centres.
        const centred_values &first = parts_.distances().centred_of(*asked.columns[0]);
        const centred_values &second = parts_.distances().centred_of(*asked.columns[1]);
        const answer slopes = part("slope", asked);
        const auto at_centre = result.as<dbl>(by_.count());
        const auto slope = slopes.as<dbl>(by_.count());
        std::vector<dbl> moved(by_.count(), nil_of<dbl>());
        for (std::size_t i = 0; i < moved.size(); ++i)
            if (at_centre[i] != nil_of<dbl>() && slope[i] != nil_of<dbl>())
                moved[i] = first.centres()[i] + (at_centre[i] - slope[i] * second.centres()[i]);
        return answer_of(form::dbl, std::move(moved));
    }

    // ---- order statistics ----

    answer shared_quantile(const column &of, double fraction) {
        const quantiles &all = parts_.quantiles_of(of);
        const auto i = static_cast<std::size_t>(
            std::lower_bound(all.fractions.begin(), all.fractions.end(), fraction) -
            all.fractions.begin());
        answer result = is_temporal(of.type().of) ? answer_of(form::lng, all.times[i])
                                                  : answer_of(form::dbl, all.numbers[i]);
        parts_.mark_groups_without_values(of, result);
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
            return by_group(of, [unit]<class T>(std::span<T> own) {
                return std::optional(median_distance(own) / unit);
            });
        }
        const bool beyond = !text && parts_.numbers_of(of).beyond;
        if (is_quantile(*asked.rule)) {
            if (parts_.are_quantiles_shared(of))
                return shared_quantile(of, fraction_of(asked));
        } else if (beyond) {
            return ranked(asked);
        }
        const bat &values =
            text ? of.as_ranked_texts(context_.tell).ranks : parts_.numbers_of(of).values;
        const present_rows &present = parts_.present_in(of, values);
        std::vector<const bat *> operands{&present.values};
        bat parameter;
        if (asked.parameter) {
            parameter =
                asked.rule->parameter->whole
                    ? refkernel::make_column(std::vector{static_cast<lng>(*asked.parameter)})
                    : refkernel::make_column(std::vector{*asked.parameter});
            operands.push_back(&parameter);
        }
        answer result = parts_.call(*asked.rule, operands, about(asked),
                                    by_.is_whole() ? nullptr : &present.map);
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

    answer quartile_distance(const asked_function &asked) {
        const column &of = *asked.columns[0];
        const answer low = part("quantile", asked, 0.25);
        const answer high = part("quantile", asked, 0.75);
        answer result;
        if (is_temporal(of.type().of)) {
            std::vector<lng> distance(by_.count());
            const large_vector<lng> &counts = parts_.counts_of(of);
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
        parts_.mark_groups_without_values(of, result);
        return result;
    }

    // Largest and mode of values that the operators cannot take.
    answer ranked(const asked_function &asked) {
        const column &of = *asked.columns[0];
        const bool mode = asked.rule->name == "mode";
        const auto k = static_cast<std::size_t>(asked.parameter.value_or(1));
        return by_group(of, [mode, k]<class T>(std::span<T> own) {
            if (mode)
                return most_frequent(own);
            if (own.size() < k)
                return std::optional<T>();
            const auto at = own.end() - static_cast<std::ptrdiff_t>(k);
            std::nth_element(own.begin(), at, own.end());
            return std::optional(*at);
        });
    }

    // ---- states ----

    answer centres_of(const column &of) {
        answer result = answer_of(form::dbl, parts_.distances().centred_of(of).centres());
        parts_.mark_groups_without_values(of, result);
        return result;
    }

    answer part_of_state(const asked_function &asked) {
        const std::string_view part = asked.rule->name.substr(asked.rule->name.find('.') + 1);
        const column &x = *asked.columns[0];
        if (part == "nulls")
            return nulls(asked);
        if (part == "products" || part == "weights") {
            const weighted_sums &sums = parts_.weighted_sums_of(x, *asked.columns[1]);
            return part == "products" ? sums.products : sums.weights;
        }
        if (part == "high" || part == "low") {
            const std::vector<wide_integer> &sums = parts_.exact_sums(x);
            constexpr int low_bits = 32;
            std::vector<lng> halves(sums.size());
            for (std::size_t i = 0; i < sums.size(); ++i)
                halves[i] = part == "high" ? static_cast<lng>(sums[i] >> low_bits)
                                           : static_cast<lng>(sums[i] & 0xffffffff);
            answer result = answer_of(form::lng, std::move(halves));
            parts_.mark_groups_without_values(x, result);
            return result;
        }
        if (asked.columns.size() == 1) {
            const moment_states &all = parts_.distances().moments_of(x);
            if (part == "centre")
                return centres_of(x);
            return answer_of(form::dbl, part == "mean" ? all.mean : part == "m2" ? all.m2 : all.m3);
        }
        const pair_states &all = parts_.distances().pairs_of(x, *asked.columns[1]);
        if (part == "centre_x" || part == "centre_y")
            return centres_of(*asked.columns[part == "centre_x" ? 0 : 1]);
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
        const std::uint64_t missing = parts_.missing_in(of);
        std::vector<lng> rows(by_.count(), -1);
        if (by_.rows() == 0)
            return rows_answer(std::move(rows));
        if (!last && missing == 0)
            return rows_of_groups();
        const auto number_of = by_.number_of_row();
        const auto find = [&](const auto &is_present) {
            const auto count = static_cast<std::size_t>(by_.rows());
            for (std::size_t i = 0; i < count; ++i) {
                const std::size_t row = last ? i : count - 1 - i;
                if (is_present(row))
                    rows[number_of(row)] = static_cast<lng>(row);
            }
        };
        if (missing == 0)
            find([](std::size_t) { return true; });
        else if (is_text(of.type().of))
            find([codes = of.as_texts(context_.tell).codes.values<std::int32_t>()](
                     std::size_t row) { return codes[row] != nil_of<std::int32_t>(); });
        else
            visit_values(parts_.numbers_of(of).values, [&]<class T>(std::span<const T>) {
                find(shared_parts::presence_in<T>(parts_.numbers_of(of)));
            });
        return rows_answer(std::move(rows));
    }

    const query &asked_;
    const query_context &context_;
    bool nan_missing_;
    shared_parts parts_;
    const groups &by_;
    answer first_rows_;
    std::map<std::string, answer> done_;
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
        fail(VASK_BAD_REQUEST, "{}: {} takes {} column{}, not {}", shown(title), shown(name),
             rule->columns, rule->columns == 1 ? "" : "s", columns.size());
    for (const column_pointer &column : columns)
        if (!accepts(rule->accepts, column->type().of))
            fail(VASK_BAD_REQUEST, "{}: column '{}' is {}; {} takes {}", shown(title),
                 shown(column->name()), name_of(column->type()), shown(name),
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
             shown(result.title), parameter, shown(name), bounds.meaning);
    result.parameter = parameter;
    return result;
}

std::vector<result_column> run_query(std::int64_t rows, const query &asked,
                                     const query_context &context) {
    return query_run(rows, asked, context).run();
}

} // namespace vask::table
