#include "output.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <type_traits>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace vask::runner {
namespace {

// Text on its way to a file, written in large pieces.
class printer {
public:
    explicit printer(std::FILE *file) : file_(file) {}

    std::string &buffer() noexcept { return buffer_; }

    void end_row() {
        buffer_ += '\n';
        if (buffer_.size() >= flush_bytes)
            flush();
    }

    void flush() {
        if (std::fwrite(buffer_.data(), 1, buffer_.size(), file_) != buffer_.size() ||
            std::fflush(file_) != 0)
            throw std::runtime_error(
                fmt::format("cannot write the result: {}", std::strerror(errno)));
        buffer_.clear();
    }

private:
    static constexpr std::size_t flush_bytes = std::size_t{1} << 16;
    std::FILE *file_;
    std::string buffer_;
};

void append(std::string &out, std::monostate) {
    out.append(0, ' ');
}
template <class Number>
void append(std::string &out, Number value) {
    // The sign of a NaN tells nothing.
    if constexpr (std::is_floating_point_v<Number>)
        if (std::isnan(value))
            value = std::numeric_limits<Number>::quiet_NaN();
    fmt::format_to(std::back_inserter(out), "{}", value);
}
void append(std::string &out, truth value) {
    out += value.value != 0 ? "true" : "false";
}
void append(std::string &out, std::string_view value) {
    out += value;
}

void append(std::string &out, timestamp value) {
    using namespace std::chrono;
    const sys_time<microseconds> time{microseconds(value.microseconds)};
    const auto day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    fmt::format_to(std::back_inserter(out), "{:04}-{:02}-{:02} {:02}:{:02}:{:02}",
                   static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                   static_cast<unsigned>(date.day()), clock.hours().count(),
                   clock.minutes().count(), clock.seconds().count());
    if (clock.subseconds().count() == 0)
        return;
    fmt::format_to(std::back_inserter(out), ".{:06}", clock.subseconds().count());
    out.erase(out.find_last_not_of('0') + 1);
}

// ---- table --------------------------------------------------------------------------------------

// Columns that a text takes on a terminal, counted as code points.
std::size_t width_of(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned>(c) & 0xC0) != 0x80;
    }));
}

std::string table_text(const result_cell &cell) {
    std::string text;
    append_text(text, cell);
    if (std::holds_alternative<std::monostate>(cell))
        text = "NA";
    for (char &c : text)
        if (c == '\n' || c == '\r' || c == '\t')
            c = ' ';
    return text;
}

void print_table(const result_table &result, printer &out) {
    std::vector<std::size_t> widths;
    for (const result_column &column : result.columns) {
        std::size_t width = width_of(column.title);
        for (std::size_t row = 0; row < result.rows; ++row)
            width = std::max(width, width_of(table_text(column.cell(row))));
        widths.push_back(width);
    }
    // Text is aligned to the left, everything else to the right.
    const auto print_row = [&](const auto &text_of) {
        std::string &line = out.buffer();
        const std::size_t begin = line.size();
        for (std::size_t i = 0; i < widths.size(); ++i) {
            const std::string text = text_of(result.columns[i]);
            const std::size_t padding = widths[i] - width_of(text);
            if (i > 0)
                line += "  ";
            if (!result.columns[i].is_text)
                line.append(padding, ' ');
            line += text;
            if (result.columns[i].is_text)
                line.append(padding, ' ');
        }
        while (line.size() > begin && line.back() == ' ')
            line.pop_back();
        out.end_row();
    };
    print_row([](const result_column &column) { return column.title; });
    for (std::size_t row = 0; row < result.rows; ++row)
        print_row([row](const result_column &column) { return table_text(column.cell(row)); });
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

void print_csv(const result_table &result, printer &out) {
    std::string text;
    for (std::size_t i = 0; i < result.columns.size(); ++i) {
        if (i > 0)
            out.buffer() += ',';
        append_csv_field(out.buffer(), result.columns[i].title);
    }
    out.end_row();
    for (std::size_t row = 0; row < result.rows; ++row) {
        for (std::size_t i = 0; i < result.columns.size(); ++i) {
            if (i > 0)
                out.buffer() += ',';
            text.clear();
            append_text(text, result.columns[i].cell(row));
            append_csv_field(out.buffer(), text);
        }
        // A lone empty field must not become a blank line, which readers pass over.
        if (result.columns.size() == 1 && text.empty())
            out.buffer() += "\"\"";
        out.end_row();
    }
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

void print_json(const result_table &result, printer &out) {
    constexpr auto compact = -1;
    constexpr bool ascii_only = false;
    out.buffer() += '[';
    for (std::size_t row = 0; row < result.rows; ++row) {
        nlohmann::ordered_json object = nlohmann::ordered_json::object();
        for (const result_column &column : result.columns)
            object[column.title] = std::visit(to_json{}, column.cell(row));
        if (row > 0) {
            out.buffer() += ',';
            out.end_row();
            out.buffer() += ' ';
        }
        // Bytes that are no UTF-8 are shown as such instead of failing the whole output.
        out.buffer() +=
            object.dump(compact, ' ', ascii_only, nlohmann::ordered_json::error_handler_t::replace);
    }
    out.buffer() += ']';
    out.end_row();
}

} // namespace

void append_text(std::string &out, const result_cell &cell) {
    std::visit([&out](const auto &value) { append(out, value); }, cell);
}

void print(const result_table &result, output_format format, std::FILE *file) {
    printer out(file);
    switch (format) {
        case output_format::table:
            print_table(result, out);
            break;
        case output_format::csv:
            print_csv(result, out);
            break;
        case output_format::json:
            print_json(result, out);
            break;
    }
    out.flush();
}

} // namespace vask::runner
