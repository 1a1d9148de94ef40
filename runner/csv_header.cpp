#include "csv_header.h"

#include "cell_values.h"
#include "record_chunks.h"
#include "user_error.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace vask::runner {
namespace {

struct first_record {
    std::vector<std::string> fields;
    bool complete = false;

    void field(std::string_view text) {
        if (!complete)
            fields.emplace_back(text);
    }
    void record() { complete = true; }
    bool stopped() const { return complete; }
};

csv_header parse_first_record(const source_text &source, std::string_view text,
                              const csv_dialect &dialect) {
    first_record record;
    csv_parser parser(dialect, record);
    std::size_t at = 0;
    while (at < text.size() && !record.complete) {
        const std::size_t end = end_of_line(text, at);
        if (parser.feed(text.substr(at, end - at)) < end - at)
            fail("{}:{}: the header has a quote inside an unquoted field; put the whole field in "
                 "quotes and double the quotes in it, or give --no-quotes, or, if the separator is "
                 "another one, give it with --sep",
                 source.name(), 1 + count_line_ends(text.substr(0, at)));
        at = end;
    }
    if (!parser.finish())
        fail("{}:1: the header has a quoted field that does not end; add the closing quote, or "
             "give --no-quotes",
             source.name());
    if (!record.complete)
        fail("{}: the file has no header; its first line must name the columns (or give "
             "--names a,b,c for a file without a header)",
             source.name());
    // Blank lines may stand before it.
    const std::size_t begin = text.find_first_not_of(" \t\r\n");
    return {std::move(record.fields), at, 1 + count_line_ends(text.substr(0, begin))};
}

// What files that are no text begin with.
struct other_format {
    std::string_view magic;
    std::string_view kind;
    std::string_view remedy;
};

constexpr std::array other_formats{
    other_format{"PK\x03\x04", "a zip archive or a workbook",
                 "pipe a file of it in, as in unzip -p FILE | vask -, or save the sheet as CSV"},
    other_format{"PAR1\x15", "a Parquet file", "convert it to CSV"},
    other_format{std::string_view("ARROW1\0", 7), "an Arrow file", "convert it to CSV"},
    other_format{std::string_view("SQLite format 3\0", 16), "a database of SQLite",
                 "export a table of it as CSV"}};

bool is_number(const std::string &cell) {
    dbl value = 0;
    return read_cell(cell, value);
}

// The fields of the first record from a place on; none where there is no record.
std::vector<std::string> fields_from(std::string_view text, std::size_t at,
                                     const csv_dialect &dialect) {
    first_record record;
    csv_parser parser(dialect, record);
    while (at < text.size() && !record.complete) {
        const std::size_t end = end_of_line(text, at);
        if (parser.feed(text.substr(at, end - at)) < end - at)
            return {};
        at = end;
    }
    return parser.finish() ? std::move(record.fields) : std::vector<std::string>{};
}

// Who gives a file without a header would lose its first row.
void refuse_data_as_header(const source_text &source, std::string_view text,
                           const csv_dialect &dialect, const csv_header &header) {
    const std::vector<std::string> &names = header.names;
    const std::vector<std::string> below = fields_from(text, header.data_begin, dialect);
    for (std::size_t i = 0; i < std::min(names.size(), below.size()); ++i)
        if (!std::all_of(names.begin(), names.end(), is_number) && is_number(names[i]) &&
            is_number(below[i]))
            fail("{}:{}: the first line looks like data: column {} is '{}' there, a number, and "
                 "'{}' below; give --names a,b,c if the file has no header, or --header if these "
                 "are the names",
                 source.name(), header.line, i + 1, names[i], below[i]);
    if (std::all_of(names.begin(), names.end(), is_number))
        fail("{}:{}: the first line holds only numbers, so it does not look like a header; give "
             "--names a,b,c if the file has none, or --header if these are the names",
             source.name(), header.line);
}

void name_the_nameless(std::vector<std::string> &names) {
    for (std::size_t i = 0; i < names.size(); ++i)
        if (names[i].empty())
            names[i] = fmt::format("column{}", i + 1);
}

struct record_counter {
    std::size_t records = 0;

    void field(std::string_view) {}
    void record() { ++records; }
    bool stopped() const { return records >= 2; }
};

// As much of the text as has the header and a record below it.
std::string_view text_with_header(const source_text &source, const csv_dialect &dialect) {
    record_counter counter;
    if (source.is_packed()) {
        csv_parser parser(dialect, counter);
        parser.feed(source.start());
    }
    return counter.stopped() ? source.start() : source.text();
}

} // namespace

csv_header read_header(const source_text &source, const csv_dialect &dialect,
                       const header_rules &rules) {
    const std::string_view text = text_with_header(source, dialect);
    if (text.empty())
        fail("{}: the file is empty; it needs a line with the names of the columns", source.name());
    for (const auto &[magic, kind, program] : other_formats)
        if (text.starts_with(magic))
            fail("{}: this is {}, no text; {}", source.name(), kind, program);
    const std::string_view start = text.substr(0, std::size_t{1} << 16);
    if (const std::size_t nul = start.find('\0'); nul != std::string_view::npos)
        fail("{}:{}: NUL byte; this is no text file, or one in UTF-16: convert it to UTF-8 first",
             source.name(), 1 + count_line_ends(start.substr(0, nul)));
    csv_header header{rules.names, 0, 1};
    if (header.names.empty()) {
        header = parse_first_record(source, text, dialect);
        if (!rules.numeric_names)
            refuse_data_as_header(source, text, dialect, header);
    }
    name_the_nameless(header.names);
    return header;
}

} // namespace vask::runner
