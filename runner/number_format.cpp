#include "number_format.h"

#include "cell_values.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

namespace vask::runner {
namespace {

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_number(std::string_view cell, const number_format &format) {
    std::string memory;
    const auto plain = plain_spelling(cell, format, memory);
    dbl value = 0;
    return plain && !plain->empty() && read_cell(*plain, value);
}

bool is_hexadecimal(std::string_view cell) {
    const std::size_t sign = cell.starts_with('-') || cell.starts_with('+') ? 1 : 0;
    cell.remove_prefix(sign);
    return cell.size() > 2 && (cell.starts_with("0x") || cell.starts_with("0X")) &&
           cell.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string_view::npos;
}

// How a number is written that has marks within it; nothing for other cells.
std::string marks_hint(std::string_view cell) {
    const auto reads = [&](char decimal, char thousands) {
        return is_number(cell, {decimal, thousands});
    };
    const bool has_comma = cell.find(',') != cell.npos;
    if (has_comma && reads(',', '\0'))
        return reads('.', ',') ? " It looks like a number with a thousands separator, which "
                                 "--thousands , reads, or with a decimal comma, which --decimal , "
                                 "reads."
                               : " It looks like a number with a decimal comma: --decimal , reads "
                                 "it.";
    if (has_comma && reads('.', ','))
        return " It looks like a number with thousands separators: --thousands , reads it.";
    if (reads(',', '.'))
        return " It looks like a number with thousands separators and a decimal comma: --decimal , "
               "--thousands . reads it.";
    for (const char mark : {'\'', ' ', '_'})
        for (const char decimal : {'.', ','})
            if (reads(decimal, mark))
                return fmt::format(" It looks like a number with thousands separators: {}"
                                   "--thousands \"{}\" reads it.",
                                   decimal == ',' ? "--decimal , " : "", mark);
    return {};
}

// A cell without a mark at either end, and blanks beside it; nothing if it has none.
std::optional<std::string_view> without(std::string_view cell, std::string_view mark) {
    const bool negative = cell.starts_with('-');
    std::string_view rest = cell.substr(negative ? 1 : 0);
    if (rest.starts_with(mark))
        rest.remove_prefix(mark.size());
    else if (rest.ends_with(mark))
        rest.remove_suffix(mark.size());
    else
        return std::nullopt;
    while (rest.starts_with(' '))
        rest.remove_prefix(1);
    while (rest.ends_with(' '))
        rest.remove_suffix(1);
    return rest;
}

bool is_any_number(std::string_view cell) {
    return !cell.empty() && (is_number(cell, {}) || !marks_hint(cell).empty());
}

} // namespace

std::optional<std::string_view> plain_spelling(std::string_view cell, const number_format &format,
                                               std::string &memory) {
    if (format.is_plain())
        return cell;
    memory.clear();
    std::size_t digits = 0; // since the last mark of thousands
    bool grouped = false;
    bool whole = true; // before the decimal mark or an exponent
    for (const char c : cell) {
        if (whole && format.thousands != '\0' && c == format.thousands) {
            if (digits == 0 || (grouped ? digits != 3 : digits > 3))
                return std::nullopt;
            grouped = true;
            digits = 0;
            continue;
        }
        const bool is_decimal = c == format.decimal;
        if (!is_decimal && (c == '.' || (format.thousands != '\0' && c == format.thousands)))
            return std::nullopt;
        if (whole && !is_digit(c) && (digits > 0 || is_decimal)) {
            if (grouped && digits != 3)
                return std::nullopt;
            whole = false;
        }
        digits += whole && is_digit(c) ? 1 : 0;
        memory += is_decimal ? '.' : c;
    }
    if (whole && grouped && digits != 3)
        return std::nullopt;
    return memory;
}

std::string number_hint(std::string_view cell) {
    if (is_number(cell, {}))
        return {};
    if (std::string hint = marks_hint(cell); !hint.empty())
        return hint;
    if (is_hexadecimal(cell))
        return " It looks like a hexadecimal number: write it in decimal digits.";
    if (const auto rest = without(cell, "%"); rest && is_any_number(*rest))
        return " It looks like a percentage: remove the sign from the file, as no option reads it.";
    constexpr std::array<std::string_view, 11> currencies{"$",   "€",   "£",   "¥",   "₹", "USD",
                                                          "EUR", "GBP", "CHF", "JPY", "kr"};
    for (const std::string_view currency : currencies)
        if (const auto rest = without(cell, currency); rest && is_any_number(*rest))
            return fmt::format(
                " It looks like an amount of money: remove '{}' from the file, as no "
                "option reads it.",
                currency);
    return {};
}

} // namespace vask::runner
