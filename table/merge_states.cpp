#include "table/errors.h"
#include "table/kernel_column.h"
#include "table/merged_moments.h"
#include "table/operands.h"
#include "table/result_rows.h"
#include "table/state_parts.h"
#include "table/states.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <memory>
#include <utility>

namespace vask::table {
namespace {

using refkernel::nil_of;

// The states that are found in a table, by the name of the part.
struct found_states {
    std::vector<std::pair<std::string, column_pointer>> parts;
    value_type type; //!< of the column that the function was asked of

    const column_pointer &part(std::string_view name, const std::string &title) const {
        for (const auto &[own, column] : parts)
            if (own == name)
                return column;
        fail(VASK_BAD_DATA, "{}: the states have no part '{}'; were they made by the same query?",
             shown(title), name);
    }
};

std::span<const dbl> doubles_of(const column &of, const teller &tell) {
    const numbers &all = of.as_numbers(false, tell);
    if (all.values.type() != TYPE_dbl)
        fail(VASK_BAD_DATA, "the state '{}' is {}, not float64", shown(of.name()),
             name_of(of.type()));
    return all.values.values<dbl>();
}

std::span<const lng> integers_of(const column &of, const teller &tell) {
    const numbers &all = of.as_numbers(false, tell);
    if (all.values.type() != TYPE_lng)
        fail(VASK_BAD_DATA, "the state '{}' is {}, not int64", shown(of.name()),
             name_of(of.type()));
    return all.values.values<lng>();
}

class merging {
public:
    merging(const merge_request &asked, const query_context &context)
        : asked_(asked), context_(context) {
        if (asked_.parts.empty())
            fail(VASK_BAD_REQUEST, "there are no states to merge");
        for (const states_part &part : asked_.parts)
            rows_ += part.rows;
        check_rows(rows_);
        (void)joined(states_version);
        for (const std::string &key : asked_.by)
            keys_.push_back(joined(key));
        for (std::size_t i = 0; i < asked_.functions.size(); ++i) {
            require_state(*asked_.functions[i].rule, asked_.functions[i].title);
            states_.push_back(states_of(i));
        }
        groups_ = std::make_unique<groups>(rows_, groups_of(bare_query()), context_.operators,
                                           context_.tell);
    }

    std::vector<result_column> run() { return asked_.finish ? finished() : states_again(); }

private:
    const column_pointer *found_in(const states_part &part, std::string_view name) const {
        for (const column_pointer &column : part.columns)
            if (column->name() == name)
                return &column;
        return nullptr;
    }

    column_pointer joined(const std::string &name) const {
        std::vector<column_pointer> parts;
        for (const states_part &part : asked_.parts) {
            const column_pointer *const found = found_in(part, name);
            if (found == nullptr)
                fail(VASK_BAD_DATA, "part {} of the states has no column '{}'; {}",
                     parts.size() + 1, shown(name),
                     name == states_version ? "it is no table of states, or one of another version"
                                            : "were they made by the same query?");
            parts.push_back(*found);
        }
        return column::joined(name, parts);
    }

    found_states states_of(std::size_t function) const {
        const std::string prefix = fmt::format("vask.{}.", function);
        found_states result;
        for (const column_pointer &column : asked_.parts.front().columns) {
            const std::string &name = column->name();
            const std::size_t colon = name.find(':');
            if (name.compare(0, prefix.size(), prefix) != 0 || colon == std::string::npos)
                continue;
            const auto type = parse_format(std::string_view(name).substr(colon + 1));
            if (!type)
                fail(VASK_BAD_DATA, "the state '{}' is of an unknown type", shown(name));
            result.type = *type;
            result.parts.emplace_back(name.substr(prefix.size(), colon - prefix.size()),
                                      joined(name));
        }
        if (result.parts.empty())
            fail(VASK_BAD_DATA, "{}: the states have none of it; were they made by the same query?",
                 shown(asked_.functions[function].title));
        return result;
    }

    query bare_query() const {
        query result;
        result.by = keys_;
        result.flags = asked_.flags & ~unsigned{VASK_KEEP_NULLS | VASK_WIDE_SUMS};
        if (!asked_.finish)
            result.flags &= ~unsigned{VASK_SORT_GROUPS | VASK_DROP_NULL_KEYS};
        return result;
    }

    std::int64_t shown_groups() const { return static_cast<std::int64_t>(groups_->order().size()); }

    // The parts of the states that merge by a function of the query, one column each.
    std::vector<result_column> merged_by_functions() {
        query inner = bare_query();
        for (std::size_t i = 0; i < states_.size(); ++i) {
            const merged_function &function = asked_.functions[i];
            for (const state_part &part : parts_of(*function.rule, states_[i].type.of))
                if (!part.merged_by.empty())
                    add_function(inner, part.merged_by, states_[i].part(part.name, function.title),
                                 i, part.name);
            if (has_nulls(i))
                add_function(inner, "sum", states_[i].part("nulls", function.title), i, "nulls");
            if (asked_.finish && function.rule->of == family::distinct)
                add_function(inner, "count_distinct", states_[i].part("value", function.title), i,
                             "distinct");
        }
        return run_query(rows_, inner, context_);
    }

    void add_function(query &inner, std::string_view name, const column_pointer &of, std::size_t i,
                      std::string_view part) const {
        inner.functions.push_back({&function(name), {of}, {}, part_name(i, part, states_[i].type)});
    }

    bool has_nulls(std::size_t function) const {
        return (asked_.flags & VASK_KEEP_NULLS) != 0 &&
               std::any_of(states_[function].parts.begin(), states_[function].parts.end(),
                           [](const auto &part) { return part.first == "nulls"; });
    }

    // ---- moments and pairs: by group number ----

    // `count` is the part that says how many values a state speaks of.
    template <class Merged, class Numbers>
    std::vector<Merged> merged_of(std::size_t i, std::string_view count,
                                  const Numbers &numbers) const {
        const std::string &title = asked_.functions[i].title;
        const found_states &states = states_[i];
        const auto n = integers_of(*states.part(count, title), context_.tell);
        std::vector<std::span<const dbl>> parts;
        parts.reserve(numbers.size());
        for (const auto &[part, member] : numbers)
            parts.push_back(doubles_of(*states.part(part, title), context_.tell));
        std::vector<Merged> merged(groups_->count());
        const auto group_of = groups_->number_of_row();
        for (std::size_t row = 0; row < n.size(); ++row) {
            if (n[row] <= 0) // the nil, too
                continue;
            Merged own;
            own.n = static_cast<double>(n[row]);
            for (std::size_t j = 0; j < parts.size(); ++j)
                own.*(numbers[j].second) = parts[j][row];
            merged[group_of(row)].add(own);
        }
        return merged;
    }

    std::vector<merged_moments> moments_of(std::size_t i) const {
        return merged_of<merged_moments>(i, "count", moment_numbers);
    }
    std::vector<merged_pairs> pairs_of(std::size_t i) const {
        return merged_of<merged_pairs>(i, "n_xy", pair_numbers);
    }

    // By group number, one number of what was merged.
    template <class Merged, class Number>
    result_column number_of(std::string name, const std::vector<Merged> &merged,
                            const Number &number) const {
        std::vector<dbl> values(merged.size(), nil_of<dbl>());
        std::vector<std::uint8_t> present(merged.size());
        for (std::size_t group = 0; group < merged.size(); ++group)
            if (const std::optional<double> value = number(merged[group])) {
                values[group] = *value;
                present[group] = 1;
            }
        answer all = answer_of(form::dbl, std::move(values));
        all.present = std::move(present);
        return finish_answer(std::move(name), plain_type(kind::float64), all, *groups_, nullptr,
                             false, context_.tell);
    }

    template <class Merged>
    result_column count_of(std::string name, const std::vector<Merged> &merged) const {
        std::vector<lng> counts(merged.size());
        std::transform(merged.begin(), merged.end(), counts.begin(),
                       [](const Merged &of) { return static_cast<lng>(of.n); });
        answer all = answer_of(form::lng, std::move(counts));
        all.no_nil = true;
        return finish_answer(std::move(name), plain_type(kind::int64), all, *groups_, nullptr,
                             false, context_.tell);
    }

    // ---- states again ----

    std::vector<result_column> states_again() {
        state_rows all;
        all.rows = shown_groups();
        std::vector<result_column> merged = merged_by_functions();
        std::vector<value_type> types;
        const auto keys = static_cast<std::ptrdiff_t>(keys_.size());
        all.keys.assign(merged.begin(), merged.begin() + keys);
        for (std::size_t i = 0; i < states_.size(); ++i) {
            types.push_back(states_[i].type);
            add_states(i, merged, all.states);
            if (is_by_value(*asked_.functions[i].rule)) {
                const std::string &title = asked_.functions[i].title;
                const column_pointer &count = states_[i].part("count", title);
                all.values.push_back(values_by_key(i, rows_, keys_, states_[i].part("value", title),
                                                   {&function("sum"), {count}, {}, "count"},
                                                   asked_.flags, context_));
            }
        }
        return stack(std::move(all), types);
    }

    void add_states(std::size_t i, const std::vector<result_column> &merged,
                    std::vector<result_column> &states) const {
        const function_rule &rule = *asked_.functions[i].rule;
        const auto name = [&](std::string_view part) {
            return part_name(i, part, states_[i].type);
        };
        const std::string prefix = fmt::format("vask.{}.", i);
        for (const result_column &column : merged)
            if (column.name.compare(0, prefix.size(), prefix) == 0)
                states.push_back(column);
        const auto add = [&](const auto &all, std::string_view count, const auto &numbers) {
            states.push_back(count_of(name(count), all));
            for (const auto &[part, member] : numbers)
                states.push_back(number_of(name(part), all, [member = member](const auto &of) {
                    return of.n > 0 ? std::optional(of.*member) : std::nullopt;
                }));
        };
        if (rule.of == family::moment)
            add(moments_of(i), "count", moment_numbers);
        else if (rule.of == family::pair)
            add(pairs_of(i), "n_xy", pair_numbers);
    }

    // ---- the result ----

    //! Whether a group's result is null because one of its values is, by row.
    auto is_dropped(std::size_t i, const std::vector<result_column> &merged) const {
        return [nulls = has_nulls(i) ? &part_in(merged, i, "nulls") : nullptr](std::int64_t row) {
            return nulls != nullptr && integer_at(*nulls, row).value_or(0) > 0;
        };
    }

    std::vector<result_column> finished() {
        const std::vector<result_column> merged = merged_by_functions();
        std::vector<result_column> result(
            merged.begin(), merged.begin() + static_cast<std::ptrdiff_t>(keys_.size()));
        for (std::size_t i = 0; i < states_.size(); ++i) {
            result_column made = finished_function(i, merged);
            made.name = asked_.functions[i].title;
            const function_rule &rule = *asked_.functions[i].rule;
            if (has_nulls(i) && rule.of != family::rows && rule.of != family::count &&
                rule.of != family::distinct) {
                std::vector<rows_part> parts;
                append_rows(parts, made, is_dropped(i, merged));
                made = stacked(made.name, made.type, parts);
            }
            result.push_back(std::move(made));
        }
        return result;
    }

    const result_column &part_in(const std::vector<result_column> &merged, std::size_t i,
                                 std::string_view part) const {
        const std::string name = part_name(i, part, states_[i].type);
        return *std::find_if(merged.begin(), merged.end(),
                             [&](const result_column &column) { return column.name == name; });
    }

    //! Adds the rows of a column, those that are dropped as nulls, to what is stacked.
    template <class Dropped>
    static void append_rows(std::vector<rows_part> &parts, const result_column &from,
                            const Dropped &dropped) {
        parts.push_back({&from, {}});
        for (std::int64_t row = 0; row < from.rows; ++row) {
            const result_column *const of = dropped(row) ? nullptr : &from;
            if (parts.back().from != of)
                parts.push_back({of, {}});
            parts.back().rows.push_back(row);
        }
    }

    // Rows of a result by what `value(row)` gives, nothing for a null.
    template <class T, class Value>
    result_column result_of(const value_type &type, form stored, const Value &value) const {
        const std::int64_t rows = shown_groups();
        std::vector<T> values(groups_->count());
        std::vector<std::uint8_t> present(groups_->count());
        const auto order = groups_->order();
        for (std::int64_t row = 0; row < rows; ++row)
            if (const std::optional<T> own = value(row)) {
                values[order[static_cast<std::size_t>(row)]] = *own;
                present[order[static_cast<std::size_t>(row)]] = 1;
            }
        answer all = answer_of(stored, std::move(values));
        all.present = std::move(present);
        return finish_answer({}, type, all, *groups_, nullptr, false, context_.tell);
    }

    //! Sums of 128 bits by row.
    auto whole_sums(const std::vector<result_column> &merged, std::size_t i) const {
        return [&high = part_in(merged, i, "high"),
                &low = part_in(merged, i, "low")](std::int64_t row) -> std::optional<wide_integer> {
            const auto upper = integer_at(high, row);
            const auto lower = integer_at(low, row);
            if (!upper || !lower)
                return std::nullopt;
            return static_cast<wide_integer>(*upper) * (wide_integer{1} << 32) + *lower;
        };
    }

    result_column finished_function(std::size_t i, const std::vector<result_column> &merged) {
        const merged_function &asked = asked_.functions[i];
        const function_rule &rule = *asked.rule;
        const value_type &of = states_[i].type;
        const value_type type = result_type(rule, of, (asked_.flags & VASK_WIDE_SUMS) != 0);
        switch (rule.of) {
            case family::rows:
            case family::count:
                return part_in(merged, i, "count");
            case family::distinct:
                return part_in(merged, i, "distinct");
            case family::sum:
                return rule.name == "sum" ? finished_sum(i, merged, type)
                                          : finished_mean(i, merged, type);
            case family::weighted:
                return finished_weighted(part_in(merged, i, "products"),
                                         part_in(merged, i, "weights"), type);
            case family::extreme:
                if (rule.name == "range")
                    return finished_range(i, merged, type);
                return part_in(merged, i, "value");
            case family::moment:
                return number_of({}, moments_of(i),
                                 [&](const merged_moments &all) { return moment_of(rule, all); });
            case family::pair:
                return number_of({}, pairs_of(i),
                                 [&](const merged_pairs &all) { return pair_of(rule, all); });
            case family::order:
                return finished_mode(i);
            case family::place:
            case family::state:
                break;
        }
        return part_in(merged, i, "value");
    }

    std::string group_named(std::int64_t row) const {
        return groups_->named(groups_->order()[static_cast<std::size_t>(row)]);
    }

    result_column finished_weighted(const result_column &products, const result_column &weights,
                                    const value_type &type) const {
        return result_of<dbl>(type, form::dbl, [&](std::int64_t row) -> std::optional<double> {
            const auto product = number_at(products, row);
            const auto weight = number_at(weights, row);
            if (!product || !weight || *weight == 0)
                return std::nullopt;
            return *product / *weight;
        });
    }

    result_column finished_sum(std::size_t i, const std::vector<result_column> &merged,
                               const value_type &type) const {
        if (type.of == kind::float64)
            return part_in(merged, i, "sum");
        const auto sums = whole_sums(merged, i);
        if (type.of == kind::decimal)
            return result_of<wide_integer>(type, form::wide, sums);
        const auto dropped = is_dropped(i, merged);
        return result_of<lng>(type, form::lng, [&](std::int64_t row) -> std::optional<lng> {
            const auto sum = sums(row);
            if (sum && *sum != static_cast<lng>(*sum) && !dropped(row))
                fail(VASK_BAD_DATA,
                     "{}: the sum{} leaves 64 bits; set VASK_WIDE_SUMS for decimals of 38 digits, "
                     "or cast the column to float64",
                     shown(asked_.functions[i].title), group_named(row));
            return sum ? std::optional(static_cast<lng>(*sum)) : std::nullopt;
        });
    }

    result_column finished_mean(std::size_t i, const std::vector<result_column> &merged,
                                const value_type &type) const {
        const kind of = states_[i].type.of;
        const auto count = [&counts = part_in(merged, i, "count")](std::int64_t row) {
            return integer_at(counts, row).value_or(0);
        };
        if (is_float(of))
            return result_of<dbl>(
                type, form::dbl,
                [&, &sums = part_in(merged, i, "sum")](std::int64_t row) -> std::optional<double> {
                    const auto sum = number_at(sums, row);
                    return sum ? std::optional(*sum / static_cast<double>(count(row)))
                               : std::nullopt;
                });
        const auto sums = whole_sums(merged, i);
        if (is_temporal(of))
            return result_of<lng>(type, form::lng, [&](std::int64_t row) -> std::optional<lng> {
                const auto sum = sums(row);
                return sum ? std::optional(rounded_quotient(*sum, count(row))) : std::nullopt;
            });
        return result_of<dbl>(type, form::dbl, [&](std::int64_t row) -> std::optional<double> {
            const auto sum = sums(row);
            return sum ? std::optional(scaled_mean(*sum, count(row), states_[i].type.scale))
                       : std::nullopt;
        });
    }

    result_column finished_range(std::size_t i, const std::vector<result_column> &merged,
                                 const value_type &type) const {
        // The states are turned into columns whose distance the query's own function would give.
        const result_column &least = part_in(merged, i, "least");
        const result_column &greatest = part_in(merged, i, "greatest");
        const std::vector<std::int64_t> rows = all_rows(least.rows);
        std::vector<rows_part> parts;
        for (const result_column *const from : {&least, &greatest})
            append_rows(parts, *from, is_dropped(i, merged));
        const result_column both = stacked("values", least.type, parts);
        std::vector<std::int64_t> twice = rows;
        twice.insert(twice.end(), rows.begin(), rows.end());
        fresh_column<std::int64_t> numbers(twice.size());
        std::copy(twice.begin(), twice.end(), numbers.values.begin());
        query inner;
        inner.by.push_back(std::make_shared<const column>(
            "row", plain_type(kind::int64), std::move(numbers).finish({.nonil = true}), 0));
        inner.functions.push_back({&function("range"), {as_column(both)}, {}, "range"});
        std::vector<result_column> made =
            run_query(static_cast<std::int64_t>(twice.size()), inner, context_);
        made.back().type = type;
        return made.back();
    }

    // Of each key the value with the greatest count, of several the least; none that occurs once.
    result_column finished_mode(std::size_t i) const {
        const std::string &title = asked_.functions[i].title;
        const column_pointer &value = states_[i].part("value", title);
        const auto counts = integers_of(*states_[i].part("count", title), context_.tell);
        const bool nan_missing = (asked_.flags & VASK_NAN_IS_NULL) != 0;
        const groups by_value(rows_, {{value}, nan_missing, false, true}, context_.operators,
                              context_.tell);
        std::vector<std::uint32_t> rank(by_value.count());
        for (std::size_t place = 0; place < rank.size(); ++place)
            rank[by_value.order()[place]] = static_cast<std::uint32_t>(place);
        group_request together{keys_, nan_missing, false, false};
        together.keys.push_back(value);
        const groups by_both(rows_, std::move(together), context_.operators, context_.tell);
        std::vector<lng> sums(by_both.count());
        const auto both = by_both.numbers();
        for (std::size_t row = 0; row < counts.size(); ++row)
            if (counts[row] != nil_of<lng>())
                sums[static_cast<std::size_t>(both[row])] += counts[row];
        std::vector<lng> best(groups_->count(), -1); // rows
        std::vector<lng> most(groups_->count(), 1);
        const auto values = by_value.numbers();
        const auto first_rows = by_both.first_rows();
        const auto group_of = groups_->number_of_row();
        for (std::size_t pair = 0; pair < sums.size(); ++pair) {
            const std::size_t row = first_rows[pair];
            const std::size_t group = group_of(row);
            const auto rank_of = [&](std::size_t of) {
                return rank[static_cast<std::size_t>(values[of])];
            };
            const bool more = sums[pair] > most[group];
            const bool less_value = best[group] >= 0 && sums[pair] == most[group] &&
                                    rank_of(row) < rank_of(static_cast<std::size_t>(best[group]));
            if (more || less_value) {
                most[group] = sums[pair];
                best[group] = static_cast<lng>(row);
            }
        }
        return finish_answer({}, value->type(), answer_of(form::row, std::move(best)), *groups_,
                             value.get(), nan_missing, context_.tell);
    }

    const merge_request &asked_;
    const query_context &context_;
    std::int64_t rows_ = 0;
    std::vector<column_pointer> keys_;
    std::vector<found_states> states_;
    std::unique_ptr<groups> groups_;
};

} // namespace

std::vector<result_column> merge_states(const merge_request &asked, const query_context &context) {
    return merging(asked, context).run();
}

} // namespace vask::table
