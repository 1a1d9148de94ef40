#include "runner/cell_values.h"

#include <cmath>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace vask::runner {
namespace {

template <class T>
std::optional<T> read(std::string_view cell) {
    T value{};
    if (!read_cell(cell, value))
        return std::nullopt;
    return value;
}

// The least value of an integer type is its nil, so it fits only the next wider type.
TEST(CellValues, IntegersUpToTheirBounds) {
    const auto check = []<class T>(std::type_identity<T>) {
        const auto most = static_cast<long long>(std::numeric_limits<T>::max());
        EXPECT_EQ(read<T>(std::to_string(most)), std::numeric_limits<T>::max());
        EXPECT_EQ(read<T>(std::to_string(-most)), -std::numeric_limits<T>::max());
        EXPECT_EQ(read<T>(std::to_string(static_cast<unsigned long long>(most) + 1)), std::nullopt);
        EXPECT_EQ(read<T>(std::to_string(-most - 1)), std::nullopt);
    };
    check(std::type_identity<bte>{});
    check(std::type_identity<sht>{});
    check(std::type_identity<std::int32_t>{});
    check(std::type_identity<lng>{});
    EXPECT_EQ(read<std::int32_t>("+7"), 7);
    EXPECT_EQ(read<std::int32_t>("007"), 7);
    for (const char *bad : {"", "+", "-", "+-7", "++7", "7 ", " 7", "7x", "0x7", "7.0", "1e3"})
        EXPECT_EQ(read<std::int32_t>(bad), std::nullopt) << bad;
}

TEST(CellValues, DecimalsAreRoundedToTheNearest) {
    for (const char *text : {"0.1", "-2.5e-3", ".5", "5.", "1e22", "123456789.123456789",
                             "2.2250738585072011e-308", "9007199254740993", "5e-324"}) {
        EXPECT_EQ(read<dbl>(text), std::strtod(text, nullptr)) << text;
        EXPECT_EQ(read<flt>(text), std::strtof(text, nullptr)) << text;
    }
    EXPECT_EQ(read<dbl>("+1.5"), 1.5);
    EXPECT_EQ(read<dbl>("-inf"), -std::numeric_limits<double>::infinity());
    EXPECT_TRUE(std::isnan(read<dbl>("nan").value()));
    // The lowest finite value is the nil.
    EXPECT_EQ(read<dbl>("-1.7976931348623157e308"), std::nullopt);
    for (const char *bad : {"", ".", "1,5", "1.5 ", "1.5x", "e5", "--1", "+-1"})
        EXPECT_EQ(read<dbl>(bad), std::nullopt) << bad;
}

TEST(CellValues, Timestamps) {
    const auto micros = [](std::string_view cell) -> std::optional<lng> {
        const auto value = read<timestamp>(cell);
        return value ? std::optional<lng>(value->microseconds) : std::nullopt;
    };
    constexpr lng second = 1'000'000;
    EXPECT_EQ(micros("1970-01-01"), 0);
    EXPECT_EQ(micros("1969-12-31 23:59:59.5"), -second / 2);
    EXPECT_EQ(micros("2000-02-29T12:34:56.000001Z"), 951827696 * second + 1);
    EXPECT_EQ(micros("2038-01-19 03:14"), 2147483640 * second);
    for (const char *bad :
         {"", "1970", "1970-1-1", "1970-13-01", "1999-02-29", "1970-01-01 24:00", "1970-01-01 1:00",
          "1970-01-01 00:60", "1970-01-01 00:00:60", "1970-01-01 00:00:00.1234567",
          "1970-01-01 00:00:00.", "1970-01-01x", "1970-01-01 "})
        EXPECT_EQ(micros(bad), std::nullopt) << bad;
}

TEST(CellValues, TruthValues) {
    for (const char *yes : {"1", "t", "TRUE", "True"})
        EXPECT_EQ(read<truth>(yes).value().value, 1) << yes;
    for (const char *no : {"0", "f", "false", "F"})
        EXPECT_EQ(read<truth>(no).value().value, 0) << no;
    for (const char *bad : {"", "2", "yes", "truetrue", "tru"})
        EXPECT_FALSE(read<truth>(bad).has_value()) << bad;
}

TEST(CellValues, NarrowestType) {
    EXPECT_EQ(narrowest_type("-2147483647"), column_type::int_);
    EXPECT_EQ(narrowest_type("-2147483648"), column_type::lng);
    EXPECT_EQ(narrowest_type("9223372036854775807"), column_type::lng);
    EXPECT_EQ(narrowest_type("9223372036854775808"), column_type::dbl);
    EXPECT_EQ(narrowest_type("1.0"), column_type::dbl);
    EXPECT_EQ(narrowest_type("1.0.0"), column_type::str);
    EXPECT_EQ(narrowest_type(""), column_type::str);
    EXPECT_EQ(narrowest_type("007"), column_type::int_);
}

// A number would merge 01234 with 1234 and 042.0 with 42.
TEST(CellValues, LeadingZerosAreKept) {
    for (const char *code :
         {"00", "01234", "-01", "+01", "007.5", "-00.5", "00.", "01e5", "0009223372036854775808"}) {
        EXPECT_EQ(inferred_type(code, true), column_type::str) << code;
        EXPECT_EQ(inferred_type(code, false), narrowest_type(code)) << code;
        EXPECT_NE(narrowest_type(code), column_type::str) << code;
    }
    for (const char *number : {"0", "-0", "+0", "0.5", "-0.5", "0.", ".05", "0e5", "1e05", "1e-05",
                               "-0.0e00", "100", "1.00", "nan", "-inf", "0x10", "0-1", "-", ""})
        EXPECT_EQ(inferred_type(number, true), narrowest_type(number)) << number;
}

} // namespace
} // namespace vask::runner
