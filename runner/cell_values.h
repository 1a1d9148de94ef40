// What a cell of a file can hold: the types of columns, and reading their values from text.
#pragma once

#include "number_format.h"
#include "time_format.h"

#include "vask/kernel/bat.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace vask::runner {

//! The types a column can be loaded as. Inferred are int to dbl, date and timestamp, and str.
enum class column_type : std::uint8_t { bit, bte, sht, flt, int_, lng, dbl, date, timestamp, str };

constexpr bool is_time_type(column_type type) {
    return type == column_type::date || type == column_type::timestamp;
}

//! The narrowest inferred type that holds the values of both: of int, lng and dbl the widest, of
//! date and timestamp, too, and str where these meet those.
constexpr column_type wider(column_type a, column_type b) {
    return is_time_type(a) == is_time_type(b) ? std::max(a, b) : column_type::str;
}
//! The same where a column may have had no value so far.
constexpr std::optional<column_type> wider(std::optional<column_type> a,
                                           std::optional<column_type> b) {
    return a && b ? wider(*a, *b) : a ? a : b;
}

//! All of them, in the order in which they are listed to users.
inline constexpr std::array all_column_types{
    column_type::bit,  column_type::bte,      column_type::sht, column_type::int_,
    column_type::lng,  column_type::flt,      column_type::dbl, column_type::str,
    column_type::date, column_type::timestamp};

//! The name as --types takes it.
std::string_view name_of(column_type type);
std::optional<column_type> type_named(std::string_view name);
//! The kernel's type code.
int type_code(column_type type);

//! Microseconds since 1970-01-01 00:00:00, without time zone or leap seconds.
struct timestamp {
    lng microseconds;
};
//! The midnight with which a date begins: a date is stored as a timestamp is.
struct calendar_date {
    lng microseconds;
};
template <class T>
inline constexpr bool is_time = std::is_same_v<T, timestamp> || std::is_same_v<T, calendar_date>;

//! How a file writes what is no plain text.
struct cell_format {
    number_format numbers{};
    date_format dates{};
};
//! A truth value, stored in one byte.
struct truth {
    bit value;
};

//! Calls `f(std::type_identity<T>{})` with the type that cells of a fixed-width column are read as.
template <class F>
decltype(auto) visit_cell_type(column_type type, F f) {
    switch (type) {
        case column_type::bit:
            return f(std::type_identity<truth>{});
        case column_type::bte:
            return f(std::type_identity<bte>{});
        case column_type::sht:
            return f(std::type_identity<sht>{});
        case column_type::flt:
            return f(std::type_identity<flt>{});
        case column_type::date:
            return f(std::type_identity<calendar_date>{});
        case column_type::timestamp:
            return f(std::type_identity<timestamp>{});
        case column_type::int_:
            return f(std::type_identity<std::int32_t>{});
        case column_type::lng:
            return f(std::type_identity<lng>{});
        case column_type::dbl:
        case column_type::str:
            break; // stored as an offset, not as a value
    }
    return f(std::type_identity<dbl>{});
}

/*
 * Reads a whole cell as a value; false when the cell is no such value or does not fit.
 *   integers   decimal digits with an optional sign
 *   flt, dbl   decimal or scientific notation, rounded correctly; inf and nan in any case
 *   timestamp  as read_time() has it; a date is one at midnight
 *   truth      true, false, t, f, 1 or 0 in any case
 */
bool read_cell(std::string_view cell, bte &value);
bool read_cell(std::string_view cell, sht &value);
bool read_cell(std::string_view cell, std::int32_t &value);
bool read_cell(std::string_view cell, lng &value);
bool read_cell(std::string_view cell, flt &value);
bool read_cell(std::string_view cell, dbl &value);
bool read_cell(std::string_view cell, timestamp &value);
bool read_cell(std::string_view cell, calendar_date &value);
bool read_cell(std::string_view cell, truth &value);

//! Whether a cell is the number that stands for a missing one in columns of that type, and so can
//! be no value of it.
bool is_reserved(std::string_view cell, column_type type);

//! The narrowest inferred type that a cell's text fits in: the kernel's nil of a type does not fit,
//! nor does an integer above 64 bits, which becomes dbl. What is a number is no date.
column_type narrowest_type(std::string_view cell, const date_format &dates = {});

//! Whether a cell begins, behind a sign if there is one, with a zero and a further digit: as postal
//! codes and article numbers do, which a number would merge with others and print without the zero.
//! So do 00, -01 and 007.5, but not 0, 0.5 or 1e05.
inline bool has_leading_zero(std::string_view cell) {
    // Asked of every number of an inferred column, and so without a branch on the first digit:
    // where half of the cells are 0.x, such a branch makes loading a tenth slower.
    if (cell.size() < 2)
        return false;
    const std::size_t first = cell[0] == '-' || cell[0] == '+' ? 1 : 0;
    const char next = first + 1 < cell.size() ? cell[first + 1] : ' ';
    return (cell[first] == '0') & (next >= '0') & (next <= '9');
}

//! The type that a column must at least have for the cell when nobody has said what it holds: the
//! narrowest one or, with `keep_zeros`, str for a leading zero.
column_type inferred_type(std::string_view cell, bool keep_zeros, const cell_format &format = {});

//! The texts that stand for a missing value.
class missing_words {
public:
    explicit missing_words(std::vector<std::string> words);

    bool contains(std::string_view cell) const {
        if (cell.empty())
            return empty_;
        return starts_[static_cast<unsigned char>(cell.front())] && listed(cell);
    }

private:
    bool listed(std::string_view cell) const;

    std::vector<std::string> words_;
    std::array<bool, 256> starts_{}; // by the first byte of a word: turns most cells away at once
    bool empty_ = false;
};

} // namespace vask::runner
