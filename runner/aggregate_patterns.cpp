#include "aggregate_patterns.h"

#include "query.h"
#include "text_pattern.h"
#include "user_error.h"

#include <algorithm>
#include <optional>
#include <string>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace vask::runner {
namespace {

struct column_choice {
    std::vector<std::size_t> columns;
    bool by_pattern = false;
};

// A range of columns, as in v1:v3 and #2:#5. Each colon may be a part of a name.
std::optional<column_choice> range_of(const std::string &text, const csv_header &header,
                                      const source_text &source, std::string_view asked_by) {
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size())
        return std::nullopt;
    const std::size_t first = find_column(header, source, text.substr(0, colon), asked_by);
    const std::size_t last = find_column(header, source, text.substr(colon + 1), asked_by);
    if (first > last)
        fail("{}: the column {} stands behind {}; a range goes from left to right", asked_by,
             header.names[first], header.names[last]);
    column_choice result;
    for (std::size_t place = first; place <= last; ++place)
        result.columns.push_back(place);
    return result;
}

// Nothing for what is the name of a column.
std::optional<column_choice> choose(const argument &wanted, const csv_header &header,
                                    const source_text &source, const std::vector<std::size_t> &keys,
                                    std::string_view asked_by) {
    if (wanted.quoted ||
        std::find(header.names.begin(), header.names.end(), wanted.text) != header.names.end())
        return std::nullopt;
    if (wanted.text.find_first_of("*?") == std::string::npos)
        return range_of(wanted.text, header, source, asked_by);
    column_choice result{{}, true};
    for (std::size_t place = 0; place < header.names.size(); ++place)
        if (is_like(header.names[place], wanted.text, '*', '?') &&
            (wanted.text != "*" || std::find(keys.begin(), keys.end(), place) == keys.end()))
            result.columns.push_back(place);
    if (result.columns.empty())
        fail("{}: no column's name is like '{}'; the columns are {}", asked_by, wanted.text,
             fmt::join(header.names, ", "));
    return result;
}

// perc:50,95 is perc:50 and perc:95.
std::vector<std::string> functions_of(const std::string &function) {
    const std::size_t colon = std::min(function.find(':'), function.size());
    std::vector<std::string> result;
    std::size_t begin = std::min(colon + 1, function.size());
    while (true) {
        const std::size_t end = std::min(function.find(',', begin), function.size());
        result.push_back(colon == function.size()
                             ? function
                             : function.substr(0, colon + 1) + function.substr(begin, end - begin));
        if (end == function.size())
            return result;
        begin = end + 1;
    }
}

std::string written(const std::string &function, const std::vector<argument> &arguments) {
    std::vector<std::string> names;
    names.reserve(arguments.size());
    for (const argument &each : arguments)
        names.push_back(as_argument(each.text));
    return fmt::format("{}({})", function, fmt::join(names, ","));
}

} // namespace

bool counts_rows(const aggregate_call &call) {
    const argument &first = call.arguments.front();
    return first.text == "*" && !first.quoted && (call.function == "count" || call.function == "n");
}

aggregate_choice calls_of(const aggregate_call &call, const csv_header &header,
                          const source_text &source, const std::vector<std::size_t> &keys) {
    const std::string asked_by = "--agg: " + call.text;
    const std::vector<std::string> functions = functions_of(call.function);
    const std::optional<column_choice> columns =
        counts_rows(call) ? std::nullopt
                          : choose(call.arguments.front(), header, source, keys, asked_by);
    if (functions.size() == 1 && !columns)
        return {{call}};
    aggregate_choice result;
    result.by_pattern = columns && columns->by_pattern;
    std::vector<argument> arguments = call.arguments;
    const auto add = [&](const std::string &function) {
        result.calls.push_back({written(function, arguments), function, arguments});
    };
    for (const std::string &function : functions)
        if (!columns)
            add(function);
    for (const std::size_t place : columns ? columns->columns : std::vector<std::size_t>{}) {
        arguments.front() = {header.names[place], true};
        for (const std::string &function : functions)
            add(function);
    }
    if (call.alias && result.calls.size() > 1)
        fail("{}: '{}' names one result, and these are {}", asked_by, *call.alias,
             result.calls.size());
    if (call.alias)
        result.calls.front().alias = call.alias;
    return result;
}

} // namespace vask::runner
