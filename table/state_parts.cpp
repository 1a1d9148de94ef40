#include "table/state_parts.h"

#include "table/errors.h"

#include <memory>
#include <numeric>
#include <utility>

namespace vask::table {
namespace {

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

std::vector<std::int64_t> rows_with_value(const result_column &values) {
    std::vector<std::int64_t> rows;
    for (std::int64_t row = 0; row < values.rows; ++row)
        if (!is_null(values, row))
            rows.push_back(row);
    return rows;
}

} // namespace

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

} // namespace vask::table
