#include "csv_header.h"

#include "cell_values.h"
#include "record_chunks.h"
#include "user_error.h"

#include <algorithm>

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

csv_header parse_first_record(const source_text &source, const csv_dialect &dialect) {
    const std::string_view text = source.text();
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
    return {std::move(record.fields), at};
}

void refuse_data_as_header(const source_text &source, const std::vector<std::string> &names) {
    const bool all_numbers = std::all_of(names.begin(), names.end(), [](const std::string &name) {
        dbl value = 0;
        return read_cell(name, value);
    });
    if (all_numbers)
        fail("{}:1: the first line holds only numbers, so it does not look like a header; give "
             "--names a,b,c if the file has none, or --header if these are the names",
             source.name());
}

void name_the_nameless(std::vector<std::string> &names) {
    for (std::size_t i = 0; i < names.size(); ++i)
        if (names[i].empty())
            names[i] = fmt::format("column{}", i + 1);
}

} // namespace

csv_header read_header(const source_text &source, const csv_dialect &dialect,
                       const header_rules &rules) {
    const std::string_view text = source.text();
    if (text.empty())
        fail("{}: the file is empty; it needs a line with the names of the columns", source.name());
    const std::string_view start = text.substr(0, std::size_t{1} << 16);
    if (const std::size_t nul = start.find('\0'); nul != std::string_view::npos)
        fail("{}:{}: NUL byte; this is no text file, or one in UTF-16: convert it to UTF-8 first",
             source.name(), 1 + count_line_ends(start.substr(0, nul)));
    csv_header header{rules.names, 0};
    if (header.names.empty()) {
        header = parse_first_record(source, dialect);
        if (!rules.numeric_names)
            refuse_data_as_header(source, header.names);
    }
    name_the_nameless(header.names);
    return header;
}

} // namespace vask::runner
