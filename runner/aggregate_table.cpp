#include "aggregate_table.h"

#include <array>

#include <fmt/format.h>

namespace vask::runner {
namespace {

using enum column_type;

constexpr type_set numbers(bte, sht, int_, lng, flt, dbl);
constexpr type_set ordered(bte, sht, int_, lng, flt, dbl, timestamp);
constexpr type_set counted(bte, sht, int_, lng, flt, dbl, str, timestamp);

constexpr std::array rules{
    aggregate_rule{.name = "sum",
                   .accepts = numbers,
                   .result = result_rule::sum,
                   .whole = "vask_sum_",
                   .grouped = "vask_grp_sum",
                   .naming = operator_naming::by_type},
    aggregate_rule{.name = "min",
                   .accepts = ordered,
                   .result = result_rule::same,
                   .whole = "vask_min_",
                   .grouped = "vask_grp_min",
                   .naming = operator_naming::by_type},
    aggregate_rule{.name = "max",
                   .accepts = ordered,
                   .result = result_rule::same,
                   .whole = "vask_max_",
                   .grouped = "vask_grp_max",
                   .naming = operator_naming::by_type},
    aggregate_rule{.name = "count",
                   .accepts = counted,
                   .result = result_rule::count,
                   .whole = "vask_count",
                   .grouped = "vask_grp_count"},
    // By group it needs no operator: a grouping counts its rows.
    aggregate_rule{.name = "count",
                   .arguments = argument_form::all_rows,
                   .accepts = {},
                   .result = result_rule::count,
                   .whole = "vask_count_asterisk"},
    aggregate_rule{.name = "mean",
                   .accepts = numbers,
                   .result = result_rule::quotient,
                   .dividend = "sum",
                   .divisor = "count"},
};

} // namespace

std::string type_set::names() const {
    std::string result;
    for (const column_type type : all_column_types)
        if (contains(type))
            result += fmt::format("{}{}", result.empty() ? "" : ", ", name_of(type));
    return result;
}

std::span<const aggregate_rule> aggregate_rules() {
    return rules;
}

const aggregate_rule *find_aggregate(std::string_view name, argument_form arguments) {
    for (const aggregate_rule &rule : rules)
        if (rule.name == name && rule.arguments == arguments)
            return &rule;
    return nullptr;
}

column_type result_type(const aggregate_rule &rule, column_type column) {
    switch (rule.result) {
        case result_rule::sum:
            return column == flt || column == dbl ? column : lng;
        case result_rule::same:
            return column;
        case result_rule::count:
            return lng;
        case result_rule::quotient:
            break;
    }
    return dbl;
}

std::string whole_operator(const aggregate_rule &rule, column_type column) {
    return fmt::format("{}{}", rule.whole,
                       rule.naming == operator_naming::by_type ? name_of(column) : "");
}

} // namespace vask::runner
