// The types of a table's columns, as the Arrow C data interface names them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vask::table {

enum class kind : std::uint8_t {
    null,
    boolean,
    int8,
    int16,
    int32,
    int64,
    uint8,
    uint16,
    uint32,
    uint64,
    float32,
    float64,
    decimal,
    date32,
    date64,
    time32,
    time64,
    timestamp,
    duration,
    text,
    binary
};

struct value_type {
    kind of = kind::null;
    std::string format = "n"; //!< as a plain array of the type has it
    int precision = 0;        //!< of a decimal: digits
    int scale = 0;            //!< of a decimal: digits behind the point

    bool operator==(const value_type &) const = default;
};

//! The type that an Arrow format names; nothing for one that columns cannot have.
std::optional<value_type> parse_format(std::string_view format);

//! The type without units, zones and digits of its own.
value_type plain_type(kind of);
value_type decimal_type(int precision, int scale);

//! As messages name it: "int32", "timestamp[us, UTC]", "decimal128(10, 2)".
std::string name_of(const value_type &type);

constexpr bool is_integer(kind k) {
    return k >= kind::boolean && k <= kind::uint64;
}
constexpr bool is_float(kind k) {
    return k == kind::float32 || k == kind::float64;
}
//! What can be added up: booleans count as 0 and 1.
constexpr bool is_number(kind k) {
    return k >= kind::boolean && k <= kind::decimal;
}
constexpr bool is_temporal(kind k) {
    return k >= kind::date32 && k <= kind::duration;
}
constexpr bool is_text(kind k) {
    return k == kind::text || k == kind::binary;
}
//! Whether the least integer means "no time": NumPy and pandas write it so.
constexpr bool has_no_time(kind k) {
    return k == kind::timestamp || k == kind::duration;
}

//! Bytes of a value in a plain array; 0 for booleans, texts and nulls.
int width_of(kind k);

//! The kernel's type code in which values of the type are computed with. Texts are codes of words.
int storage_of(kind k);

} // namespace vask::table
