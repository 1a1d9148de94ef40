#include "options.h"

#include "aggregates.h"
#include "nearest_name.h"
#include "user_error.h"
#include "vask/version.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <new>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <thread>

#include <glob.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

namespace vask::runner {
namespace {

constexpr const char *description =
    "Aggregates the columns of a CSV or TSV file, whole or by group, on all cores.";

constexpr const char *union_description =
    "Prints the values of two columns, one column's after the other's, from the rows in which "
    "neither is\nmissing, each with the number of its row and the name of its column.";

constexpr const char *summary_description =
    "Prints a row for each column of a file: its type, missing and different values, least, "
    "quartiles,\ngreatest, mean, standard deviation, most frequent value, and how the values lie.";
constexpr const char *schema_description =
    "Prints a row for each column of a file: its number, name, type, missing values and first "
    "value.";

constexpr const char *description_of(command asked) {
    switch (asked) {
        case command::column_union:
            return union_description;
        case command::summary:
            return summary_description;
        case command::schema:
            return schema_description;
        case command::aggregates:
            break;
    }
    return description;
}

constexpr const char *aggregate_notes = R"(
  A final p stands for the population instead of a sample. slope(y,x) is that of y
  over x. q is 0 to 4, p 0 to 1, P 0 to 100, k 1 for the largest value. A column whose name has a
  comma or bracket stands in double quotes. mean(*) is that of each column of numbers, mean(v*) of
  those that are called so, mean(v1:v3) of those from v1 to v3, mean(#2) that of the second.

Examples:
  vask penguins.csv --agg 'sum(body_mass_g), sum(bill_length_mm)'
  vask penguins.csv --group-by species,sex --agg 'count(*), mean(body_mass_g)' --sort
  vask penguins.csv -g sex -a 'median(body_mass_g), perc:90(body_mass_g)'
  vask penguins.csv -g island,species -a 'mean(body_mass_g)' --top 3 --digits 4
  zcat big.tsv.gz | vask - --sep tab --agg 'sum(v1)' --format json
  vask codes.csv --types zip:str,weight:flt --na '-99,' --agg 'sum(weight)'
  vask sales.csv --let 'total = price * n, m = month(day)' -g m -a 'sum(total) as total' --bar total
  vask orders.csv --contained-in customers.csv:id --column customer --agg 'mean(contained)'
  vask union penguins.csv bill_length_mm bill_depth_mm      (vask union --help tells more)
  vask summary penguins.csv                                 (and vask schema: the types alone)

The file's first line names the columns. Types are inferred: int, lng, dbl, date, timestamp or str; a
column with numbers that have leading zeros is str. Spaces around a field that is not in quotes do
not belong to it; blank lines are passed over.
Exit status: 0; 2 when the request or the data are at fault (the message says where); 1 for any
other failure.)";

//! The largest number of partitions an operator makes, and so of threads that can help.
constexpr int most_threads = 256;

int default_threads() {
    return std::clamp(static_cast<int>(std::thread::hardware_concurrency()), 1, most_threads);
}

//! What --sep takes for a run of blanks.
constexpr std::string_view blanks = "blanks";

char mark_named(const std::string &text, std::string_view option) {
    if (text.size() != 1 || (text[0] >= '0' && text[0] <= '9') || text == "-" || text == "+" ||
        text == "e" || text == "E" || text == "\n" || text == "\r")
        fail("{}: '{}' is no mark within numbers; give one character, such as . or ,", option,
             text);
    return text.front();
}

ragged_records ragged_named(const std::string &text) {
    if (text == "fill")
        return ragged_records::filled;
    if (text == "skip")
        return ragged_records::skipped;
    fail("--ragged: '{}' is neither fill nor skip", text);
}

char separator_named(const std::string &text) {
    if (text == "tab" || text == "\\t")
        return '\t';
    if (text.empty())
        fail("--sep: there is nothing between the quotes; give one character, or tab");
    if (text.size() != 1 || text == "\"" || text == "\n" || text == "\r")
        fail("--sep: '{}' is no separator; give one character, or tab", text);
    return text.front();
}

int thread_count_named(const std::string &text) {
    int number = 0;
    if (!read_cell(text, number) || number < 1 || number > most_threads)
        fail("--threads: '{}' is no number of threads; give one from 1 to {}", text, most_threads);
    return number;
}

//! Digits that a number can have: one more than those that tell two doubles apart says nothing.
constexpr int most_digits = 17;

int digits_named(const std::string &text) {
    int number = 0;
    if (!read_cell(text, number) || number < 1 || number > most_digits)
        fail("--digits: '{}' is no number of digits; give one from 1 to {}", text, most_digits);
    return number;
}

std::size_t row_count_named(const std::string &text, std::string_view option) {
    lng number = 0;
    if (!read_cell(text, number) || number < 0)
        fail("{}: '{}' is no number of rows", option, text);
    return static_cast<std::size_t>(number);
}

// The first name of each format is the one that is listed.
constexpr std::array<std::pair<const char *, output_format>, 8> formats{
    {{"table", output_format::table},
     {"markdown", output_format::markdown},
     {"csv", output_format::csv},
     {"tsv", output_format::tsv},
     {"json", output_format::json},
     {"jsonl", output_format::jsonl},
     {"md", output_format::markdown},
     {"ndjson", output_format::jsonl}}};

output_format format_named(const std::string &name) {
    const auto *const found =
        std::ranges::find(formats, lower(name), [](const auto &known) { return known.first; });
    if (found == formats.end())
        fail("--format: '{}' is no format; the formats are table, markdown, csv, tsv, json and "
             "jsonl",
             name);
    return found->second;
}

std::vector<std::pair<std::string, column_type>> parse_types(const std::string &text) {
    std::vector<std::pair<std::string, column_type>> types;
    for (auto &[name, type] : parse_assignments(text, "--types")) {
        const auto known = type_named(type);
        if (!known)
            fail("--types: '{}' is no type; the types are bit, bte, sht, int, lng, flt, dbl, str, "
                 "date and timestamp",
                 type);
        if (std::any_of(types.begin(), types.end(),
                        [&name = name](const auto &earlier) { return earlier.first == name; }))
            fail("--types: the column '{}' is given two types; give one", name);
        types.emplace_back(std::move(name), *known);
    }
    return types;
}

// FILE:COLUMN, the column's name in quotes when it has a colon in it.
other_column parse_other_column(const std::string &text) {
    const std::size_t colon = text.ends_with('"') ? text.rfind(":\"") : text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size())
        fail("--contained-in: '{}' is not of the form FILE:COLUMN", text);
    const auto names = parse_names(std::string_view(text).substr(colon + 1), "--contained-in");
    if (names.size() != 1)
        fail("--contained-in: one column can be named, and {} are; put a name that holds a comma "
             "in double quotes",
             names.size());
    return {text.substr(0, colon), names.front()};
}

// Values of options that are read further once the whole command line is known to be well-formed.
struct raw_options {
    std::vector<std::string> files;
    std::vector<std::string> aggregates;
    std::optional<std::string> group_by, contained_in, looked_up, separator, missing, types, names,
        format, threads, digits, decimal, thousands, date_format, comment, skip, ragged, order_by,
        limit, top, bar;
};

void declare_file(CLI::App &app, options &result, raw_options &raw, bool several) {
    if (!several) {
        app.add_option("FILE", result.file,
                       "CSV or TSV file with a header line, or - for standard "
                       "input");
        return;
    }
    app.add_option(
        "FILE", raw.files,
        "CSV or TSV files with one header line, patterns such as 'sales-*.csv', or - for "
        "standard input (default: what is piped in)");
    app.add_option("--file-column", result.file_column,
                   "Add a column of this name that has the name of each row's file")
        ->type_name("NAME");
}

void declare_rows(CLI::App &app, options &result) {
    app.add_option("-w,--where", result.where,
                   "Load only rows that fulfil a condition, e.g. 'v1 > 5 and city != \"Oslo\"'")
        ->type_name("CONDITION");
    app.add_option("--let", result.definitions,
                   "Define a column to work with, e.g. 'revenue = price * qty', 'm = month(day)'")
        ->type_name("NAME=EXPRESSION")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->allow_extra_args(false); // one behind each, then perhaps the file
}

void declare_aggregates(CLI::App &app, options &result, raw_options &raw) {
    app.footer("\nAggregates:" + aggregate_overview() + aggregate_notes);
    app.add_option("-a,--agg", raw.aggregates, "Aggregates, e.g. 'sum(v1), sum(\"net price\")'")
        ->type_name("LIST")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->allow_extra_args(false); // one behind each, then perhaps the file
    app.add_option("-g,--group-by", raw.group_by, "Columns whose equal values make up a group")
        ->type_name("COLUMNS");
    declare_rows(app, result);
    app.add_flag("-s,--sort", result.sort,
                 "Print groups in ascending order of their columns (default: as they first occur)");
    app.add_flag("--drop-na", result.drop_missing,
                 "Say nothing of rows that order statistics leave out for a missing value");
    app.add_flag("--strict", result.strict,
                 "Refuse order statistics of columns with missing values instead of leaving them "
                 "out");
    app.add_option("--order-by", raw.order_by,
                   "Print rows in ascending order of a column of the result, e.g. 'sum(v1)'")
        ->type_name("TITLE");
    app.add_flag("--desc", result.order.descending, "Print rows in descending order instead");
    app.add_option("--limit", raw.limit, "Print the first N rows only")->type_name("N");
    app.add_option("--top", raw.top,
                   "Print the N rows with the greatest values of the --order-by column (default: "
                   "the first aggregate)")
        ->type_name("N");
    app.add_option("--bar", raw.bar,
                   "Draw a bar beside each row for a column of the result, e.g. 'sum(v1)' (table, "
                   "markdown)")
        ->type_name("TITLE");
    app.add_option(
           "--contained-in", raw.contained_in,
           "Adds a column named contained: 1 where the value of the column of that name "
           "occurs in that column of another file, else 0; printed row by row without --agg")
        ->type_name("FILE:COLUMN");
    app.add_option("--column", raw.looked_up,
                   "The column to look up, if its name is not that in the other file")
        ->type_name("NAME");
}

void declare_union_columns(CLI::App &app, options &result) {
    result.union_columns.resize(2);
    app.add_option("X", result.union_columns[0], "The column whose values come first")->required();
    app.add_option("Y", result.union_columns[1], "The other column")->required();
}

void declare_reading(CLI::App &app, options &result, raw_options &raw) {
    app.add_option(
           "-t,--sep", raw.separator,
           "Separator: one character, tab, or blanks for any number of blanks (default: comma; "
           "tab for .tsv and .tab)")
        ->type_name("CHAR");
    app.add_option("--decimal", raw.decimal, "The decimal mark of numbers (default: .)")
        ->type_name("CHAR");
    app.add_option("--thousands", raw.thousands,
                   "The mark between groups of three digits (default: none)")
        ->type_name("CHAR");
    app.add_option("--date-format", raw.date_format,
                   "How dates are written, such as DD.MM.YYYY, M/D/YYYY or %d %b %y; YYYY-MM-DD is "
                   "read beside it")
        ->type_name("FORMAT");
    app.add_option("--comment", raw.comment, "Pass over lines that begin with this character")
        ->type_name("CHAR");
    app.add_option("--skip", raw.skip, "Pass over the first N lines")->type_name("N");
    app.add_option("--ragged", raw.ragged,
                   "Of records with another number of fields than the header: fill up the short "
                   "ones with missing values, or skip all of them (default: refuse)")
        ->type_name("fill|skip");
    app.add_option("--types", raw.types,
                   "Types of columns instead of the inferred ones: bit, bte, sht, int, lng, flt, "
                   "dbl, str, date, timestamp")
        ->type_name("NAME:TYPE,...");
    app.add_option("--na", raw.missing,
                   "What stands for a missing value, with commas between; an item with a comma or "
                   "blanks around it in double quotes; an empty item stands for an empty field "
                   "(default: ',NA,NaN')")
        ->type_name("LIST");
    app.add_option("--names", raw.names, "Names of the columns of a file without a header line")
        ->type_name("COLUMNS");
    app.add_flag("--header", result.header.numeric_names,
                 "The first line is the header even if it holds only numbers");
    app.add_flag_callback(
        "--no-quotes", [&result] { result.quotes = false; }, "Read quotes as ordinary characters");
}

void declare_running(CLI::App &app, options &result, raw_options &raw) {
    app.add_option("-f,--format", raw.format,
                   "table, markdown, csv, tsv, json or jsonl (default: table)")
        ->type_name("FORMAT");
    app.add_option("--digits", raw.digits,
                   "Round numbers to N significant digits (default: 15 in tables, all elsewhere)")
        ->type_name("N");
    app.add_flag_callback(
        "--no-header", [&result] { result.output.titles = false; },
        "Print no titles (table, csv, tsv)");
    app.add_option("--threads", raw.threads, "Threads to use (default: one per core)")
        ->type_name("N");
    app.add_flag("--explain", result.explain,
                 "Tell on standard error what was loaded and called, with rows, partitions, time");
    app.add_option("--library", result.library, "The operator library to load")->type_name("PATH");
}

// The files that a pattern stands for, in order of their names; a name of a file is one itself.
std::vector<std::string> files_named(const std::string &name) {
    if (name.find_first_of("*?[") == name.npos || ::access(name.c_str(), F_OK) == 0)
        return {name};
    ::glob_t found{};
    const int result = ::glob(name.c_str(), GLOB_ERR, nullptr, &found);
    std::vector<std::string> names(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    ::globfree(&found);
    if (result == GLOB_NOSPACE)
        throw std::bad_alloc();
    if (result == GLOB_ABORTED)
        fail("{}: a directory of the pattern cannot be read", name);
    if (names.empty())
        fail("{}: no file is called so", name);
    return names;
}

void read_files(const raw_options &raw, options &result) {
    if (raw.files.empty())
        return;
    std::vector<std::string> names;
    for (const std::string &each : raw.files)
        for (std::string &name : files_named(each))
            names.push_back(std::move(name));
    if (std::ranges::count(names, "-") > 1)
        fail("standard input can be read once only");
    result.file = names.front();
    result.further_files.assign(names.begin() + 1, names.end());
    if (std::ranges::count(names, "") > 0)
        fail("the name of the file is empty; name a file, or - for standard input");
}

void read_input_form(const raw_options &raw, options &result) {
    if (raw.separator == blanks)
        result.form.blank_runs = true;
    else if (raw.separator)
        result.separator = separator_named(*raw.separator);
    if (raw.decimal)
        result.cells.numbers.decimal = mark_named(*raw.decimal, "--decimal");
    if (raw.thousands)
        result.cells.numbers.thousands = mark_named(*raw.thousands, "--thousands");
    if (result.cells.numbers.decimal == result.cells.numbers.thousands)
        fail("--thousands: '{}' is the decimal mark; give another one, and the decimal mark with "
             "--decimal",
             result.cells.numbers.thousands);
    if (raw.date_format) {
        const auto dates = date_format::parse(*raw.date_format);
        if (!dates)
            fail(
                "--date-format: '{}' is no format of dates; it has year (YYYY or YY), month (MM, M "
                "or MMM) and day (DD or D) once each and marks between them, as in DD.MM.YYYY",
                *raw.date_format);
        result.cells.dates = *dates;
    }
    if (raw.comment) {
        if (raw.comment->size() != 1 || *raw.comment == "\"" || *raw.comment == "\n" ||
            *raw.comment == "\r")
            fail("--comment: '{}' cannot begin a comment; give one character", *raw.comment);
        result.form.comment = raw.comment->front();
    }
    if (raw.skip) {
        lng number = 0;
        if (!read_cell(*raw.skip, number) || number < 0)
            fail("--skip: '{}' is no number of lines", *raw.skip);
        result.form.skipped_lines = static_cast<std::size_t>(number);
    }
    if (raw.ragged)
        result.ragged = ragged_named(*raw.ragged);
}

void read_order(const raw_options &raw, options &result) {
    result.order.by = raw.order_by;
    if (raw.limit)
        result.order.most_rows = row_count_named(*raw.limit, "--limit");
    if (!raw.top)
        return;
    if (raw.limit)
        fail("--top: it is a --limit as well, so give one of the two");
    if (result.aggregates.empty() && !raw.order_by)
        fail("--top: there is no aggregate; say with --order-by what is to be greatest");
    result.order.most_rows = row_count_named(*raw.top, "--top");
    result.order.descending = true;
    result.order.by_first_aggregate = !raw.order_by;
}

void read_further(const raw_options &raw, options &result) {
    for (const std::string &list : raw.aggregates)
        for (aggregate_call &call : parse_aggregates(list))
            result.aggregates.push_back(std::move(call));
    if (raw.group_by)
        result.group_by = parse_names(*raw.group_by, "--group-by");
    if (raw.contained_in) {
        result.contained_in = parse_other_column(*raw.contained_in);
        result.looked_up = raw.looked_up.value_or(result.contained_in->column);
        if (result.contained_in->file == "-" &&
            (result.file == "-" || std::ranges::count(result.further_files, "-") > 0))
            fail("--contained-in: standard input can be read as one of the two files only");
    } else if (raw.looked_up) {
        fail("--column: it goes with --contained-in, which is not there");
    }
    if (raw.names)
        result.header.names = parse_names(*raw.names, "--names");
    if (raw.types)
        result.types = parse_types(*raw.types);
    if (raw.missing)
        result.missing = parse_words(*raw.missing, "--na");
    read_input_form(raw, result);
    if (raw.format)
        result.output.format = format_named(*raw.format);
    if (raw.digits)
        result.output.digits = digits_named(*raw.digits);
    read_order(raw, result);
    result.bar = raw.bar;
    if (raw.bar && result.output.format != output_format::table &&
        result.output.format != output_format::markdown)
        fail("--bar: bars are drawn in the formats table and markdown");
    if (raw.threads)
        result.threads = thread_count_named(*raw.threads);
}

// Without their dashes, of which a wrong name may have too few.
std::vector<std::string> option_names(const CLI::App &app) {
    std::vector<std::string> names;
    for (const CLI::Option *const option : app.get_options())
        for (const std::string &name : option->get_lnames())
            names.push_back(name);
    return names;
}

// What the command line has too much of, in its order. Other arguments are told only where there
// is no unknown option: one before them may have been meant to take them.
std::string describe_extras(const CLI::App &app, command asked) {
    std::string told;
    const std::vector<std::string> extras = app.remaining();
    for (const std::string &extra : extras) {
        const std::string option = extra.substr(0, extra.find('='));
        const std::size_t dashes = option.find_first_not_of('-');
        if (dashes == 0 || dashes == option.npos)
            continue;
        const auto nearest = nearest_name(option_names(app), option.substr(dashes));
        told += fmt::format("{}there is no option {}{}", told.empty() ? "" : "; ", option,
                            nearest ? fmt::format(" (did you mean --{}?)", *nearest) : "");
    }
    if (told.empty() && !extras.empty())
        told = fmt::format("'{}' is one argument too many; {}", extras.front(),
                           asked == command::column_union
                               ? "a union is of two columns of one file"
                               : "one file is read, and a list with blanks in it wants quotes");
    return told;
}

constexpr const char *nothing_named = "no file is named; name one, or - for standard input";

std::string describe_refusal(const CLI::App &app, const CLI::ParseError &error, command asked) {
    if (std::string extras = describe_extras(app, asked); !extras.empty())
        return extras;
    std::string what = error.what();
    switch (static_cast<CLI::ExitCodes>(error.get_exit_code())) {
        case CLI::ExitCodes::RequiredError:
            return asked == command::column_union
                       ? "a file and two columns of it are wanted, as in vask union FILE X Y"
                       : nothing_named;
        case CLI::ExitCodes::ArgumentMismatch: {
            const CLI::Option *const option = app.get_option(what.substr(0, what.find(':')));
            return option->count() > 1
                       ? fmt::format("{}: given {} times; give it once", option->get_name(),
                                     option->count())
                       : fmt::format("{}: nothing stands behind it; it is written {} {}",
                                     option->get_name(), option->get_name(),
                                     option->get_type_name());
        }
        default:
            return what;
    }
}

void declare(CLI::App &app, command asked, options &result, raw_options &raw) {
    declare_file(app, result, raw, asked != command::column_union);
    if (asked == command::column_union)
        declare_union_columns(app, result);
    else if (asked == command::aggregates)
        declare_aggregates(app, result, raw);
    else if (asked == command::summary)
        declare_rows(app, result);
    declare_reading(app, result, raw);
    declare_running(app, result, raw);
    app.set_version_flag("--version", "vask " VASK_VERSION_STRING);
}

std::string name_of(command asked) {
    return fmt::format("vask{}{}", asked == command::aggregates ? "" : " ", word_of(asked));
}

command command_of(int argc, const char *const *argv) {
    const std::string_view word = argc > 1 ? argv[1] : "";
    for (const command asked : {command::column_union, command::summary, command::schema})
        if (word == word_of(asked))
            return asked;
    return command::aggregates;
}

} // namespace

std::string_view word_of(command asked) {
    switch (asked) {
        case command::column_union:
            return "union";
        case command::summary:
            return "summary";
        case command::schema:
            return "schema";
        case command::aggregates:
            break;
    }
    return {};
}

declared_command declared_options(command asked) {
    options result;
    raw_options raw;
    CLI::App app(description_of(asked), name_of(asked));
    declare(app, asked, result, raw);
    declared_command told{app.get_name(), app.get_description(), {}, {}, app.get_footer()};
    for (const CLI::Option *const option : app.get_options()) {
        declared_option one{option->get_name(), {}, option->get_description()};
        if (option->get_positional()) {
            told.arguments.push_back(std::move(one));
            continue;
        }
        one.name = "--" + option->get_lnames().front();
        if (!option->get_snames().empty())
            one.short_name = "-" + option->get_snames().front();
        one.can_repeat = option->get_expected_max() > 1;
        if (option->get_expected_max() > 0)
            one.value = option->get_type_name();
        if (one.name == "--format")
            for (const auto &[name, format] : formats)
                one.choices.emplace_back(name);
        told.options.push_back(std::move(one));
    }
    return told;
}

std::optional<options> parse_options(int argc, const char *const *argv) {
    options result;
    result.threads = default_threads();
    raw_options raw;
    result.asked = command_of(argc, argv);
    const bool has_word = result.asked != command::aggregates;
    CLI::App app(description_of(result.asked), name_of(result.asked));
    declare(app, result.asked, result, raw);
    try {
        // The name of the command is passed over: arguments begin behind it.
        app.parse(argc - (has_word ? 1 : 0), argv + (has_word ? 1 : 0));
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() != 0)
            fail("{}; {} --help tells more", describe_refusal(app, error, result.asked),
                 name_of(result.asked));
        app.exit(error, std::cout, std::cerr);
        if (!std::cout.flush())
            throw std::runtime_error(
                fmt::format("cannot write the answer: {}", std::strerror(errno)));
        return std::nullopt;
    }
    const bool is_named = app.get_option("FILE")->count() > 0;
    const bool asks_for_nothing = argc == 1;
    if (!is_named &&
        (result.asked == command::column_union || asks_for_nothing || ::isatty(STDIN_FILENO) == 1))
        fail("{}; vask --help tells more", nothing_named);
    if (!is_named)
        result.file = "-";
    read_files(raw, result);
    if (result.file.empty())
        fail("the name of the file is empty; name a file, or - for standard input");
    read_further(raw, result);
    return result;
}

} // namespace vask::runner
