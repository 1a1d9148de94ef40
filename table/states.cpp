#include "table/states.h"

#include "table/errors.h"
#include "table/kernel_column.h"
#include "table/operands.h"
#include "table/result_rows.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <functional>
#include <limits>
#include <numeric>
#include <utility>

namespace vask::table {
namespace {

using refkernel::nil_of;

// ---- what states are made of --------------------------------------------------------------------

//! A column of a state: the function that makes it of the rows, and the one that merges it, empty
//! for those that are merged together.
struct state_part {
    std::string_view name;
    std::string_view made_by;
    std::string_view merged_by;
};

bool is_by_value(const function_rule &rule) {
    return rule.of == family::distinct || rule.name == "mode";
}

std::vector<state_part> parts_of(const function_rule &rule, kind of) {
    const bool whole_sums = !is_float(of);
    std::vector<state_part> parts;
    switch (rule.of) {
        case family::rows:
        case family::count:
            if (rule.name != "first_row")
                return {{"count", rule.name, "sum"}};
            break;
        case family::sum:
            if (whole_sums)
                parts = {{"high", "state.high", "sum"}, {"low", "state.low", "sum"}};
            else
                parts = {{"sum", "sum", "sum"}};
            if (rule.name == "mean")
                parts.push_back({"count", "count", "sum"});
            return parts;
        case family::weighted:
            return {{"products", "state.products", "sum"}, {"weights", "state.weights", "sum"}};
        case family::extreme:
            if (rule.name == "range")
                return {{"least", "min", "min"}, {"greatest", "max", "max"}};
            return {{"value", rule.name, rule.name}};
        case family::place:
            return {{"value", rule.name, rule.name}};
        case family::moment:
            return {{"count", "count", ""},
                    {"centre", "state.centre", ""},
                    {"mean", "state.mean", ""},
                    {"m2", "state.m2", ""},
                    {"m3", "state.m3", ""}};
        case family::pair:
            return {{"n_xy", "state.n_xy", ""},         {"centre_x", "state.centre_x", ""},
                    {"centre_y", "state.centre_y", ""}, {"mean_x", "state.mean_x", ""},
                    {"mean_y", "state.mean_y", ""},     {"m2_x", "state.m2_x", ""},
                    {"m2_y", "state.m2_y", ""},         {"c_xy", "state.c_xy", ""}};
        case family::distinct:
        case family::order:
        case family::state:
            break;
    }
    return parts;
}

void require_state(const function_rule &rule, const std::string &title) {
    if (rule.name == "first_row" || (rule.of == family::order && rule.name != "mode"))
        fail(VASK_BAD_REQUEST,
             "{}: {} has no state of fixed size; bring all rows of a key together and run there",
             shown(title), rule.name);
}

std::string part_name(std::size_t function, std::string_view part, const value_type &of) {
    return fmt::format("vask.{}.{}:{}", function, part, of.format);
}

std::vector<std::int64_t> all_rows(std::int64_t rows) {
    std::vector<std::int64_t> result(static_cast<std::size_t>(rows));
    std::iota(result.begin(), result.end(), std::int64_t{0});
    return result;
}

// A column of one number.
result_column number_column(std::string name, std::int64_t rows, std::int32_t number) {
    const auto kept =
        std::make_shared<const std::vector<std::int32_t>>(static_cast<std::size_t>(rows), number);
    result_column made;
    made.name = std::move(name);
    made.type = plain_type(kind::int32);
    made.rows = rows;
    made.values = kept->data();
    made.owners.push_back(kept);
    return made;
}

//! Values of a function by key, in rows of their own.
struct value_rows {
    std::size_t function;
    std::vector<result_column> columns; //!< keys, then the value, then how many there are
    std::vector<std::int64_t> rows;     //!< those that count
};

//! Keys and states, in rows of their own and of values.
struct state_rows {
    std::vector<result_column> keys;
    std::vector<result_column> states;
    std::vector<value_rows> values;
    std::int64_t rows = 0;
};

std::vector<result_column> stack(state_rows all, const std::vector<value_type> &types) {
    std::vector<result_column> result;
    const std::vector<std::int64_t> own = all_rows(all.rows);
    for (std::size_t i = 0; i < all.keys.size(); ++i) {
        std::vector<rows_part> parts{{&all.keys[i], own}};
        for (const value_rows &values : all.values)
            parts.push_back({&values.columns[i], values.rows});
        result.push_back(stacked(all.keys[i].name, all.keys[i].type, parts));
    }
    const result_column zero = number_column(states_version, all.rows, 0);
    std::vector<result_column> numbers;
    numbers.reserve(all.values.size());
    std::vector<rows_part> marks{{&zero, own}};
    for (const value_rows &values : all.values) {
        numbers.push_back(number_column({}, values.columns[0].rows,
                                        static_cast<std::int32_t>(values.function + 1)));
        marks.push_back({&numbers.back(), values.rows});
    }
    result.push_back(stacked(states_version, zero.type, marks));
    for (const result_column &state : all.states) {
        std::vector<rows_part> parts{{&state, own}};
        for (const value_rows &values : all.values)
            parts.push_back({nullptr, values.rows});
        result.push_back(stacked(state.name, state.type, parts));
    }
    for (const value_rows &values : all.values)
        for (const std::string_view part : {"value", "count"}) {
            const result_column &from =
                values.columns[values.columns.size() - (part == "value" ? 2 : 1)];
            std::vector<rows_part> parts{{nullptr, own}};
            for (const value_rows &other : all.values)
                parts.push_back({&other == &values ? &from : nullptr, other.rows});
            result.push_back(stacked(part_name(values.function, part, types[values.function]),
                                     from.type, parts));
        }
    return result;
}

std::vector<std::int64_t> rows_with_value(const result_column &values) {
    std::vector<std::int64_t> rows;
    for (std::int64_t row = 0; row < values.rows; ++row)
        if (!is_null(values, row))
            rows.push_back(row);
    return rows;
}

// Different values by key with their numbers of rows. `by` are the keys.
value_rows values_by_key(std::size_t function, std::int64_t rows, std::vector<column_pointer> by,
                         const column_pointer &value, asked_function counted, unsigned flags,
                         const query_context &context) {
    query inner;
    // Numbers of rows are int64 in all states.
    inner.flags = flags & ~unsigned{VASK_SORT_GROUPS | VASK_DROP_NULL_KEYS | VASK_KEEP_NULLS |
                                    VASK_WIDE_SUMS};
    inner.by = std::move(by);
    inner.by.push_back(value);
    inner.functions.push_back(std::move(counted));
    value_rows result{function, run_query(rows, inner, context), {}};
    result.rows = rows_with_value(result.columns[inner.by.size() - 1]);
    return result;
}

bool has_null_key(const std::vector<result_column> &keys, std::size_t n, std::int64_t row) {
    for (std::size_t i = 0; i < n; ++i)
        if (is_null(keys[i], row))
            return true;
    return false;
}

// ---- merging numbers ----------------------------------------------------------------------------

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

/*
 * Centred sums of two parts as those of both: Chan, Golub and LeVeque, "Updating formulae and a
 * pairwise algorithm for computing sample variances" (1979), and for third powers Pebay, "Formulas
 * for robust, one-pass parallel computation of covariances and arbitrary-order statistical moments"
 * (2008). Means count from centres, which are values: far from 0 a mean alone would lose the digits
 * by which those of parts differ.
 */
struct merged_moments {
    double n = 0;
    double centre = 0;
    double mean = 0;
    double m2 = 0;
    double m3 = 0;

    void add(const merged_moments &b) {
        if (n == 0) {
            *this = b;
            return;
        }
        const double total = n + b.n;
        const double d = (b.centre - centre) + (b.mean - mean);
        m3 += b.m3 + d * d * d * n * b.n * (n - b.n) / (total * total) +
              3 * d * (n * b.m2 - b.n * m2) / total;
        m2 += b.m2 + d * d * n * b.n / total;
        mean += d * b.n / total;
        n = total;
    }
};

struct merged_pairs {
    double n = 0;
    double centre_x = 0;
    double centre_y = 0;
    double mean_x = 0;
    double mean_y = 0;
    double m2_x = 0;
    double m2_y = 0;
    double c = 0;

    void add(const merged_pairs &b) {
        if (n == 0) {
            *this = b;
            return;
        }
        const double total = n + b.n;
        const double dx = (b.centre_x - centre_x) + (b.mean_x - mean_x);
        const double dy = (b.centre_y - centre_y) + (b.mean_y - mean_y);
        const double weight = n * b.n / total;
        m2_x += b.m2_x + dx * dx * weight;
        m2_y += b.m2_y + dy * dy * weight;
        c += b.c + dx * dy * weight;
        mean_x += dx * b.n / total;
        mean_y += dy * b.n / total;
        n = total;
    }
};

// The numbers of a state, as its parts are called.
constexpr std::array moment_numbers{
    std::pair{"centre", &merged_moments::centre}, std::pair{"mean", &merged_moments::mean},
    std::pair{"m2", &merged_moments::m2}, std::pair{"m3", &merged_moments::m3}};
constexpr std::array pair_numbers{std::pair{"centre_x", &merged_pairs::centre_x},
                                  std::pair{"centre_y", &merged_pairs::centre_y},
                                  std::pair{"mean_x", &merged_pairs::mean_x},
                                  std::pair{"mean_y", &merged_pairs::mean_y},
                                  std::pair{"m2_x", &merged_pairs::m2_x},
                                  std::pair{"m2_y", &merged_pairs::m2_y},
                                  std::pair{"c_xy", &merged_pairs::c}};

// Spreads below this count as rounding, as the operators have it.
constexpr double smallest_spread = 1e-7;

std::optional<double> moment_of(const function_rule &rule, const merged_moments &of) {
    const bool population = rule.name.back() == 'p';
    const double n = of.n;
    if (rule.name.substr(0, 4) == "skew") {
        if (n <= (population ? 1 : 2))
            return std::nullopt;
        if (!(n * n * of.m2 >= smallest_spread))
            return of.m2 != of.m2 ? std::optional(of.m2) : std::nullopt;
        const double skew = std::sqrt(n) * of.m3 / std::pow(of.m2, 1.5);
        return population ? skew : skew * std::sqrt(n * (n - 1)) / (n - 2);
    }
    if (n <= (population ? 0 : 1))
        return std::nullopt;
    const double m2 = of.m2 < 0 ? 0 : of.m2;
    const double variance = m2 / (population ? n : n - 1);
    return rule.name.substr(0, 5) == "stdev" ? std::sqrt(variance) : variance;
}

std::optional<double> pair_of(const function_rule &rule, const merged_pairs &of) {
    if (of.n < 1)
        return std::nullopt;
    if (rule.name == "covarp")
        return of.c / of.n;
    if (rule.name == "covars")
        return of.n < 2 ? std::nullopt : std::optional(of.c / (of.n - 1));
    if (rule.name == "correl") {
        if (of.n * of.m2_x * of.n * of.m2_y < smallest_spread)
            return std::nullopt;
        return std::clamp(of.c / std::sqrt(of.m2_x * of.m2_y), -1.0, 1.0);
    }
    if (std::abs(of.n * of.m2_y) < smallest_spread)
        return std::nullopt;
    const double slope = of.c / of.m2_y;
    if (rule.name == "slope")
        return slope;
    return of.centre_x + (of.mean_x - slope * (of.centre_y + of.mean_y));
}

// ---- merging ------------------------------------------------------------------------------------

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
        // A query has to ask for something; no state is called so.
        if (inner.by.empty() && inner.functions.empty())
            inner.functions.push_back({&function("size"), {}, {}, "rows"});
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

    std::size_t group_of(std::size_t row) const {
        const auto numbers = groups_->numbers();
        return numbers.empty() ? 0 : static_cast<std::size_t>(numbers[row]);
    }

    // `count` is the part that says how many values a state speaks of.
    template <class Merged, class Numbers>
    std::vector<Merged> merged_of(std::size_t i, std::string_view count,
                                  const Numbers &numbers) const {
        const std::string &title = asked_.functions[i].title;
        const found_states &states = states_[i];
        const auto n = integers_of(*states.part(count, title), context_.tell);
        std::vector<std::span<const dbl>> parts;
        for (const auto &[part, member] : numbers)
            parts.push_back(doubles_of(*states.part(part, title), context_.tell));
        std::vector<Merged> merged(groups_->count());
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

    std::vector<result_column> finished() {
        const std::vector<result_column> merged = merged_by_functions();
        std::vector<result_column> result(
            merged.begin(), merged.begin() + static_cast<std::ptrdiff_t>(keys_.size()));
        for (std::size_t i = 0; i < states_.size(); ++i) {
            result_column made = finished_function(i, merged);
            made.name = asked_.functions[i].title;
            const function_rule &rule = *asked_.functions[i].rule;
            if (has_nulls(i) && rule.of != family::rows && rule.of != family::count &&
                rule.of != family::distinct)
                drop_rows_with_nulls(made, part_in(merged, i, "nulls"));
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

    static void drop_rows_with_nulls(result_column &made, const result_column &nulls) {
        std::vector<rows_part> parts;
        for (std::int64_t row = 0; row < made.rows; ++row)
            parts.push_back({integer_at(nulls, row).value_or(0) > 0 ? nullptr : &made, {row}});
        made = stacked(made.name, made.type, parts);
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

    std::optional<wide_integer> whole_sum(const std::vector<result_column> &merged, std::size_t i,
                                          std::int64_t row) const {
        const auto high = integer_at(part_in(merged, i, "high"), row);
        const auto low = integer_at(part_in(merged, i, "low"), row);
        if (!high || !low)
            return std::nullopt;
        return static_cast<wide_integer>(*high) * (wide_integer{1} << 32) + *low;
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
                return result_of<dbl>(type, form::dbl, [&](std::int64_t row) {
                    const auto products = number_at(part_in(merged, i, "products"), row);
                    const auto weights = number_at(part_in(merged, i, "weights"), row);
                    return products && weights && *weights != 0
                               ? std::optional(*products / *weights)
                               : std::nullopt;
                });
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

    // Whether a group's result is null because one of its values is.
    bool is_dropped(std::size_t i, const std::vector<result_column> &merged,
                    std::int64_t row) const {
        return has_nulls(i) && integer_at(part_in(merged, i, "nulls"), row).value_or(0) > 0;
    }

    std::string group_named(std::int64_t row) const {
        return groups_->named(groups_->order()[static_cast<std::size_t>(row)]);
    }

    result_column finished_sum(std::size_t i, const std::vector<result_column> &merged,
                               const value_type &type) const {
        if (type.of == kind::float64)
            return part_in(merged, i, "sum");
        if (type.of == kind::decimal)
            return result_of<wide_integer>(
                type, form::wide, [&](std::int64_t row) { return whole_sum(merged, i, row); });
        return result_of<lng>(type, form::lng, [&](std::int64_t row) -> std::optional<lng> {
            const auto sum = whole_sum(merged, i, row);
            if (sum && *sum != static_cast<lng>(*sum) && !is_dropped(i, merged, row))
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
        const auto count = [&](std::int64_t row) {
            return integer_at(part_in(merged, i, "count"), row).value_or(0);
        };
        if (is_temporal(of))
            return result_of<lng>(type, form::lng, [&](std::int64_t row) -> std::optional<lng> {
                const auto sum = whole_sum(merged, i, row);
                return sum ? std::optional(rounded_quotient(*sum, count(row))) : std::nullopt;
            });
        return result_of<dbl>(type, form::dbl, [&](std::int64_t row) -> std::optional<double> {
            if (is_float(of)) {
                const auto sum = number_at(part_in(merged, i, "sum"), row);
                return sum ? std::optional(*sum / static_cast<double>(count(row))) : std::nullopt;
            }
            const auto sum = whole_sum(merged, i, row);
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
            for (const std::int64_t row : rows)
                parts.push_back({is_dropped(i, merged, row) ? nullptr : from, {row}});
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

std::vector<result_column> partial_states(std::int64_t rows, const query &asked,
                                          const query_context &context) {
    query inner;
    inner.by = asked.by;
    inner.flags = asked.flags & ~unsigned{VASK_SORT_GROUPS | VASK_KEEP_NULLS | VASK_WIDE_SUMS};
    std::vector<value_type> types;
    for (std::size_t i = 0; i < asked.functions.size(); ++i) {
        const asked_function &of = asked.functions[i];
        require_state(*of.rule, of.title);
        const value_type type = of.columns.empty() ? value_type{} : of.columns[0]->type();
        types.push_back(type);
        for (const state_part &part : parts_of(*of.rule, type.of)) {
            const function_rule &maker = function(part.made_by);
            inner.functions.push_back({&maker,
                                       {of.columns.begin(), of.columns.begin() + maker.columns},
                                       {},
                                       part_name(i, part.name, type)});
        }
        // Nulls of both columns come to more than 0 where either has one.
        if ((asked.flags & VASK_KEEP_NULLS) != 0 && !of.columns.empty())
            inner.functions.push_back(
                {&function("state.nulls"), of.columns, {}, part_name(i, "nulls", type)});
    }
    for (const column_pointer &key : asked.by)
        if (key->name().compare(0, 5, "vask.") == 0)
            fail(VASK_BAD_REQUEST, "by: the key '{}' is called as a state is; rename it",
                 shown(key->name()));
    state_rows all;
    const bool nothing = inner.by.empty() && inner.functions.empty();
    if (nothing)
        inner.functions.push_back({&function("size"), {}, {}, "rows"});
    std::vector<result_column> made = run_query(rows, inner, context);
    all.rows = made.front().rows;
    const auto keys = static_cast<std::ptrdiff_t>(asked.by.size());
    all.keys.assign(made.begin(), made.begin() + keys);
    if (!nothing)
        all.states.assign(made.begin() + keys, made.end());
    for (std::size_t i = 0; i < asked.functions.size(); ++i) {
        const asked_function &of = asked.functions[i];
        if (of.rule->name == "mode" && is_float(of.columns[0]->type().of) &&
            of.columns[0]->as_numbers((asked.flags & VASK_NAN_IS_NULL) != 0, context.tell).nan)
            fail(VASK_BAD_DATA,
                 "{}: column '{}' holds NaN, which has no place in an order; set "
                 "VASK_NAN_IS_NULL to leave NaN out as nulls, or remove them",
                 shown(of.title), shown(of.columns[0]->name()));
        if (!is_by_value(*of.rule))
            continue;
        value_rows values =
            values_by_key(i, rows, asked.by, of.columns[0], {&function("size"), {}, {}, "count"},
                          asked.flags, context);
        if ((asked.flags & VASK_DROP_NULL_KEYS) != 0)
            std::erase_if(values.rows, [&](std::int64_t row) {
                return has_null_key(values.columns, asked.by.size(), row);
            });
        all.values.push_back(std::move(values));
    }
    return stack(std::move(all), types);
}

std::vector<result_column> merge_states(const merge_request &asked, const query_context &context) {
    return merging(asked, context).run();
}

} // namespace vask::table
