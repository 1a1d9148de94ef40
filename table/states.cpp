#include "table/states.h"

#include "table/errors.h"
#include "table/result_rows.h"
#include "table/state_parts.h"

#include <utility>

namespace vask::table {
namespace {

bool has_null_key(const std::vector<result_column> &keys, std::size_t n, std::int64_t row) {
    for (std::size_t i = 0; i < n; ++i)
        if (is_null(keys[i], row))
            return true;
    return false;
}

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

} // namespace vask::table
