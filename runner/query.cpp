#include "query.h"

#include "load_fault.h"
#include "user_error.h"

#include <algorithm>
#include <numeric>

namespace vask::runner {
namespace {

// Single-character edits that turn one name into the other.
std::size_t edit_distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

// The names a user may have meant, or all of them.
std::string suggestion(const std::vector<std::string> &names, std::string_view wanted) {
    constexpr std::size_t most_listed = 30;
    const bool unseparated = names.size() == 1 && names[0].find_first_of("\t;,|") != names[0].npos;
    const auto closest =
        std::min_element(names.begin(), names.end(), [&](const auto &a, const auto &b) {
            return edit_distance(a, wanted) < edit_distance(b, wanted);
        });
    if (!unseparated && edit_distance(*closest, wanted) <= 2)
        return fmt::format("did you mean {}?", *closest);
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

std::string known_aggregates() {
    std::string list;
    for (const aggregate_rule &rule : aggregate_rules())
        list += fmt::format("{}{}{}", list.empty() ? "" : ", ", rule.name,
                            rule.arguments == argument_form::all_rows ? "(*)" : "");
    return list;
}

bound_aggregate bind_aggregate(const aggregate_call &call, const csv_header &header,
                               const source_text &source) {
    const argument &first = call.arguments.front();
    const bool all_rows = first.text == "*" && !first.quoted;
    const aggregate_rule *const rule =
        find_aggregate(call.function, all_rows ? argument_form::all_rows : argument_form::column);
    if (rule == nullptr)
        fail("--agg: {}: there is no aggregate '{}{}'; there are: {}", call.text, call.function,
             all_rows ? "(*)" : "", known_aggregates());
    if (call.arguments.size() != 1)
        fail("--agg: {}: {} takes one column; put a name that holds a comma in double quotes",
             call.text, rule->name);
    bound_aggregate result{call.text, rule, {}};
    if (!all_rows)
        result.columns.push_back(find_column(header, source, first.text, "--agg: " + call.text));
    return result;
}

void check_type(const bound_aggregate &aggregate, std::size_t column, const table &data,
                const load_request &request, const csv_header &header, const source_text &source) {
    const column_type type = data.columns[column].type;
    if (aggregate.rule->accepts.contains(type))
        return;
    std::string reason = fmt::format(
        "{}: {}: column {} ({}) is {}; {} takes {}", source.name(), aggregate.title, column + 1,
        header.names[column], name_of(type), aggregate.rule->name, aggregate.rule->accepts.names());
    if (const auto text = first_text(source, header, request, column))
        reason += fmt::format(". Its first cell that is no number is '{}', on line {}: if it "
                              "stands for a missing value, add it to the list of --na",
                              shown(text->cell), text->line);
    throw user_error(reason);
}

} // namespace

std::vector<bool> query::needed_columns(std::size_t columns) const {
    std::vector<bool> needed(columns, false);
    for (const std::size_t column : group_by)
        needed[column] = true;
    for (const bound_aggregate &aggregate : aggregates)
        for (const std::size_t column : aggregate.columns)
            needed[column] = true;
    return needed;
}

std::size_t find_column(const csv_header &header, const source_text &source,
                        const std::string &name, std::string_view asked_by) {
    const auto found = std::find(header.names.begin(), header.names.end(), name);
    if (found == header.names.end())
        fail("{}:1: {}: there is no column '{}'; {}", source.name(), asked_by, name,
             suggestion(header.names, name));
    return static_cast<std::size_t>(found - header.names.begin());
}

query bind_query(const options &request, const csv_header &header, const source_text &source) {
    if (request.aggregates.empty())
        fail("{}: nothing to compute; give --agg, as in --agg 'sum({})'; {}", source.name(),
             header.names.back(), suggestion(header.names, {}));
    query result;
    result.sorted = request.sort;
    for (const std::string &name : request.group_by)
        result.group_by.push_back(find_column(header, source, name, "--group-by"));
    for (const aggregate_call &call : request.aggregates)
        result.aggregates.push_back(bind_aggregate(call, header, source));
    return result;
}

void check_types(const query &asked, const table &data, const load_request &request,
                 const csv_header &header, const source_text &source) {
    for (const bound_aggregate &aggregate : asked.aggregates)
        for (const std::size_t column : aggregate.columns)
            check_type(aggregate, column, data, request, header, source);
}

} // namespace vask::runner
