#include "load_fault.h"

#include "name_list.h"
#include "number_format.h"

#include <limits>

#include <fmt/format.h>

namespace vask::runner {
namespace {

constexpr std::size_t no_field = std::numeric_limits<std::size_t>::max();

struct place_finder {
    std::uint64_t target_record;
    std::size_t target_field;
    std::uint64_t records = 0;
    std::size_t fields = 0;
    bool found = false;

    void field(std::string_view) {
        if (records == target_record && fields == target_field)
            found = true;
        ++fields;
    }
    void record() {
        ++records;
        fields = 0;
    }
    bool stopped() const { return found || records > target_record; }
};

bool is_blank(std::string_view line) {
    return line.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

std::string separator_name(char separator) {
    return separator == '\t' ? "a tab" : fmt::format("'{}'", separator);
}

std::string describe_ragged(const load_fault &fault, const csv_header &header,
                            const csv_dialect &dialect, std::string_view line,
                            std::string_view header_line) {
    const std::size_t expected = header.names.size();
    const std::string separator = separator_name(dialect.separator);
    const auto ends_with_separator = [&](std::string_view text) {
        const std::size_t last = text.find_last_not_of("\r\n");
        return last != text.npos && text[last] == dialect.separator;
    };
    std::string remedy;
    if (fault.fields == expected + 1 && ends_with_separator(line))
        remedy = fmt::format("the line ends with {}, behind which another field is: remove it, or "
                             "give --ragged skip to leave such lines out",
                             separator);
    else if (fault.fields + 1 == expected && ends_with_separator(header_line))
        remedy = fmt::format("the header ends with {}, behind which another name is: remove it, or "
                             "give --ragged fill",
                             separator);
    else if (fault.fields < expected)
        remedy = "complete the line (an empty field stands for a missing value), or give --ragged "
                 "fill to have it completed, --ragged skip to leave it out";
    else
        remedy = fmt::format("{}put fields that contain {} in quotes, or give --ragged skip to "
                             "leave such lines out",
                             header.is_given() ? "name all columns, or " : "", separator);
    return fmt::format("{} field{} where {} has {}; {}", fault.fields, fault.fields == 1 ? "" : "s",
                       header.is_given() ? "--names" : "the header", expected, remedy);
}

std::string describe_bad_cell(const load_fault &fault, const csv_header &header) {
    const std::string &name = header.names[fault.column];
    const column_type fitting = narrowest_type(fault.cell);
    if (is_reserved(fault.cell, fault.type))
        return fmt::format("column {} ({}): '{}' is reserved, as a missing {} is stored so; add it "
                           "to the list of missing values with --na, or give --types '{}:{}'",
                           fault.column + 1, name, shown(fault.cell), name_of(fault.type), name,
                           name_of(fitting));
    std::string hint;
    if (fault.type == column_type::date || fault.type == column_type::timestamp)
        hint = date_hint(fault.cell);
    else if (fault.type != column_type::bit)
        hint = cell_hint(fault.cell, name);
    return fmt::format("column {} ({}): '{}' is no {}; correct it, add it to the list of missing "
                       "values with --na{}, or give --types '{}:{}'{}{}",
                       fault.column + 1, name, shown(fault.cell), name_of(fault.type),
                       as_missing_item(fault.cell), name,
                       name_of(fitting == fault.type ? column_type::str : fitting),
                       hint.empty() ? "" : ".", hint);
}

std::string describe_uncomparable(const load_fault &fault, const csv_header &header) {
    const bool is_file_name = fault.column >= header.names.size();
    const std::string name = is_file_name ? "x" : header.names[fault.column];
    const std::string begin =
        is_file_name ? "--where: the file's name: "
                     : fmt::format("--where: column {} ({}): ", fault.column + 1, name);
    if (fault.wanted.empty())
        return fmt::format("{}with '{}', a whole number leaves 64 bits; have it worked out in "
                           "decimals, as in 1.0 * {}",
                           begin, shown(fault.cell), name);
    if (is_file_name)
        return fmt::format("{}'{}' is no {}, but is used as one; compare with a text in quotes",
                           begin, shown(fault.cell), fault.wanted);
    return fmt::format("{}'{}' is no {}, but is used as one; add it to the list of missing values "
                       "with --na{}, or compare with a text in quotes",
                       begin, shown(fault.cell), fault.wanted, as_missing_item(fault.cell));
}

std::string describe_nil_text(const load_fault &fault, const csv_header &header) {
    return fmt::format("column {} ({}): the field is the single byte 0x80, which would read as a "
                       "missing value; the file is no UTF-8: convert it, for example with iconv",
                       fault.column + 1, header.names[fault.column]);
}

// The text of a line, counted from 1.
std::string_view line_numbered(std::string_view text, std::uint64_t number) {
    std::size_t begin = 0;
    for (; number > 1; --number)
        begin = end_of_line(text, begin);
    return text.substr(begin, end_of_line(text, begin) - begin);
}

// A quote that an earlier line left open is found out here only.
std::string describe_stray_quote(const load_fault &fault, std::string_view text, std::uint64_t line,
                                 std::uint64_t record_line) {
    // The fault is found at the quote in an unquoted field, or behind one that ends a quoted field.
    const std::string_view before = text.substr(0, fault.position);
    if (before.ends_with("\\\"") || before.ends_with('\\'))
        return fmt::format(
            "column {}: a quote behind a backslash; quotes within a field are doubled, "
            "as in \"5\"\" pipe\", not escaped: replace each \\\" by \"\", or give "
            "--no-quotes to read quotes as ordinary characters",
            fault.column + 1);
    return fmt::format(
        "column {}: a quote inside a field that is not in quotes as a whole{}; put "
        "the whole field in quotes and double the quotes in it, or give "
        "--no-quotes to read quotes as ordinary characters",
        fault.column + 1,
        line == record_line ? "" : fmt::format(" (the record begins on line {})", record_line));
}

} // namespace

std::string cell_hint(std::string_view cell, const std::string &column_name) {
    if (cell == column_name)
        return " It is the column's name: the header stands there once more, so remove that line, "
               "or "
               "give the files that were put together one by one.";
    return number_hint(cell);
}

std::uint64_t line_at(std::string_view text, std::size_t position) {
    return 1 + count_line_ends(text.substr(0, position));
}

std::uint64_t line_of(std::string_view text, const csv_dialect &dialect, std::size_t begin,
                      std::uint64_t record, std::size_t field) {
    place_finder finder{record, field};
    csv_parser parser(dialect, finder);
    std::uint64_t line = line_at(text, begin);
    std::uint64_t record_line = line;
    for (std::size_t at = begin; at < text.size(); ++line) {
        const std::size_t end = end_of_line(text, at);
        const std::string_view bytes = text.substr(at, end - at);
        const std::uint64_t records_before = finder.records;
        parser.feed(bytes);
        if (finder.found)
            return line;
        if (finder.stopped())
            break;
        // Blank lines are no records; inside a quoted field they belong to its record.
        if (finder.records != records_before || (record_line == line && is_blank(bytes)))
            record_line = line + 1;
        at = end;
    }
    return record_line;
}

std::string describe_change(const source_text &source) {
    return fmt::format("{}: the file was changed while it was read; try again when nothing writes "
                       "to it",
                       source.name());
}

std::string shown(std::string_view text) {
    constexpr std::size_t most = 60;
    std::string result(text.substr(0, most));
    for (char &c : result)
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7f')
            c = '?';
    if (text.size() > most)
        result += "...";
    return result;
}

std::string as_missing_item(std::string_view cell) {
    const std::string item = as_word(cell);
    return item == cell ? "" : fmt::format(" (there it is written {})", shown(item));
}

std::string describe(const load_fault &fault, const source_text &source, const csv_header &header,
                     const csv_dialect &dialect, const record_chunk &chunk) {
    const std::string_view text = source.text();
    const auto at_line = [&](std::uint64_t line, const std::string &message) {
        return fmt::format("{}:{}: {}", source.name(), line, message);
    };
    const auto record_line = [&](std::size_t field) {
        return line_of(text, dialect, chunk.begin, fault.record, field);
    };
    switch (fault.what) {
        case load_fault::kind::ragged:
            return at_line(
                record_line(no_field),
                describe_ragged(fault, header, dialect, line_numbered(text, record_line(no_field)),
                                header.is_given() ? "" : line_numbered(text, header.line)));
        case load_fault::kind::bad_cell:
            return at_line(record_line(fault.column), describe_bad_cell(fault, header));
        case load_fault::kind::uncomparable:
            return at_line(record_line(fault.column), describe_uncomparable(fault, header));
        case load_fault::kind::nil_text:
            return at_line(record_line(fault.column), describe_nil_text(fault, header));
        case load_fault::kind::stray_quote:
            return at_line(line_at(text, fault.position),
                           describe_stray_quote(fault, text, line_at(text, fault.position),
                                                record_line(no_field)));
        case load_fault::kind::changed:
            return describe_change(source);
        case load_fault::kind::open_quote:
            break;
    }
    return at_line(record_line(no_field),
                   "a quoted field begins here that does not end before the end of the file; add "
                   "the closing quote, or give --no-quotes to read quotes as ordinary characters");
}

} // namespace vask::runner
