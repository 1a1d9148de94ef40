#include "aggregates.h"

#include "table_columns.h"

#include <algorithm>
#include <array>
#include <iterator>

#include <fmt/format.h>

namespace vask::runner {
namespace {

using table::family;
using table::function_rule;

// Their parameter stands behind the name in percent; perc alone is the 95th.
constexpr std::string_view percent_name = "perc";
constexpr double usual_fraction = 0.95;

// What the groups' rows are counted by.
constexpr std::string_view row_count = "count";
constexpr std::string_view short_row_count = "n";

// As in p95 and p99.9.
std::optional<double> percent_in(std::string_view name) {
    double percent = 0;
    if (name.size() < 2 || name[0] != 'p' || name[1] < '0' || name[1] > '9' ||
        !read_cell(name.substr(1), percent) || !(percent >= 0 && percent <= 100))
        return std::nullopt;
    return percent;
}

struct heading {
    family of;
    std::string_view text;
};

// Families with the same text share a line.
constexpr std::array headings{
    heading{family::rows, "counts"},      heading{family::count, "counts"},
    heading{family::distinct, "counts"},  heading{family::sum, "sums"},
    heading{family::weighted, "sums"},    heading{family::extreme, "extremes"},
    heading{family::moment, "moments"},   heading{family::order, "order"},
    heading{family::pair, "two columns"}, heading{family::place, "rows"}};

// Functions of rows have one name here, with an asterisk.
bool is_shown(const function_rule &rule) {
    return rule.columns > 0 || rule.name == "size";
}

std::string shown_usage(const function_rule &rule) {
    return rule.columns == 0 ? fmt::format("{}(*)", row_count) : table::usage(rule);
}

} // namespace

std::string type_set::names() const {
    std::string result;
    for (const column_type type : all_column_types)
        if (contains(type))
            result += fmt::format("{}{}", result.empty() ? "" : ", ", name_of(type));
    return result;
}

std::optional<named_aggregate> find_aggregate(std::string_view name, bool all_rows) {
    if (all_rows)
        return name == row_count || name == short_row_count
                   ? std::optional(named_aggregate{&table::function("size")})
                   : std::nullopt;
    if (name == percent_name)
        return named_aggregate{&table::function("quantile"), usual_fraction, true};
    if (const auto percent = percent_in(name))
        return named_aggregate{&table::function("quantile"), *percent / 100};
    const auto found = table::function_named(name);
    if (!found || found->rule->columns == 0)
        return std::nullopt;
    return named_aggregate{found->rule, found->parameter};
}

std::string usage_of(const named_aggregate &aggregate, std::string_view name) {
    const std::string usage = table::usage(*aggregate.rule);
    std::string_view arguments = std::string_view(usage).substr(aggregate.rule->name.size());
    const bool has_own = aggregate.parameter && arguments.find(',') != arguments.npos;
    if (has_own)
        arguments = arguments.substr(0, arguments.rfind(','));
    return fmt::format("{}{}{}", name, arguments, has_own ? ")" : "");
}

std::string meaning_of(const table::parameter_rule &parameter) {
    return fmt::format("{} is {}{}", parameter.letter, parameter.meaning,
                       parameter.letter == "p" ? ", as in percentile(x,0.9), which can also be "
                                                 "written perc:90(x)"
                                               : "");
}

type_set types_of(const function_rule &rule) {
    type_set result;
    for (const column_type type : all_column_types)
        if (table::accepts(rule.accepts, value_type_of(type).of))
            result.add(type);
    return result;
}

std::vector<std::string> aggregate_names() {
    std::vector<std::string> names{std::string(percent_name)};
    for (const function_rule &rule : table::function_rules())
        if (rule.columns > 0)
            names.emplace_back(rule.name);
    for (const auto &alias : table::function_aliases())
        if (table::function(alias.of).columns > 0)
            names.emplace_back(alias.name);
    return names;
}

std::string aggregate_overview() {
    constexpr int heading_width = 12;
    constexpr std::size_t line_width = 96;
    std::string text;
    std::string_view last;
    std::size_t column = 0;
    const auto begin_line = [&](std::string_view heading) {
        fmt::format_to(std::back_inserter(text), "\n  {:<{}}", heading, heading_width);
        column = heading_width + 2;
    };
    const auto add = [&](const std::string &word) {
        if (column + word.size() + 1 > line_width)
            begin_line("");
        text.append(" ").append(word);
        column += word.size() + 1;
    };
    for (const heading &each : headings) {
        if (each.text != last)
            begin_line(each.text);
        last = each.text;
        for (const function_rule &rule : table::function_rules())
            if (rule.of == each.of && is_shown(rule))
                add(shown_usage(rule));
    }
    begin_line("also");
    for (const auto &alias : table::function_aliases())
        if (table::function(alias.of).columns > 0)
            add(std::string(alias.name));
    add(fmt::format("{}:P", percent_name));
    add("pP");
    return text;
}

} // namespace vask::runner
