#include "cell_values.h"

#include "kernel/column.h"

#include "vask/refkernel/atoms.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <concepts>
#include <utility>

#include <fast_float/fast_float.h>

namespace vask::runner {
namespace {

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Neither number reader takes a plus sign.
std::string_view without_plus(std::string_view cell) {
    const bool plus = cell.size() > 1 && cell[0] == '+' && (is_digit(cell[1]) || cell[1] == '.');
    return plus ? cell.substr(1) : cell;
}

template <std::integral T>
bool parse_number(std::string_view cell, T &value) {
    cell = without_plus(cell);
    const char *const end = cell.data() + cell.size();
    const auto [stop, error] = std::from_chars(cell.data(), end, value);
    return stop == end && error == std::errc{};
}
template <std::floating_point T>
bool parse_number(std::string_view cell, T &value) {
    cell = without_plus(cell);
    const char *const end = cell.data() + cell.size();
    const auto [stop, error] = fast_float::from_chars(cell.data(), end, value);
    return stop == end && error == std::errc{};
}

// The nil stands for "missing" and can be no value of a column.
template <class T>
bool read_number(std::string_view cell, int code, T &value) {
    return parse_number(cell, value) && value != nil_of<T>(code);
}

// Takes `digits` digits off the front of `text`; less than 0 when they are not there.
int take_digits(std::string_view &text, std::size_t digits) {
    if (text.size() < digits)
        return -1;
    int value = 0;
    for (const char c : text.substr(0, digits)) {
        if (!is_digit(c))
            return -1;
        value = value * 10 + (c - '0');
    }
    text.remove_prefix(digits);
    return value;
}

bool take(std::string_view &text, char c) {
    if (!text.starts_with(c))
        return false;
    text.remove_prefix(1);
    return true;
}

// The digits behind the point of a second, as microseconds; further digits are refused.
std::optional<std::chrono::microseconds> take_fraction(std::string_view &text) {
    std::size_t digits = 0;
    while (digits < text.size() && is_digit(text[digits]))
        ++digits;
    if (digits == 0 || digits > 6)
        return std::nullopt;
    int value = take_digits(text, digits);
    for (; digits < 6; ++digits)
        value *= 10;
    return std::chrono::microseconds(value);
}

std::optional<std::chrono::microseconds> take_time_of_day(std::string_view &text) {
    const int hours = take_digits(text, 2);
    if (hours < 0 || hours > 23 || !take(text, ':'))
        return std::nullopt;
    const int minutes = take_digits(text, 2);
    if (minutes < 0 || minutes > 59)
        return std::nullopt;
    std::chrono::microseconds time = std::chrono::hours(hours) + std::chrono::minutes(minutes);
    if (!take(text, ':'))
        return time;
    const int seconds = take_digits(text, 2);
    if (seconds < 0 || seconds > 59)
        return std::nullopt;
    time += std::chrono::seconds(seconds);
    if (!take(text, '.'))
        return time;
    const auto fraction = take_fraction(text);
    if (!fraction)
        return std::nullopt;
    return time + *fraction;
}

} // namespace

std::string_view name_of(column_type type) {
    switch (type) {
        case column_type::bit:
            return "bit";
        case column_type::bte:
            return "bte";
        case column_type::sht:
            return "sht";
        case column_type::flt:
            return "flt";
        case column_type::timestamp:
            return "timestamp";
        case column_type::int_:
            return "int";
        case column_type::lng:
            return "lng";
        case column_type::dbl:
            return "dbl";
        case column_type::str:
            break;
    }
    return "str";
}

std::optional<column_type> type_named(std::string_view name) {
    for (const column_type type : all_column_types)
        if (name_of(type) == name)
            return type;
    // As other programs call them.
    static constexpr std::array<std::pair<std::string_view, column_type>, 18> others{
        {{"bool", column_type::bit},
         {"boolean", column_type::bit},
         {"int8", column_type::bte},
         {"int16", column_type::sht},
         {"int32", column_type::int_},
         {"int64", column_type::lng},
         {"integer", column_type::lng},
         {"bigint", column_type::lng},
         {"float32", column_type::flt},
         {"float", column_type::dbl},
         {"float64", column_type::dbl},
         {"double", column_type::dbl},
         {"string", column_type::str},
         {"text", column_type::str},
         {"utf8", column_type::str},
         {"varchar", column_type::str},
         {"datetime", column_type::timestamp},
         {"date", column_type::timestamp}}};
    for (const auto &[other, type] : others)
        if (other == name)
            return type;
    return std::nullopt;
}

int type_code(column_type type) {
    switch (type) {
        case column_type::bit:
            return TYPE_bit;
        case column_type::bte:
            return TYPE_bte;
        case column_type::sht:
            return TYPE_sht;
        case column_type::flt:
            return TYPE_flt;
        case column_type::timestamp:
            return refkernel::type_timestamp;
        case column_type::int_:
            return TYPE_int;
        case column_type::lng:
            return TYPE_lng;
        case column_type::dbl:
            return TYPE_dbl;
        case column_type::str:
            break;
    }
    return TYPE_str;
}

bool read_cell(std::string_view cell, bte &value) {
    return read_number(cell, TYPE_bte, value);
}
bool read_cell(std::string_view cell, sht &value) {
    return read_number(cell, TYPE_sht, value);
}
bool read_cell(std::string_view cell, std::int32_t &value) {
    return read_number(cell, TYPE_int, value);
}
bool read_cell(std::string_view cell, lng &value) {
    return read_number(cell, TYPE_lng, value);
}
bool read_cell(std::string_view cell, flt &value) {
    return read_number(cell, TYPE_flt, value);
}
bool read_cell(std::string_view cell, dbl &value) {
    return read_number(cell, TYPE_dbl, value);
}

bool read_cell(std::string_view cell, timestamp &value) {
    const int year = take_digits(cell, 4);
    if (year < 0 || !take(cell, '-'))
        return false;
    const int month = take_digits(cell, 2);
    if (month < 0 || !take(cell, '-'))
        return false;
    const int day = take_digits(cell, 2);
    if (day < 0)
        return false;
    const std::chrono::year_month_day date{std::chrono::year(year),
                                           std::chrono::month(static_cast<unsigned>(month)),
                                           std::chrono::day(static_cast<unsigned>(day))};
    if (!date.ok())
        return false;
    std::chrono::microseconds time{0};
    if (take(cell, ' ') || take(cell, 'T')) {
        const auto time_of_day = take_time_of_day(cell);
        if (!time_of_day)
            return false;
        time = *time_of_day;
        take(cell, 'Z');
    }
    value.microseconds =
        std::chrono::microseconds(std::chrono::sys_days(date).time_since_epoch()).count() +
        time.count();
    return cell.empty();
}

bool read_cell(std::string_view cell, truth &value) {
    constexpr std::array<std::string_view, 3> yes{"true", "t", "1"};
    constexpr std::array<std::string_view, 3> no{"false", "f", "0"};
    std::string lower(cell.substr(0, 6));
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    const bool is_true = std::find(yes.begin(), yes.end(), lower) != yes.end();
    value.value = is_true ? 1 : 0;
    return is_true || std::find(no.begin(), no.end(), lower) != no.end();
}

bool is_reserved(std::string_view cell, column_type type) {
    if (type == column_type::str)
        return false;
    return visit_cell_type(type, [&]<class T>(std::type_identity<T>) {
        if constexpr (std::is_arithmetic_v<T>) {
            T value{};
            return parse_number(cell, value) && value == nil_of<T>(type_code(type));
        }
        return false;
    });
}

column_type narrowest_type(std::string_view cell) {
    // Most texts begin like no number; the readers need not look at them.
    if (std::int32_t value = 0; read_cell(cell, value))
        return column_type::int_;
    if (lng value = 0; read_cell(cell, value))
        return column_type::lng;
    if (dbl value = 0; read_cell(cell, value))
        return column_type::dbl;
    return column_type::str;
}

column_type inferred_type(std::string_view cell, bool keep_zeros, const number_format &format) {
    std::string memory;
    const auto plain = plain_spelling(cell, format, memory);
    if (!plain || (keep_zeros && has_leading_zero(*plain)))
        return column_type::str;
    return narrowest_type(*plain);
}

missing_words::missing_words(std::vector<std::string> words) : words_(std::move(words)) {
    for (const std::string &word : words_) {
        if (word.empty())
            empty_ = true;
        else
            starts_[static_cast<unsigned char>(word.front())] = true;
    }
}

bool missing_words::listed(std::string_view cell) const {
    return std::find(words_.begin(), words_.end(), cell) != words_.end();
}

} // namespace vask::runner
