#include "aggregate_table.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include <fmt/format.h>

namespace vask::runner {
namespace {

using enum column_type;
using family = aggregate_family;

constexpr type_set numbers(bte, sht, int_, lng, flt, dbl);
constexpr type_set ordered(bte, sht, int_, lng, flt, dbl, timestamp);
constexpr type_set counted(bte, sht, int_, lng, flt, dbl, str, timestamp);

constexpr parameter_rule quartile_number{
    0, 4, true, "q is 0, 1, 2, 3 or 4: 0 the smallest value, 2 the median"};
constexpr parameter_rule fraction{0, 1, false,
                                  "p is a fraction from 0 to 1, as in percentile(x,0.9), which can "
                                  "also be written perc:90(x)"};
// Up to here every whole number has a dbl of its own; columns are shorter by far.
constexpr parameter_rule rank{1, 0x1p53, true,
                              "k is a whole number from 1 on: 1 the largest value"};

// A rule of one column whose operators' names end alike.
constexpr aggregate_rule of_column(std::string_view name, family kind, type_set accepts,
                                   result_rule result, std::string_view whole,
                                   std::string_view grouped) {
    return {.name = name,
            .family = kind,
            .accepts = accepts,
            .result = result,
            .whole = whole,
            .grouped = grouped};
}

constexpr aggregate_rule named_by_type(aggregate_rule rule) {
    rule.naming = operator_naming::by_type;
    return rule;
}

constexpr aggregate_rule with_parameter(aggregate_rule rule, std::string_view arguments,
                                        const parameter_rule &parameter) {
    rule.arguments = arguments;
    rule.parameter = &parameter;
    return rule;
}

constexpr aggregate_rule moment(std::string_view name, std::string_view whole,
                                std::string_view grouped) {
    return of_column(name, family::moment, numbers, result_rule::number, whole, grouped);
}

constexpr aggregate_rule of_pair(std::string_view name, std::string_view arguments,
                                 std::string_view whole, std::string_view grouped) {
    return {.name = name,
            .arguments = arguments,
            .family = family::pair,
            .columns = 2,
            .accepts = numbers,
            .result = result_rule::number,
            .whole = whole,
            .grouped = grouped};
}

constexpr aggregate_rule constant_of_line(aggregate_rule rule) {
    rule.result = result_rule::constant;
    return rule;
}

constexpr std::array rules{
    // By group it needs no operator: a grouping counts its rows.
    aggregate_rule{.name = "count",
                   .arguments = "*",
                   .family = family::count,
                   .columns = 0,
                   .accepts = {},
                   .result = result_rule::count,
                   .whole = "vask_count_asterisk"},
    of_column("count", family::count, counted, result_rule::count, "vask_count", "vask_grp_count"),
    of_column("count_distinct", family::distinct, counted, result_rule::count, {},
              "AggrX3_countDistinct"),
    named_by_type(
        of_column("sum", family::sum, numbers, result_rule::sum, "vask_sum_", "vask_grp_sum")),
    aggregate_rule{.name = "mean",
                   .family = family::sum,
                   .accepts = numbers,
                   .result = result_rule::quotient,
                   .dividend = "sum",
                   .divisor = "count"},
    named_by_type(
        of_column("min", family::extreme, ordered, result_rule::same, "vask_min_", "vask_grp_min")),
    named_by_type(
        of_column("max", family::extreme, ordered, result_rule::same, "vask_max_", "vask_grp_max")),
    moment("stdev", "vask_stdev", "vask_grp_stdev"),
    moment("stdevp", "vask_stdevp", "vask_grp_stdevp"),
    moment("variance", "vask_variance", "vask_grp_variance"),
    moment("variancep", "vask_variancep", "vask_grp_variancep"),
    moment("skews", "vask_skews", "vask_grp_skews"),
    moment("skewp", "vask_skewp", "vask_grp_skewp"),
    of_column("median", family::order, ordered, result_rule::between, "vask_median",
              "vask_grp_median"),
    with_parameter(of_column("quartile", family::order, ordered, result_rule::between,
                             "vask_quartile", "vask_grp_quartile"),
                   "x,q", quartile_number),
    with_parameter(of_column("percentile", family::order, ordered, result_rule::between,
                             "vask_percentile", "vask_grp_percentile"),
                   "x,p", fraction),
    with_parameter(of_column("largest", family::order, ordered, result_rule::same, "vask_largest",
                             "vask_grp_largest"),
                   "x,k", rank),
    of_column("mode", family::order, ordered, result_rule::same, "vask_mode", "vask_grp_mode"),
    of_pair("covars", "x,y", "vask_covars", "vask_grp_covars"),
    of_pair("covarp", "x,y", "vask_covarp", "vask_grp_covarp"),
    of_pair("correl", "x,y", "vask_correl", "vask_grp_correl"),
    of_pair("slope", "y,x", "vask_slope", "vask_grp_slope"),
    constant_of_line(of_pair("intercept", "y,x", "vask_intercept", "vask_grp_intercept")),
};

constexpr std::array<aggregate_alias, 12> aliases{{
    {"sstdev", "stdev"},
    {"pstdev", "stdevp"},
    {"svar", "variance"},
    {"pvar", "variancep"},
    {"sskew", "skews"},
    {"pskew", "skewp"},
    {"q1", "quartile", 1.0},
    {"q3", "quartile", 3.0},
    {"perc", "percentile", 0.95, true},
    {"scov", "covars"},
    {"pcov", "covarp"},
    {"ppearson", "correl"},
}};

constexpr std::array<std::pair<family, std::string_view>, 7> headings{{
    {family::count, "counts"},
    {family::distinct, ""},
    {family::sum, "sums"},
    {family::extreme, "extremes"},
    {family::moment, "moments"},
    {family::order, "order"},
    {family::pair, "two columns"},
}};

} // namespace

std::string type_set::names() const {
    std::string result;
    for (const column_type type : all_column_types)
        if (contains(type))
            result += fmt::format("{}{}", result.empty() ? "" : ", ", name_of(type));
    return result;
}

std::string aggregate_rule::usage() const {
    return fmt::format("{}({})", name, arguments);
}

std::span<const aggregate_rule> aggregate_rules() {
    return rules;
}

std::span<const aggregate_alias> aggregate_aliases() {
    return aliases;
}

const aggregate_rule *find_aggregate(std::string_view name, bool all_rows) {
    const auto found = std::find_if(rules.begin(), rules.end(), [=](const aggregate_rule &rule) {
        return rule.name == name && (rule.columns == 0) == all_rows;
    });
    return found == rules.end() ? nullptr : &*found;
}

column_type operand_type(const aggregate_rule &rule, column_type column) {
    return rule.family == family::sum && column == flt ? dbl : column;
}

column_type result_type(const aggregate_rule &rule, column_type column) {
    switch (rule.result) {
        case result_rule::sum:
            return operand_type(rule, column) == dbl ? dbl : lng;
        case result_rule::same:
            return column;
        case result_rule::count:
            return lng;
        case result_rule::between:
            return column == column_type::timestamp ? column : dbl;
        case result_rule::number:
        case result_rule::constant:
        case result_rule::quotient:
            break;
    }
    return dbl;
}

std::string whole_operator(const aggregate_rule &rule, column_type column) {
    return fmt::format("{}{}", rule.whole,
                       rule.naming == operator_naming::by_type ? name_of(operand_type(rule, column))
                                                               : "");
}

std::string aggregate_overview() {
    constexpr int heading_width = 12;
    std::string text;
    for (const auto &[kind, heading] : headings) {
        std::string line;
        for (const aggregate_rule &rule : rules)
            if (rule.family == kind)
                line.append(" ").append(rule.usage());
        if (line.empty())
            continue;
        if (!heading.empty())
            fmt::format_to(std::back_inserter(text), "\n  {:<{}}", heading, heading_width);
        text.append(line);
    }
    text += fmt::format("\n  {:<{}}", "also", heading_width);
    for (const aggregate_alias &alias : aliases)
        text += fmt::format(" {}{}", alias.name, alias.takes_percent ? ":P" : "");
    return text;
}

} // namespace vask::runner
