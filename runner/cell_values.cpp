#include "cell_values.h"

#include "kernel/column.h"

#include "vask/refkernel/atoms.h"

#include <algorithm>
#include <array>
#include <charconv>
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
        case column_type::date:
            return "date";
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
    static constexpr std::array<std::pair<std::string_view, column_type>, 17> others{
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
         {"datetime", column_type::timestamp}}};
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
        case column_type::date:
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
    const auto time = read_time(cell);
    value.microseconds = time ? time->microseconds : 0;
    return time.has_value();
}
bool read_cell(std::string_view cell, calendar_date &value) {
    const auto time = read_time(cell);
    value.microseconds = time ? time->microseconds : 0;
    return time && is_midnight(value.microseconds);
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

namespace {

std::optional<column_type> number_type(std::string_view cell) {
    // Most texts begin like no number; the readers need not look at them.
    if (std::int32_t value = 0; read_cell(cell, value))
        return column_type::int_;
    if (lng value = 0; read_cell(cell, value))
        return column_type::lng;
    if (dbl value = 0; read_cell(cell, value))
        return column_type::dbl;
    return std::nullopt;
}

column_type time_or_text(std::string_view cell, const date_format &dates) {
    const auto time = read_time(cell, dates);
    if (!time)
        return column_type::str;
    return time->style.is_date() ? column_type::date : column_type::timestamp;
}

} // namespace

column_type narrowest_type(std::string_view cell, const date_format &dates) {
    const auto number = number_type(cell);
    return number ? *number : time_or_text(cell, dates);
}

column_type inferred_type(std::string_view cell, bool keep_zeros, const cell_format &format) {
    std::string memory;
    const auto plain = plain_spelling(cell, format.numbers, memory);
    if (const auto number = plain ? number_type(*plain) : std::nullopt)
        return keep_zeros && has_leading_zero(*plain) ? column_type::str : *number;
    return time_or_text(cell, format.dates);
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
