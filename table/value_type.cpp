#include "table/value_type.h"

#include "table/errors.h"
#include "vask/kernel/bat.h"

#include <array>
#include <charconv>
#include <iterator>
#include <utility>

namespace vask::table {
namespace {

struct simple_format {
    std::string_view format;
    kind of;
    std::string_view name;
};

constexpr std::array<simple_format, 29> simple_formats{{
    {"n", kind::null, "null"},
    {"b", kind::boolean, "bool"},
    {"c", kind::int8, "int8"},
    {"s", kind::int16, "int16"},
    {"i", kind::int32, "int32"},
    {"l", kind::int64, "int64"},
    {"C", kind::uint8, "uint8"},
    {"S", kind::uint16, "uint16"},
    {"I", kind::uint32, "uint32"},
    {"L", kind::uint64, "uint64"},
    {"f", kind::float32, "float32"},
    {"g", kind::float64, "float64"},
    {"u", kind::text, "utf8"},
    {"U", kind::text, "large_utf8"},
    {"vu", kind::text, "utf8_view"},
    {"z", kind::binary, "binary"},
    {"Z", kind::binary, "large_binary"},
    {"vz", kind::binary, "binary_view"},
    {"tdD", kind::date32, "date32"},
    {"tdm", kind::date64, "date64"},
    {"tts", kind::time32, "time32[s]"},
    {"ttm", kind::time32, "time32[ms]"},
    {"ttu", kind::time64, "time64[us]"},
    {"ttn", kind::time64, "time64[ns]"},
    {"tDs", kind::duration, "duration[s]"},
    {"tDm", kind::duration, "duration[ms]"},
    {"tDu", kind::duration, "duration[us]"},
    {"tDn", kind::duration, "duration[ns]"},
    {"d:", kind::decimal, "decimal128"},
}};

constexpr std::string_view unit_name(char unit) {
    switch (unit) {
        case 's':
            return "s";
        case 'm':
            return "ms";
        case 'u':
            return "us";
        default:
            return "ns";
    }
}

bool is_timestamp(std::string_view format) {
    return format.size() >= 4 && format.substr(0, 2) == "ts" && format[3] == ':' &&
           std::string_view("smun").find(format[2]) != std::string_view::npos;
}

// The digits of "10,2" or "10,2,128".
std::optional<value_type> parse_decimal(std::string_view digits) {
    std::array<int, 3> numbers{0, 0, 128};
    const char *at = digits.data();
    const char *const end = at + digits.size();
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        const auto [next, fault] = std::from_chars(at, end, numbers[i]);
        if (fault != std::errc{})
            return std::nullopt;
        if (next == end)
            return i >= 1 && numbers[2] == 128 && numbers[0] > 0 && numbers[1] >= 0
                       ? std::optional(decimal_type(numbers[0], numbers[1]))
                       : std::nullopt;
        if (*next != ',')
            return std::nullopt;
        at = next + 1;
    }
    return std::nullopt;
}

} // namespace

std::optional<value_type> parse_format(std::string_view format) {
    if (format.substr(0, 2) == "d:")
        return parse_decimal(format.substr(2));
    if (is_timestamp(format))
        return value_type{kind::timestamp, std::string(format)};
    for (const simple_format &known : simple_formats)
        if (known.format == format)
            return value_type{known.of, std::string(format)};
    return std::nullopt;
}

value_type plain_type(kind of) {
    for (const simple_format &known : simple_formats)
        if (known.of == of)
            return {of, std::string(known.format)};
    return {};
}

value_type decimal_type(int precision, int scale) {
    return {kind::decimal, fmt::format("d:{},{}", precision, scale), precision, scale};
}

std::string name_of(const value_type &type) {
    if (type.of == kind::decimal)
        return fmt::format("decimal128({}, {})", type.precision, type.scale);
    if (type.of == kind::timestamp) {
        const std::string zone = type.format.substr(4);
        return fmt::format("timestamp[{}{}{}]", unit_name(type.format[2]), zone.empty() ? "" : ", ",
                           shown(zone));
    }
    for (const simple_format &known : simple_formats)
        if (known.format == type.format)
            return std::string(known.name);
    return type.format;
}

int width_of(kind k) {
    switch (k) {
        case kind::int8:
        case kind::uint8:
            return 1;
        case kind::int16:
        case kind::uint16:
            return 2;
        case kind::int32:
        case kind::uint32:
        case kind::float32:
        case kind::date32:
        case kind::time32:
            return 4;
        case kind::int64:
        case kind::uint64:
        case kind::float64:
        case kind::date64:
        case kind::time64:
        case kind::timestamp:
        case kind::duration:
            return 8;
        case kind::decimal:
            return 16;
        case kind::null:
        case kind::boolean:
        case kind::text:
        case kind::binary:
            break;
    }
    return 0;
}

int storage_of(kind k) {
    switch (k) {
        case kind::null:
        case kind::boolean:
        case kind::int8:
            return TYPE_bte;
        case kind::uint8:
        case kind::int16:
            return TYPE_sht;
        case kind::uint16:
        case kind::int32:
        case kind::date32:
        case kind::time32:
        case kind::text:
        case kind::binary:
            return TYPE_int;
        case kind::float32:
            return TYPE_flt;
        case kind::float64:
            return TYPE_dbl;
        case kind::uint32:
        case kind::uint64:
        case kind::int64:
        case kind::date64:
        case kind::time64:
        case kind::timestamp:
        case kind::duration:
        case kind::decimal:
            break;
    }
    return TYPE_lng;
}

std::string shown(std::string_view text) {
    constexpr std::size_t most = 80;
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        // Not within a character.
        if (result.size() >= most && (byte & 0xc0) != 0x80) {
            result.append("...");
            break;
        }
        if (byte < 0x20 || byte == 0x7f)
            fmt::format_to(std::back_inserter(result), "\\x{:02x}", byte);
        else
            result.push_back(c);
    }
    return result;
}

} // namespace vask::table
