// Columns that --let defines, as users of the command see them.
#include "run_command.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

const std::string rows = "id,city,price,qty,day,flag,zip,net price\n"
                         "1,Oslo,2.5,4,2024-02-29 23:59:58.5,true,0123,8\n"
                         "2,Bergen,-10,-3,1969-12-31,false,0500,1\n"
                         "3,NA,7,0,NA,t,0123,NA\n"
                         "4,,NA,2,2021-01-03T00:00:00,NA,NA,0\n";

// The defined column row by row, or the message.
std::string defined(const std::string &definition, std::vector<std::string> more = {}) {
    more.insert(more.end(), {"-", "--let", definition, "-a", "first(x)", "-g", "id", "-f", "csv",
                             "--no-header", "--na", ",NA", "--types", "day:timestamp,flag:bit"});
    const outcome told = vask(more, rows);
    if (told.status != 0)
        return told.err;
    std::string values = told.err;
    for (std::size_t line = 0; line < told.out.size();) {
        const std::size_t end = told.out.find('\n', line);
        const std::size_t begin = told.out.find(',', line) + 1;
        if (!values.empty())
            values += '|';
        values += told.out.substr(begin, end - begin);
        line = end + 1;
    }
    return values;
}

TEST(DerivedColumns, Values) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"x = price * qty", "10|30|0|"},
        {"x = 2 + qty * 3 - 1", "13|-8|1|7"},
        {"x = -(qty - 1) * -2", "6|-8|-2|2"},
        {"x=qty-1", "3|-4|-1|1"},
        {"x = 7 % 3 + qty % 3", "2|1|1|3"},
        {"x = -7 % 3", "-1|-1|-1|-1"},
        {"x = price % 3", "2.5|-1|1|"},
        {"x = qty / 8", "0.5|-0.375|0|0.25"},
        {"x = 9007199254740993 + qty", "9007199254740997|9007199254740990|9007199254740993|"
                                       "9007199254740995"},
        {"x = 1e3 + .5", "1000.5|1000.5|1000.5|1000.5"},
        {"x = `net price` + #4", "12|-2||2"},
        {"x = abs(price) + ABS(qty)", "6.5|13|7|"},
        {"x = floor(price) * 10 + ceil(price)", "23|-110|77|"},
        {"x = round(price)", "3|-10|7|"},
        {"x = round(price / 3, 2)", "0.83|-3.33|2.33|"},
        {"x = round(1234.5 + qty, -2)", "1200|1200|1200|1200"},
        {"x = log2(8) + log10(100) + sqrt(16) + pow(2, 3) + ln(exp(1)) + log(1)", "18|18|18|18"},
        // Parts of times before 1970 and at a leap day.
        {"x = year(day)*10000 + month(day)*100 + day(day)", "20240229|19691231||20210103"},
        {"x = weekday(day)", "4|3||7"},
        {"x = quarter(day)", "1|4||1"},
        {"x = hour(day) * 10000 + minute(day) * 100 + second(day)", "235958|0||0"},
        {"x = date_trunc('year', day)", "2024-01-01|1969-01-01||"
                                        "2021-01-01"},
        {"x = date_trunc('quarter', day)", "2024-01-01|1969-10-01||"
                                           "2021-01-01"},
        {"x = DATE_TRUNC('Month', day)", "2024-02-01|1969-12-01||"
                                         "2021-01-01"},
        {"x = date_trunc('week', day)", "2024-02-26|1969-12-29||"
                                        "2020-12-28"},
        {"x = date_trunc('day', day)", "2024-02-29|1969-12-31||"
                                       "2021-01-03"},
        {"x = date_trunc('hour', day)", "2024-02-29 23:00:00|1969-12-31 00:00:00||"
                                        "2021-01-03 00:00:00"},
        {"x = date_trunc('minute', day)", "2024-02-29 23:59:00|1969-12-31 00:00:00||"
                                          "2021-01-03 00:00:00"},
        {"x = date_trunc('second', day)", "2024-02-29 23:59:58|1969-12-31 00:00:00||"
                                          "2021-01-03 00:00:00"},
        {"x = day - '2024-02-29'", "86398.5|-1709251200||-99532800"},
        // Conditions have a third answer where something is missing.
        {"x = price > 2 and qty >= 0", "true|false|true|"},
        {"x = price > 2 or qty > 1", "true|false|true|true"},
        {"x = not flag", "false|true|false|"},
        {"x = city in ('Oslo', '') or city is missing", "true|false|true|true"},
        {"x = zip starts with '01'", "true|false|true|"},
        {"x = day between '1969-01-01' and '2021-01-03'", "false|true||true"},
        {"x = (price > 0) = flag", "true|true|true|"},
        // One uses another; what is not used is not worked out.
        {"y = price * qty, x = y + 1", "11|31|1|"},
        {"unused = city + 1, x = qty", "4|-3|0|2"},
        {"x = zip", "0123|0500|0123|"},
    };
    for (const auto &[definition, values] : cases)
        EXPECT_EQ(defined(definition), values) << definition;
}

TEST(DerivedColumns, WhatHasNoResultIsMissingAndTold) {
    const auto note = [](const std::string &rows_told) {
        return "vask: note: --let: x is missing in " + rows_told +
               " for which there is no number, as in a division by zero\n|";
    };
    EXPECT_EQ(defined("x = 1 / qty"), note("1 row") + "0.25|-0.3333333333333333||0.5");
    EXPECT_EQ(defined("x = 5 % qty"), note("1 row") + "1|2||1");
    EXPECT_EQ(defined("x = log(qty)"), note("2 rows") + "1.3862943611198906|||0.6931471805599453");
    EXPECT_EQ(defined("x = sqrt(qty)"), note("1 row") + "2||0|1.4142135623730951");
    // Nobody asks what a condition before leaves open.
    EXPECT_EQ(defined("x = qty != 0 and 12 / qty > 2"), "true|false|false|true");
}

TEST(DerivedColumns, KeysValuesAndConditions) {
    const auto csv = [](std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"-", "-f", "csv", "--na", ",NA"});
        const outcome told = vask(arguments, rows);
        return told.err + told.out;
    };
    EXPECT_EQ(csv({"--let", "big = qty > 0", "--let", "r = price * qty", "-g", "big", "-s", "-a",
                   "sum(r), count(*), mean(big)"}),
              "big,sum(r),count(*),mean(big)\nfalse,30,2,0\ntrue,10,2,1\n");
    EXPECT_EQ(csv({"--let", "r = price * qty", "-w", "r > 0 and `net price` < 8", "-a",
                   "sum(r),sum(#8)"}),
              "sum(r),sum(#8)\n30,1\n");
    EXPECT_EQ(csv({"-w", "hour(day) = 23 or weekday(day) = 7", "-a", "sum(id)"}), "sum(id)\n5\n");
    EXPECT_EQ(csv({"-w", "flag", "-a", "sum(id)"}), "sum(id)\n4\n");
    const temporary_file known("city\nOslo\n");
    EXPECT_EQ(csv({"--contained-in", known.path() + ":city", "--let", "here = contained * qty",
                   "-a", "sum(here)"}),
              "sum(here)\n4\n");
}

// Blocks and threads have no say.
TEST(DerivedColumns, ManyRows) {
    std::string many = "a,b,k,sum,share\n";
    std::uint32_t state = 1;
    const auto number = [&state] { return static_cast<int>((state = state * 69069 + 1) >> 18); };
    for (int i = 0; i < 200'000; ++i) {
        const int a = number();
        const int b = number() + 1;
        const bool missing = i % 7 == 3;
        many += (missing ? "" : std::to_string(a)) + "," + std::to_string(b) + "," +
                std::to_string(i % 5) + "," + (missing ? "" : std::to_string(3 * a - b)) + "," +
                (missing ? "" : std::to_string(a % b)) + "\n";
    }
    const auto told = [&](const std::string &sum, const std::string &share,
                          const std::string &threads) {
        return vask({"-", "--let", "x = 3 * a - b, y = a % b", "-g", "k", "-f", "csv",
                     "--no-header", "--threads", threads, "-a",
                     "sum(" + sum + "),min(" + sum + "),count(" + sum + "),sum(" + share +
                         "),max(" + share + "),count_distinct(" + share + ")"},
                    many)
            .out;
    };
    const std::string expected = told("sum", "share", "1");
    EXPECT_EQ(told("x", "y", "1"), expected);
    EXPECT_EQ(told("x", "y", "3"), expected);
}

TEST(DerivedColumns, Mistakes) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"x", "expected '=' behind the name at character 2:\n  x\n   ^"},
        {"= 5", "expected a name and what it stands for"},
        {"x = prize + 1", "no column 'prize'; did you mean price?: it stands at character 5"},
        {"x = city * 2", "the column city is a text; --types reads it as another type, at "
                         "character 10:\n  x = city * 2\n           ^"},
        {"x = 'a' + 1", "this wants a number, and 'a' is a text"},
        {"x = flag + 1", "the column flag is a truth value"},
        {"x = price and flag", "this joins conditions, and the column price is a number"},
        {"x = price = 'a'", "the column price is a number, and 'a' is a text, which do not"},
        {"x = price contains 'a'", "a text is wanted before this"},
        {"x = day > 'soon'", "'soon' is a text, and the column day is a date or time, which"},
        {"x = year(price)", "this wants a date or time"},
        {"x = year(city)", "'Oslo' is no date or time, but is used as one"},
        {"x = yeer(day)", "no function 'yeer' (did you mean year?)"},
        {"x = date_trunc('weekday', day)", "expected 'year'"},
        {"x = date_trunc(month, day)", "as in date_trunc('month', x), at character 16"},
        {"x = abs(qty, 2)", "expected ')' as abs takes one value"},
        {"x = pow(qty)", "expected ',' and the exponent"},
        {"x = (qty", "expected ')' at character 9"},
        {"x = qty +", "expected a column or a value at character 10"},
        {"x = qty 2", "or an operator"},
        {"x = #9", "there is no column #9; they are #1 to #8"},
        {"x = 'text'", "a text alone makes no column"},
        {"qty = 1", "there is a column 'qty' already"},
        {"x = 1, x = 2", "there is a column 'x' already"},
        {"x = 9223372036854775807 + qty", "leaves 64 bits"},
        {"x = -9223372036854775807 - qty + 3", "leaves 64 bits"},
        {"x = 4611686018427387904 * 2 * qty", "leaves 64 bits"},
        // The place is counted as a terminal shows it.
        {"å = 1, x = å + qty + city", "at character 20:\n  å = 1, x = å + qty + city\n"
                                      "                     ^"},
        {"x = " + std::string(300, '(') + "1", "nested too deeply"},
    };
    for (const auto &[definition, part] : cases)
        EXPECT_NE(defined(definition).find(part), std::string::npos) << definition << "\n"
                                                                     << defined(definition);
    for (const auto &[condition, part] : std::vector<std::pair<std::string, std::string>>{
             {"price + 1", "a condition is wanted, and this is a number, at character 7"},
             {"1 = 1", "this condition is about no column"},
             {"qty * 9223372036854775807 > 1", ":2: --where: column 4 (qty): with '4', a whole"},
             {"year(city) = 2020", "'Oslo' is no date or time"},
             {"city", "'Oslo' is no truth value"}}) {
        const outcome told = vask({"-", "-w", condition, "-a", "count(*)"}, rows);
        EXPECT_EQ(told.status, 2);
        EXPECT_NE(told.err.find(part), std::string::npos) << told.err;
    }
}

} // namespace
