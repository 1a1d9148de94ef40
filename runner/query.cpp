#include "query.h"

#include "aggregate_patterns.h"
#include "load_fault.h"
#include "nearest_name.h"
#include "user_error.h"

#include <algorithm>
#include <cmath>

namespace vask::runner {
namespace {

// The names a user may have meant, or all of them.
std::string suggestion(const std::vector<std::string> &names, std::string_view wanted) {
    constexpr std::size_t most_listed = 30;
    const bool unseparated = names.size() == 1 && names[0].find_first_of("\t;,|") != names[0].npos;
    if (const auto nearest = nearest_name(names, wanted); nearest && !unseparated)
        return fmt::format("did you mean {}?", *nearest);
    std::string list = fmt::format(
        "the columns are {}",
        fmt::join(names.begin(),
                  names.begin() + static_cast<std::ptrdiff_t>(std::min(names.size(), most_listed)),
                  ", "));
    if (names.size() > most_listed)
        list += fmt::format(" and {} more", names.size() - most_listed);
    if (unseparated)
        list += "; is the separator another one? Give it with --sep";
    return list;
}

// An alias goes for what it stands for. In perc:90 the parameter is part of the name.
named_aggregate resolve(const std::string &name, bool all_rows, std::string_view asked_by) {
    const std::size_t colon = std::min(name.find(':'), name.size());
    const std::string_view plain = std::string_view(name).substr(0, colon);
    if (auto found = find_aggregate(plain, all_rows)) {
        if (colon == name.size())
            return *found;
        double percent = 0;
        if (!found->takes_percent)
            fail("{}: {} takes nothing behind its name", asked_by, plain);
        if (!read_cell(std::string_view(name).substr(colon + 1), percent) ||
            !(percent >= 0 && percent <= 100))
            fail("{}: behind {}: stands a number of percent from 0 to 100, as in {}:90(x)",
                 asked_by, plain, plain);
        found->parameter = percent / 100;
        return *found;
    }
    const auto nearest = nearest_name(aggregate_names(), plain);
    fail("{}: there is no aggregate '{}{}'{}; there are:{}", asked_by, name, all_rows ? "(*)" : "",
         nearest && !all_rows ? fmt::format(" (did you mean {}?)", *nearest) : "",
         aggregate_overview());
}

double read_parameter(const table::parameter_rule &rule, std::string_view text,
                      std::string_view asked_by) {
    double value = 0;
    if (!read_cell(text, value))
        fail("{}: '{}' is no number; {}", asked_by, shown(text), meaning_of(rule));
    return value;
}

bound_aggregate bind_aggregate(const aggregate_call &call, const csv_header &header,
                               const source_text &source) {
    const std::string asked_by = "--agg: " + call.text;
    const bool all_rows = counts_rows(call);
    const named_aggregate found = resolve(call.function, all_rows, asked_by);
    const auto &[rule, parameter, takes_percent] = found;
    bound_aggregate result{
        call.title(), call.function.substr(0, call.function.find(':')), rule, {}, parameter};
    if (all_rows && call.arguments.size() == 1)
        return result;
    const bool reads_parameter = rule->parameter != nullptr && !parameter;
    const std::size_t expected = rule->columns + (reads_parameter ? 1 : 0);
    if (call.arguments.size() != expected)
        fail("{}: it is written {}{}{}{}", asked_by, usage_of(found, call.function),
             reads_parameter ? ", where " : "", reads_parameter ? meaning_of(*rule->parameter) : "",
             call.arguments.size() > expected
                 ? "; a name that holds a comma stands in double quotes"
                 : "");
    for (std::size_t i = 0; i < rule->columns; ++i)
        result.columns.push_back(find_column(header, source, call.arguments[i].text, asked_by));
    if (reads_parameter)
        result.parameter = read_parameter(*rule->parameter, call.arguments.back().text, asked_by);
    if (result.parameter) {
        const table::parameter_rule &bounds = *rule->parameter;
        const double value = *result.parameter;
        // Written so that a NaN is out of bounds, too.
        if (!(value >= bounds.lowest && value <= bounds.highest) ||
            (bounds.whole && value != std::floor(value)))
            fail("{}: {} is out of bounds; {}", asked_by, value, meaning_of(bounds));
    }
    return result;
}

} // namespace

void add_once(std::vector<std::size_t> &columns, std::size_t column) {
    if (std::find(columns.begin(), columns.end(), column) == columns.end())
        columns.push_back(column);
}

std::vector<bool> query::needed_columns(std::size_t columns) const {
    std::vector<bool> needed(columns, false);
    for (const std::size_t column : group_by)
        needed[column] = true;
    for (const bound_aggregate &aggregate : aggregates)
        for (const std::size_t column : aggregate.columns)
            needed[column] = true;
    return needed;
}

namespace {

// As in #3, the third.
std::optional<std::size_t> number_of_column(const std::string &name) {
    lng number = 0;
    if (!name.starts_with('#') || !read_cell(std::string_view(name).substr(1), number))
        return std::nullopt;
    return number > 0 ? static_cast<std::size_t>(number) : 0;
}

} // namespace

std::size_t find_column(const csv_header &header, const source_text &source,
                        const std::string &name, std::string_view asked_by) {
    std::vector<std::size_t> numbers;
    for (std::size_t i = 0; i < header.names.size(); ++i)
        if (header.names[i] == name)
            numbers.push_back(i + 1);
    if (const auto number = number_of_column(name); number && numbers.empty()) {
        if (*number == 0 || *number > header.names.size())
            fail("{}:1: {}: there is no column {}; they are #1 to #{}", source.name(), asked_by,
                 name, header.names.size());
        return *number - 1;
    }
    if (numbers.empty())
        throw unknown_column(fmt::format("{}:{}: {}: there is no column '{}'; {}", source.name(),
                                         header.line, asked_by, name,
                                         suggestion(header.names, name)));
    if (numbers.size() > 1)
        fail("{}:{}: {}: the columns {} are all called '{}'; {}", source.name(), header.line,
             asked_by, fmt::join(numbers, ", "), name,
             header.is_given() ? "give different names with --names"
                               : "rename those that are not meant, or remove the header line and "
                                 "name all columns with --names");
    return numbers.front() - 1;
}

namespace {

// Objects of JSON hold a title once.
void add_aggregate(query &asked, bound_aggregate bound, const csv_header &header,
                   const source_text &source) {
    for (const std::size_t column : asked.group_by)
        if (header.names[column] == bound.title)
            fail("{}: the column {} to group by is called as the aggregate {} is; give it another "
                 "name, as in 'sum(x) as total'",
                 source.name(), column + 1, bound.title);
    for (const bound_aggregate &earlier : asked.aggregates) {
        if (earlier.title != bound.title)
            continue;
        if (earlier.rule != bound.rule || earlier.columns != bound.columns ||
            earlier.parameter != bound.parameter)
            fail("--agg: two different results are called '{}'; give one another name, as in "
                 "'sum(x) as total'",
                 bound.title);
        return;
    }
    asked.aggregates.push_back(std::move(bound));
}

} // namespace

query bind_query(const options &request, const csv_header &header, const source_text &source) {
    if (request.aggregates.empty() && !(request.contained_in && request.group_by.empty()))
        fail("{}: nothing to compute; give --agg, as in --agg 'count(*)'; {}", source.name(),
             suggestion(header.names, {}));
    query result;
    result.sorted = request.sort;
    result.drop_missing = request.drop_missing;
    result.strict = request.strict;
    // What is asked for twice is printed once, as an object of JSON can hold it.
    for (const std::string &name : request.group_by)
        add_once(result.group_by, find_column(header, source, name, "--group-by"));
    for (const aggregate_call &written : request.aggregates) {
        const aggregate_choice choice = calls_of(written, header, source, result.group_by);
        for (const aggregate_call &call : choice.calls) {
            bound_aggregate bound = bind_aggregate(call, header, source);
            bound.by_pattern = choice.by_pattern;
            add_aggregate(result, std::move(bound), header, source);
        }
    }
    return result;
}

} // namespace vask::runner
