#include "query.h"

#include "aggregate_patterns.h"
#include "column_cells.h"
#include "load_fault.h"
#include "nearest_name.h"
#include "notes.h"
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

// What is asked for twice is printed once, as an object of JSON can hold it.
void add_once(std::vector<std::size_t> &columns, std::size_t column) {
    if (std::find(columns.begin(), columns.end(), column) == columns.end())
        columns.push_back(column);
}

std::uint64_t count_nan(const table_column &column) {
    const auto count = []<class T>(std::span<const T> values) {
        return static_cast<std::uint64_t>(
            std::count_if(values.begin(), values.end(), [](T value) { return std::isnan(value); }));
    };
    switch (column.type) {
        case column_type::flt:
            return count(column.values.values<flt>());
        case column_type::dbl:
            return count(column.values.values<dbl>());
        default:
            return 0;
    }
}

// An aggregate of one column, for messages.
std::string about(const bound_aggregate &aggregate, const loaded_columns &loaded) {
    const std::size_t place = aggregate.columns.front();
    return fmt::format("{}: {}: column {} ({})", loaded.source.name(), aggregate.title, place + 1,
                       loaded.header.names[place]);
}

void refuse_nan(const bound_aggregate &aggregate, const loaded_columns &loaded) {
    const std::size_t place = aggregate.columns.front();
    if (const std::uint64_t nan = count_nan(loaded.data.columns[place]); nan > 0)
        fail("{} has {} NaN, without a place in an order; add the spelling to the list of --na and "
             "give --drop-na",
             about(aggregate, loaded), nan);
}

// Order statistics need values that have a place in an order.
void check_order(const query &asked, const bound_aggregate &aggregate,
                 const loaded_columns &loaded) {
    const table_column &column = loaded.data.columns[aggregate.columns.front()];
    if (asked.strict && column.missing > 0)
        fail("{} has {} missing value{} in {} rows, and with --strict {} takes none; without it "
             "such rows are left out, for this column's order statistics alone",
             about(aggregate, loaded), column.missing, column.missing == 1 ? "" : "s",
             loaded.data.rows, aggregate.name);
    refuse_nan(aggregate, loaded);
}

// As dbl, whole numbers that differ may be equal.
void refuse_rounded_keys(std::size_t place, const std::string &title,
                         const loaded_columns &loaded) {
    if (loaded.data.columns[place].is_derived)
        return;
    const auto wide = first_wide_integer(loaded.source, loaded.header, loaded.request, place,
                                         loaded.data.columns[place]);
    if (wide)
        fail("{}:{}: {}: column {} ({}): '{}' is a whole number beyond 64 bits, which could be "
             "taken for another one; give --types '{}:str'",
             loaded.source.name(), wide->line, title, place + 1, loaded.header.names[place],
             shown(wide->cell), loaded.header.names[place]);
}

// Of which columns order statistics leave something out.
void note_missing(const query &asked, const loaded_columns &loaded) {
    std::vector<std::size_t> columns;
    for (const bound_aggregate &aggregate : asked.aggregates)
        if (aggregate.rule->of == table::family::order)
            add_once(columns, aggregate.columns.front());
    for (const std::size_t place : columns)
        if (const std::uint64_t missing = loaded.data.columns[place].missing; missing > 0)
            tell_note(fmt::format("{}: column {} ({}) has {} missing value{} in {} rows, which "
                                  "order statistics leave out; --drop-na says no more of it, "
                                  "--strict refuses it",
                                  loaded.source.name(), place + 1, loaded.header.names[place],
                                  missing, missing == 1 ? "" : "s", loaded.data.rows));
}

// Keys are shown as the numbers they were read as.
void note_respelled(const query &asked, const loaded_columns &loaded) {
    for (const std::size_t place : asked.group_by)
        if (const auto &cell = loaded.data.columns[place].respelled)
            tell_note(fmt::format("{}: column {} ({}): '{}' and perhaps other keys were read as "
                                  "numbers and are printed in another spelling; --types '{}:str' "
                                  "keeps each as it is",
                                  loaded.source.name(), place + 1, loaded.header.names[place],
                                  shown(*cell), loaded.header.names[place]));
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
        fail("{}:{}: {}: there is no column '{}'; {}", source.name(), header.line, asked_by, name,
             suggestion(header.names, name));
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

void require_type(type_set accepted, std::string_view name, std::string_view title,
                  std::size_t column, const loaded_columns &loaded) {
    const column_type type = loaded.data.columns[column].type;
    if (accepted.contains(type))
        return;
    std::string reason =
        fmt::format("{}: {}: column {} ({}) is {}; {} takes {}", loaded.source.name(), title,
                    column + 1, loaded.header.names[column], name_of(type), name, accepted.names());
    const auto text = first_text(loaded.source, loaded.header, loaded.request, column);
    if (timestamp time{};
        text && accepted.contains(column_type::timestamp) && read_cell(text->cell, time))
        reason += fmt::format(". Its cell '{}' on line {} reads as a timestamp: give --types "
                              "'{}:timestamp' if all of them do",
                              text->cell, text->line, loaded.header.names[column]);
    else if (text && is_reserved(text->cell, column_type::dbl))
        reason += fmt::format(". Its cell '{}' on line {} is reserved, as a missing value is "
                              "stored so",
                              shown(text->cell), text->line);
    else if (text)
        reason += fmt::format(". Its first cell that is no number is '{}', on line {}: if it "
                              "stands for a missing value, add it to the list of --na{}",
                              shown(text->cell), text->line, as_missing_item(text->cell)) +
                  cell_hint(text->cell, loaded.header.names[column]);
    else if (const auto code =
                 first_leading_zero(loaded.source, loaded.header, loaded.request, column))
        reason += fmt::format(
            ". Its cell '{}' on line {} has a leading zero, so the column was read as text: if it "
            "holds numbers, give --types '{}:{}'",
            shown(code->cell), code->line, loaded.header.names[column],
            name_of(type_without_zeros(loaded.source, loaded.header, loaded.request, column)));
    throw user_error(reason);
}

void leave_out_unfit(query &asked, const loaded_columns &loaded) {
    if (asked.aggregates.empty())
        return;
    const auto unfit = [&](const bound_aggregate &aggregate) {
        return aggregate.by_pattern &&
               !types_of(*aggregate.rule)
                    .contains(loaded.data.columns[aggregate.columns.front()].type);
    };
    const bound_aggregate first = asked.aggregates.front();
    std::erase_if(asked.aggregates, unfit);
    if (asked.aggregates.empty())
        fail("{}: no column fits: {} takes {}", loaded.source.name(), first.name,
             types_of(*first.rule).names());
}

namespace {

// Texts of digits whose order is not that of the numbers they look like.
bool looks_numeric(const table_column &column) {
    if (column.type != column_type::str || column.is_derived)
        return false;
    const std::function<result_cell(std::size_t)> cell = cells_of(column.values, column.type);
    bool any = false;
    for (std::size_t row = 0; row < column.values.count(); ++row) {
        const result_cell value = cell(row);
        if (std::holds_alternative<std::monostate>(value))
            continue;
        if (narrowest_type(std::get<std::string_view>(value)) == column_type::str)
            return false;
        any = true;
    }
    return any;
}

// The least and greatest text of codes may be another than the least and greatest number.
void note_order_of_texts(const query &asked, const loaded_columns &loaded) {
    std::vector<std::size_t> told;
    for (const bound_aggregate &aggregate : asked.aggregates) {
        if (aggregate.rule->of != table::family::extreme && aggregate.rule->name != "largest")
            continue;
        const std::size_t place = aggregate.columns.front();
        const bool is_given =
            std::any_of(loaded.request.forced.begin(), loaded.request.forced.end(),
                        [&](const auto &forced) { return forced.first == place; });
        if (is_given || std::find(told.begin(), told.end(), place) != told.end() ||
            !looks_numeric(loaded.data.columns[place]))
            continue;
        told.push_back(place);
        tell_note(fmt::format("{}: column {} ({}) has numbers with leading zeros and was read as "
                              "text, so {} goes by the order of texts; --types '{}:lng' or ':dbl' "
                              "reads numbers, ':str' says no more of it",
                              loaded.source.name(), place + 1, loaded.header.names[place],
                              aggregate.name, loaded.header.names[place]));
    }
}

} // namespace

void check_columns(const query &asked, const loaded_columns &loaded) {
    for (const std::size_t column : asked.group_by)
        refuse_rounded_keys(column, "--group-by", loaded);
    for (const bound_aggregate &aggregate : asked.aggregates)
        for (const std::size_t column : aggregate.columns) {
            require_type(types_of(*aggregate.rule), aggregate.name, aggregate.title, column,
                         loaded);
            if (aggregate.rule->of == table::family::order)
                check_order(asked, aggregate, loaded);
            if (aggregate.rule->name == "range")
                refuse_nan(aggregate, loaded);
            if (aggregate.rule->of == table::family::distinct)
                refuse_rounded_keys(column, aggregate.title, loaded);
        }
    if (!asked.drop_missing)
        note_missing(asked, loaded);
    note_respelled(asked, loaded);
    note_order_of_texts(asked, loaded);
}

} // namespace vask::runner
