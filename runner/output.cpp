#include "output.h"

#include "terminal_text.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <unistd.h>

#include <fmt/compile.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <tbb/parallel_pipeline.h>
#include <tbb/task_arena.h>

namespace vask::runner {
namespace {

// As many as a double always keeps: what its sums lose shows behind them.
constexpr int readable_digits = std::numeric_limits<double>::digits10;

// Text on its way to a file, written in large pieces.
class printer {
public:
    explicit printer(std::FILE *file) : file_(file), on_terminal_(::isatty(::fileno(file)) == 1) {}

    std::string &buffer() noexcept { return buffer_; }

    void end_row() {
        buffer_ += '\n';
        if (buffer_.size() >= flush_bytes)
            flush();
    }

    void flush() {
        write(std::move(buffer_));
        buffer_.clear();
    }

    // Rows from 0 on, of which append_row(text, row) appends one with its end to a text, from
    // several threads.
    template <class AppendRow>
    void rows(std::size_t count, const AppendRow &append_row) {
        constexpr std::size_t block_bytes = std::size_t{1} << 18;
        constexpr std::size_t most_rows = 4096;
        constexpr std::size_t first_rows = 64;
        struct block {
            std::size_t begin;
            std::size_t end;
        };
        flush();
        std::size_t next = 0;
        // As many as the last ones made a block's bytes.
        std::atomic<std::size_t> rows_of_block = first_rows;
        const auto next_block = [&](tbb::flow_control &control) {
            if (next == count)
                control.stop();
            const std::size_t begin = next;
            next = std::min(begin + rows_of_block, count);
            return block{begin, next};
        };
        const auto text_of = [&](block of) {
            std::string text;
            for (std::size_t row = of.begin; row < of.end; ++row)
                append_row(text, row);
            rows_of_block = std::clamp(block_bytes * (of.end - of.begin) / (text.size() + 1),
                                       std::size_t{1}, most_rows);
            return text;
        };
        tbb::parallel_pipeline(
            2 * static_cast<std::size_t>(tbb::this_task_arena::max_concurrency()),
            tbb::make_filter<void, block>(tbb::filter_mode::serial_in_order, next_block) &
                tbb::make_filter<block, std::string>(tbb::filter_mode::parallel, text_of) &
                tbb::make_filter<std::string, void>(
                    tbb::filter_mode::serial_in_order,
                    [this](std::string text) { write(std::move(text)); }));
    }

private:
    // Whole rows. Formats that are exact in a file are not on a terminal, which obeys what it is
    // sent.
    void write(std::string text) const {
        if (on_terminal_)
            text = terminal_lines(text);
        if (std::fwrite(text.data(), 1, text.size(), file_) != text.size() ||
            std::fflush(file_) != 0)
            throw std::runtime_error(
                fmt::format("cannot write the result: {}", std::strerror(errno)));
    }

    static constexpr std::size_t flush_bytes = std::size_t{1} << 16;
    std::FILE *file_;
    bool on_terminal_;
    std::string buffer_;
};

void append(std::string &out, std::monostate) {
    out.append(0, ' ');
}
// The nearest number with so many significant digits.
template <class Number>
Number rounded(Number value, int digits) {
    if constexpr (std::is_floating_point_v<Number>)
        if (std::isfinite(value))
            return static_cast<Number>(std::stod(fmt::format("{:.{}e}", value, digits - 1)));
    return value;
}

result_cell rounded_cell(const result_cell &cell, std::optional<int> digits) {
    if (!digits)
        return cell;
    return std::visit(
        [&]<class T>(const T &value) -> result_cell {
            if constexpr (std::is_floating_point_v<T>)
                return rounded(value, *digits);
            else
                return value;
        },
        cell);
}

template <class Number>
void append(std::string &out, Number value) {
    // The sign of a NaN tells nothing.
    if constexpr (std::is_floating_point_v<Number>)
        if (std::isnan(value))
            value = std::numeric_limits<Number>::quiet_NaN();
    std::array<char, 32> text; // a double has at most 24
    out.append(text.data(), fmt::format_to(text.data(), FMT_COMPILE("{}"), value));
}
void append(std::string &out, truth value) {
    out += value.value != 0 ? "true" : "false";
}
void append(std::string &out, std::string_view value) {
    out += value;
}

// A second's digits as far as there are any.
void append(std::string &out, timestamp value) {
    constexpr lng microseconds_of_second = 1'000'000;
    const bool is_whole = value.microseconds % microseconds_of_second == 0;
    constexpr std::uint8_t all_digits = 6;
    append_time(
        out, value.microseconds,
        {.separator = ' ', .seconds = true, .fraction = is_whole ? std::uint8_t{0} : all_digits},
        {});
    if (!is_whole)
        out.erase(out.find_last_not_of('0') + 1);
}

// ---- times ------------------------------------------------------------------------------------

// Whether a column has times, and all of them are midnights.
bool has_dates_alone(const result_column &column, std::size_t rows) {
    bool any = false;
    for (std::size_t row = 0; row < rows; ++row) {
        const result_cell cell = column.cell(row);
        const auto *const time = std::get_if<timestamp>(&cell);
        if (time != nullptr && !is_midnight(time->microseconds))
            return false;
        if (time == nullptr && !std::holds_alternative<std::monostate>(cell))
            return false;
        any = any || time != nullptr;
    }
    return any;
}

// The column with its times in a spelling; where cells are of several kinds, midnights alone. A
// cell's text lasts until the thread asks for the next one.
result_column with_spelling(result_column column, const time_spelling &spelling) {
    column.cell = [spelling, is_mixed = column.is_mixed,
                   cell = std::move(column.cell)](std::size_t row) -> result_cell {
        thread_local std::string text;
        const result_cell value = cell(row);
        const auto *const time = std::get_if<timestamp>(&value);
        if (time == nullptr || (is_mixed && !is_midnight(time->microseconds)))
            return value;
        text.clear();
        append_time(text, time->microseconds, spelling.style, spelling.dates);
        return std::string_view(text);
    };
    return column;
}

// ---- table --------------------------------------------------------------------------------------

constexpr std::string_view missing_mark = "NA";

// A text so that it cannot be taken for a missing value or for nothing.
std::string unmistakable(std::string_view text) {
    if (!text.empty() && text != missing_mark && text.front() != '"')
        return std::string(text);
    std::string quoted;
    quoted.push_back('"');
    for (const char c : text)
        quoted.append(c == '"' ? 2 : 1, c);
    return quoted + '"';
}

std::string table_text(const result_cell &cell, std::optional<int> digits) {
    if (std::holds_alternative<std::monostate>(cell))
        return std::string(missing_mark);
    std::string text;
    append_text(text, rounded_cell(cell, digits));
    if (std::holds_alternative<std::string_view>(cell))
        text = unmistakable(std::move(text));
    return terminal_text(text);
}

// Text is aligned to the left, everything else to the right.
void pad(std::string &line, const std::string &text, std::size_t width, bool left) {
    const std::size_t padding = width - std::min(width, terminal_width(text));
    if (!left)
        line.append(padding, ' ');
    line += text;
    if (left)
        line.append(padding, ' ');
}

// The texts of a column, its title before them.
std::vector<std::string> texts_of(const result_table &result, const result_column &column,
                                  const output_style &style) {
    std::vector<std::string> texts;
    texts.reserve(result.rows + 1);
    texts.push_back(terminal_text(column.title));
    for (std::size_t row = 0; row < result.rows; ++row)
        texts.push_back(table_text(column.cell(row), style.digits.value_or(readable_digits)));
    return texts;
}

std::size_t widest(const std::vector<std::string> &texts, bool titles) {
    std::size_t width = 0;
    for (std::size_t i = titles ? 0 : 1; i < texts.size(); ++i)
        width = std::max(width, terminal_width(texts[i]));
    return width;
}

void print_table(const result_table &result, const output_style &style, printer &out) {
    std::vector<std::vector<std::string>> texts;
    std::vector<std::size_t> widths;
    for (const result_column &column : result.columns) {
        texts.push_back(texts_of(result, column, style));
        widths.push_back(widest(texts.back(), style.titles));
    }
    for (std::size_t row = style.titles ? 0 : 1; row <= result.rows; ++row) {
        std::string &line = out.buffer();
        const std::size_t begin = line.size();
        for (std::size_t i = 0; i < widths.size(); ++i) {
            if (i > 0)
                line += "  ";
            pad(line, texts[i][row], widths[i], result.columns[i].is_text);
        }
        while (line.size() > begin && line.back() == ' ')
            line.pop_back();
        out.end_row();
    }
}

// ---- markdown -----------------------------------------------------------------------------------

std::string markdown_text(const std::string &text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '|' || c == '\\')
            escaped += '\\';
        escaped += c;
    }
    return escaped;
}

void print_markdown(const result_table &result, const output_style &style, printer &out) {
    std::vector<std::vector<std::string>> texts;
    std::vector<std::size_t> widths;
    constexpr std::size_t least_width = 3; // of the line below the titles
    for (const result_column &column : result.columns) {
        std::vector<std::string> &own = texts.emplace_back(texts_of(result, column, style));
        std::transform(own.begin(), own.end(), own.begin(), markdown_text);
        widths.push_back(std::max(least_width, widest(own, true)));
    }
    const auto print_row = [&](std::size_t row) {
        for (std::size_t i = 0; i < widths.size(); ++i) {
            out.buffer() += "| ";
            pad(out.buffer(), texts[i][row], widths[i], result.columns[i].is_text);
            out.buffer() += ' ';
        }
        out.buffer() += '|';
        out.end_row();
    };
    print_row(0);
    for (std::size_t i = 0; i < widths.size(); ++i) {
        const bool left = result.columns[i].is_text;
        out.buffer() += "| ";
        out.buffer().append(widths[i] - 1, '-').append(left ? "- " : ": ");
    }
    out.buffer() += '|';
    out.end_row();
    for (std::size_t row = 1; row <= result.rows; ++row)
        print_row(row);
}

// ---- csv ----------------------------------------------------------------------------------------

// Spaces and tabs at the ends are quoted as well: readers may strip them from unquoted fields.
void append_csv_field(std::string &out, std::string_view text) {
    constexpr std::string_view blank = " \t";
    const bool quote = text.find_first_of(",\"\r\n") != std::string_view::npos ||
                       (!text.empty() && (blank.find(text.front()) != std::string_view::npos ||
                                          blank.find(text.back()) != std::string_view::npos));
    if (!quote) {
        out += text;
        return;
    }
    out += '"';
    for (const char c : text) {
        if (c == '"')
            out += '"';
        out += c;
    }
    out += '"';
}

void print_csv(const result_table &result, const output_style &style, printer &out) {
    for (std::size_t i = 0; style.titles && i < result.columns.size(); ++i) {
        if (i > 0)
            out.buffer() += ',';
        append_csv_field(out.buffer(), result.columns[i].title);
    }
    if (style.titles)
        out.end_row();
    out.rows(result.rows, [&](std::string &to, std::size_t row) {
        bool lone_missing = false;
        std::string text;
        for (std::size_t i = 0; i < result.columns.size(); ++i) {
            if (i > 0)
                to += ',';
            text.clear();
            const result_cell cell = result.columns[i].cell(row);
            append_text(text, rounded_cell(cell, style.digits));
            const bool missing = std::holds_alternative<std::monostate>(cell);
            // An empty text is no missing value.
            if (text.empty() && !missing)
                to += "\"\"";
            else
                append_csv_field(to, text);
            lone_missing = missing && result.columns.size() == 1;
        }
        // A lone empty field must not become a blank line, which readers pass over.
        if (lone_missing)
            to += "\"\"";
        to += '\n';
    });
}

// ---- tsv ----------------------------------------------------------------------------------------

void append_tsv_field(std::string &out, std::string_view text) {
    for (const char c : text)
        switch (c) {
            case '\t':
                out += "\\t";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\\':
                out += "\\\\";
                break;
            default:
                out += c;
        }
}

void print_tsv(const result_table &result, const output_style &style, printer &out) {
    for (std::size_t i = 0; style.titles && i < result.columns.size(); ++i) {
        if (i > 0)
            out.buffer() += '\t';
        append_tsv_field(out.buffer(), result.columns[i].title);
    }
    if (style.titles)
        out.end_row();
    out.rows(result.rows, [&](std::string &to, std::size_t row) {
        std::string text;
        for (std::size_t i = 0; i < result.columns.size(); ++i) {
            if (i > 0)
                to += '\t';
            text.clear();
            append_text(text, rounded_cell(result.columns[i].cell(row), style.digits));
            append_tsv_field(to, text);
        }
        to += '\n';
    });
}

// ---- json ---------------------------------------------------------------------------------------

nlohmann::ordered_json json_number(double value) {
    if (std::isnan(value))
        return "NaN";
    if (std::isinf(value))
        return value > 0 ? "Infinity" : "-Infinity";
    return value;
}

struct to_json {
    nlohmann::ordered_json operator()(std::monostate) const { return nullptr; }
    nlohmann::ordered_json operator()(std::int64_t value) const { return value; }
    nlohmann::ordered_json operator()(double value) const { return json_number(value); }
    nlohmann::ordered_json operator()(truth value) const { return value.value != 0; }
    nlohmann::ordered_json operator()(std::string_view value) const { return value; }
    // By way of its shortest text: the double nearest to a float has more digits.
    nlohmann::ordered_json operator()(float value) const {
        return json_number(std::isfinite(value) ? std::stod(fmt::format("{}", value)) : value);
    }
    nlohmann::ordered_json operator()(timestamp value) const {
        std::string text;
        append(text, value);
        return text;
    }
};

std::string json_object(const result_table &result, std::size_t row, const output_style &style) {
    constexpr auto compact = -1;
    constexpr bool ascii_only = false;
    nlohmann::ordered_json object = nlohmann::ordered_json::object();
    for (const result_column &column : result.columns)
        object[column.title] = std::visit(to_json{}, rounded_cell(column.cell(row), style.digits));
    // Bytes that are no UTF-8 are shown as such instead of failing the whole output.
    return object.dump(compact, ' ', ascii_only, nlohmann::ordered_json::error_handler_t::replace);
}

void print_json(const result_table &result, const output_style &style, printer &out) {
    out.buffer() += '[';
    out.rows(result.rows, [&](std::string &to, std::size_t row) {
        if (row > 0)
            to += ",\n ";
        to += json_object(result, row, style);
    });
    out.buffer() += ']';
    out.end_row();
}

void print_json_lines(const result_table &result, const output_style &style, printer &out) {
    out.rows(result.rows, [&](std::string &to, std::size_t row) {
        to += json_object(result, row, style);
        to += '\n';
    });
}

} // namespace

void append_text(std::string &out, const result_cell &cell) {
    std::visit([&out](const auto &value) { append(out, value); }, cell);
}

void print(const result_table &asked, const output_style &style, std::FILE *file) {
    printer out(file);
    // The cells are read from what the one that was asked for holds.
    result_table result{asked.columns, asked.rows, {}};
    for (result_column &column : result.columns)
        if (const auto spelling = column.spelling)
            column = with_spelling(std::move(column), *spelling);
        else if (column.is_mixed || has_dates_alone(column, result.rows))
            column = with_spelling(std::move(column), {});
    switch (style.format) {
        case output_format::table:
            print_table(result, style, out);
            break;
        case output_format::markdown:
            print_markdown(result, style, out);
            break;
        case output_format::csv:
            print_csv(result, style, out);
            break;
        case output_format::tsv:
            print_tsv(result, style, out);
            break;
        case output_format::json:
            print_json(result, style, out);
            break;
        case output_format::jsonl:
            print_json_lines(result, style, out);
            break;
    }
    out.flush();
}

} // namespace vask::runner
