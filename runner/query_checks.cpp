#include "query_checks.h"

#include "column_cells.h"
#include "load_fault.h"
#include "notes.h"
#include "user_error.h"

#include <algorithm>
#include <cctype>
#include <cmath>

namespace vask::runner {
namespace {

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
            tell_note(fmt::format(
                "{}: column {} ({}): '{}' and perhaps other keys were read as "
                "{} and are printed in another spelling; --types '{}:str' "
                "keeps each as it is",
                loaded.source.name(), place + 1, loaded.header.names[place], shown(*cell),
                is_time_type(loaded.data.columns[place].type) ? "times" : "numbers",
                loaded.header.names[place]));
}

// Which cell made a column text, and what to do; nothing where its type was asked for.
std::string why_text(type_set accepted, std::size_t column, const loaded_columns &loaded) {
    const std::string &name = loaded.header.names[column];
    const bool takes_times = accepted.contains(column_type::timestamp);
    auto text = takes_times ? first_text(loaded.source, loaded.header, loaded.request, column)
                            : std::nullopt;
    const bool is_mixed = !text && takes_times;
    if (!text)
        text = first_no_number(loaded.source, loaded.header, loaded.request, column);
    if (!text) {
        const auto code = first_leading_zero(loaded.source, loaded.header, loaded.request, column);
        return code
                   ? fmt::format(
                         ". Its cell '{}' on line {} has a leading zero, so the column was read as "
                         "text: if it holds numbers, give --types '{}:{}'",
                         shown(code->cell), code->line, name,
                         name_of(type_without_zeros(loaded.source, loaded.header, loaded.request,
                                                    column)))
                   : "";
    }
    if (is_mixed)
        return fmt::format(". It has numbers beside dates or times, such as '{}' on line {}",
                           shown(text->cell), text->line);
    if (is_reserved(text->cell, column_type::dbl))
        return fmt::format(
            ". Its cell '{}' on line {} is reserved, as a missing value is stored so",
            shown(text->cell), text->line);
    std::string hint = cell_hint(text->cell, name);
    if (hint.empty() && takes_times)
        hint = date_hint(text->cell);
    if (truth value{}; hint.empty() && accepted.contains(column_type::bit) &&
                       !std::isdigit(static_cast<unsigned char>(text->cell.front())) &&
                       read_cell(text->cell, value))
        hint = fmt::format(" It looks like a truth value: --types '{}:bit' reads it.", name);
    return fmt::format(". Its first cell that is no number{} is '{}', on line {}: if it stands for "
                       "a missing value, add it to the list of --na{}{}{}",
                       takes_times ? " or date" : "", shown(text->cell), text->line,
                       as_missing_item(text->cell), hint.empty() ? "" : ".", hint);
}

} // namespace

void require_type(type_set accepted, std::string_view name, std::string_view title,
                  std::size_t column, const loaded_columns &loaded) {
    const column_type type = loaded.data.columns[column].type;
    if (accepted.contains(type))
        return;
    fail("{}: {}: column {} ({}) is {}; {} takes {}{}", loaded.source.name(), title, column + 1,
         loaded.header.names[column], name_of(type), name, accepted.names(),
         type == column_type::str ? why_text(accepted, column, loaded) : "");
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
    const std::function<result_cell(std::size_t)> cell = cells_of(column);
    bool any = false;
    for (std::size_t row = 0; row < column.values.count(); ++row) {
        const result_cell value = cell(row);
        if (std::holds_alternative<std::monostate>(value))
            continue;
        if (narrowest_type(std::get<std::string_view>(value)) > column_type::dbl)
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
