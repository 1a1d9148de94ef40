#include "aggregate_table.h"

#include <array>

#include <fmt/format.h>

namespace vask::runner {
namespace {

using enum column_type;

constexpr type_set summable(bte, sht, int_, lng, flt, dbl);

constexpr std::array rules{
    aggregate_rule{.name = "sum",
                   .arguments = argument_form::column,
                   .accepts = summable,
                   .result = result_rule::sum,
                   .whole_by_type = "vask_sum_",
                   .grouped = "vask_grp_sum",
                   .summary = "adds numbers"},
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

const aggregate_rule *find_aggregate(std::string_view name) {
    for (const aggregate_rule &rule : rules)
        if (rule.name == name)
            return &rule;
    return nullptr;
}

column_type result_type(const aggregate_rule &rule, column_type column) {
    switch (rule.result) {
        case result_rule::sum:
            break;
    }
    return column == flt || column == dbl ? column : lng;
}

std::string whole_operator(const aggregate_rule &rule, column_type column) {
    return fmt::format("{}{}", rule.whole_by_type, name_of(column));
}

} // namespace vask::runner
