// vask: aggregates the columns of a file through the operator library.
#include "bars.h"
#include "column_cells.h"
#include "containment.h"
#include "derived_columns.h"
#include "executor.h"
#include "explain.h"
#include "filtered_union.h"
#include "input_file.h"
#include "notes.h"
#include "operator_library.h"
#include "options.h"
#include "output.h"
#include "query.h"
#include "query_checks.h"
#include "summary.h"
#include "user_error.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <malloc.h>
#include <tbb/global_control.h>

namespace {

using namespace vask::runner;
namespace table = vask::table;

constexpr int exit_failed = 1;     // of the machine or of the program
constexpr int exit_user_error = 2; // of the request or of the data

constexpr const char *containment_column = "contained";

table::operator_set operators_of(const options &request, const explain_log &explain) {
    const auto library = std::make_shared<const operator_library>(request.library);
    return table::operator_set(
        [library](const std::string &name) { return library->address(name); }, explain.watcher());
}

// The columns of a file with the one that --contained-in adds.
csv_header with_containment(const input_file &file) {
    csv_header header = file.header();
    if (std::count(header.names.begin(), header.names.end(), containment_column) != 0)
        fail(
            "{}:1: --contained-in: there is a column '{}' already, which is the name of the one to "
            "be added; rename it",
            file.source().name(), containment_column);
    header.names.emplace_back(containment_column);
    return header;
}

csv_header with_file_column(const input_file &file, csv_header header, const std::string &name) {
    if (std::count(header.names.begin(), header.names.end(), name) != 0)
        fail("{}:{}: --file-column: there is a column '{}' already; give another name",
             file.source().name(), header.line, name);
    header.names.push_back(name);
    return header;
}

table_column look_up(const options &request, const input_file &file, std::size_t column,
                     const loaded_table &data, const explain_log &explain) {
    const auto &[path, name] = *request.contained_in;
    input_file other(path, request, {});
    const std::size_t place = find_column(other.header(), other.source(), name, "--contained-in");
    std::vector<bool> wanted(other.header().names.size(), false);
    wanted[place] = true;
    // No type can be given for the other file's column. Who gives a type of numbers for the one
    // that is looked up means numbers there, too.
    const bool typed =
        std::any_of(request.types.begin(), request.types.end(),
                    [&](const auto &given) { return given.first == request.looked_up; });
    loaded_table known = other.load(wanted, {}, explain, !typed);
    // Texts may be dates in one of the files alone.
    if (data.columns[column].type == column_type::str && is_time_type(known.columns[place].type))
        known = other.load(wanted, {{fmt::format("#{}", place + 1), column_type::str}}, explain);
    const auto called = [](const input_file &of, const std::string &its) {
        return fmt::format("{}: column {}", of.source().name(), its);
    };
    return contained_in({data.columns[column], called(file, request.looked_up)},
                        {known.columns[place], called(other, name)}, request.looked_up);
}

// Keys that are times are printed as they were read, if all were written alike.
void spell_keys(result_table &result, const std::vector<std::size_t> &keys,
                const loaded_table &data, const cell_format &format) {
    for (std::size_t i = 0; i < keys.size(); ++i)
        if (const auto style = data.columns[keys[i]].key_style)
            result.columns[i].spelling = time_spelling{*style, format.dates};
}

result_table rows_of(const loaded_table &data, const csv_header &header,
                     const std::vector<std::size_t> &columns) {
    result_table result;
    result.rows = data.rows;
    for (const std::size_t column : columns)
        result.columns.push_back({header.names[column],
                                  data.columns[column].type == column_type::str,
                                  cells_of(data.columns[column])});
    return result;
}

void append_further(const options &request, input_file &file) {
    for (const std::string &path : request.further_files)
        file.append(path, request, request.header);
}

void keep_rows(const options &request, input_file &file, const derived_columns &derived,
               const csv_header &header) {
    if (!request.where)
        return;
    const std::size_t columns = file.header().names.size();
    std::optional<std::size_t> file_place;
    if (request.file_column)
        file_place = find_column(header, file.source(), *request.file_column, "--file-column");
    file.keep_rows(std::make_shared<const row_filter>(
        *request.where,
        [&](const std::string &name) {
            return derived.in_condition(name, header, file.source(), columns, file_place);
        },
        request.cells.dates, file_place));
}

// A title that stands for the first aggregate is known when the request is bound.
row_order order_of(const options &request, const query &asked) {
    row_order order = request.order;
    if (order.by_first_aggregate)
        order.by = asked.aggregates.front().title;
    return order;
}

void run_aggregates(const options &request, const explain_log &explain) {
    input_file file(request.file, request, request.header);
    const bool looks_up = request.contained_in.has_value();
    const std::size_t columns = file.header().names.size();
    append_further(request, file);
    csv_header header = looks_up ? with_containment(file) : file.header();
    if (request.file_column)
        header = with_file_column(file, std::move(header), *request.file_column);
    const derived_columns derived(request.definitions, header, file.source(), request.cells.dates);
    query asked = bind_query(request, header, file.source());
    std::vector<bool> needed = asked.needed_columns(header.names.size());
    derived.add_used(needed);
    std::vector<bool> wanted(needed.begin(), needed.begin() + static_cast<std::ptrdiff_t>(columns));
    const std::size_t looked_up = looks_up
                                      ? find_column(file.header(), file.source(), request.looked_up,
                                                    "the column to look up (--column names it)")
                                      : columns;
    if (looks_up)
        wanted[looked_up] = true;
    const table::operator_set operators = operators_of(request, explain);
    keep_rows(request, file, derived, header);
    std::vector<bool> keys(columns, false);
    for (const std::size_t column : asked.group_by)
        if (column < columns)
            keys[column] = true;
    if (looks_up && asked.aggregates.empty())
        keys[looked_up] = true;
    loaded_table data = file.load(wanted, request.types, explain, true, keys);
    if (looks_up)
        data.columns.push_back(look_up(request, file, looked_up, data, explain));
    if (request.file_column)
        data.columns.push_back(file.file_names(data));
    derived.compute(data, needed, static_cast<unsigned>(request.threads));
    leave_out_unfit(asked, {data, file.loading(), header, file.source()});
    check_columns(asked, {data, file.loading(), header, file.source()});
    result_table result = asked.aggregates.empty()
                              ? rows_of(data, header, {looked_up, columns})
                              : execute(asked, data, header, operators, explain);
    spell_keys(result,
               asked.aggregates.empty() ? std::vector<std::size_t>{looked_up} : asked.group_by,
               data, request.cells);
    if (request.order.is_asked_for())
        put_in_order(result, order_of(request, asked));
    if (request.bar)
        add_bars(result, *request.bar);
    print(result, request.output, stdout);
}

void run_union(const options &request, const explain_log &explain) {
    const table::operator_set operators = operators_of(request, explain);
    input_file file(request.file, request, request.header);
    print(filtered_union(file, request, operators, explain), request.output, stdout);
}

void run_report(const options &request, const explain_log &explain) {
    const table::operator_set operators = operators_of(request, explain);
    input_file file(request.file, request, request.header);
    append_further(request, file);
    csv_header header = file.header();
    if (request.file_column)
        header = with_file_column(file, std::move(header), *request.file_column);
    const derived_columns derived(request.definitions, header, file.source(), request.cells.dates);
    keep_rows(request, file, derived, header);
    loaded_table data =
        file.load(std::vector<bool>(file.header().names.size(), true), request.types, explain);
    if (request.file_column)
        data.columns.push_back(file.file_names(data));
    derived.compute(data, std::vector<bool>(header.names.size(), true),
                    static_cast<unsigned>(request.threads));
    if (request.asked == command::schema) {
        print(schema_of(data, header, operators, explain), request.output, stdout);
        return;
    }
    output_style style = request.output;
    // A dozen figures stand side by side, to be looked at.
    constexpr int overview_digits = 6;
    if (style.format == output_format::table || style.format == output_format::markdown)
        style.digits = style.digits.value_or(overview_digits);
    print(summarize(data, header, style.format, operators, explain), style, stdout);
}

void run(const options &request) {
    GDKnr_threads = request.threads;
    const tbb::global_control limit(tbb::global_control::max_allowed_parallelism,
                                    static_cast<std::size_t>(request.threads));
    const explain_log explain(request.explain);
    switch (request.asked) {
        case command::aggregates:
            run_aggregates(request, explain);
            break;
        case command::column_union:
            run_union(request, explain);
            break;
        case command::summary:
        case command::schema:
            run_report(request, explain);
            break;
    }
}

// A process that lives for one request uses memory again rather than giving it back: new pages cost
// more than anything that is done in them, the more so on a virtual machine (sums by 4 million
// texts: 1.3 s, against 2.5).
void keep_memory() {
#if defined(__GLIBC__)
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
#endif
}

} // namespace

int main(int argc, char **argv) {
    keep_memory();
    try {
        if (const auto request = parse_options(argc, argv))
            run(*request);
        return 0;
    } catch (const user_error &error) {
        tell(fmt::format("vask: {}\n", error.what()));
        return exit_user_error;
    } catch (const std::bad_alloc &) {
        tell("vask: out of memory\n");
    } catch (const std::system_error &error) {
        tell(fmt::format("vask: the system refused a thread or another resource ({}); free some, "
                         "or give --threads 1\n",
                         error.what()));
    } catch (const std::exception &error) {
        tell(fmt::format("vask: {}\n", error.what()));
    }
    return exit_failed;
}
