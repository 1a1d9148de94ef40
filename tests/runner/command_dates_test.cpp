// Dates and timestamps. The command as its users see it: output, messages, exit status.
#include "run_command.h"

#include <array>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// What is printed of a column t, without title; notes behind it.
std::string asked(std::vector<std::string> options, const std::string &cells) {
    options.insert(options.begin(), {"-", "-f", "csv", "--no-header", "-t", ";"});
    const outcome told = vask(options, "t\n" + cells);
    return told.out + told.err;
}
std::string type_of(const std::string &cells, std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"schema", "-", "-f", "csv", "--no-header", "-t", ";"});
    const std::string line = vask(options, "t\n" + cells).out;
    const std::size_t begin = line.find(",t,") + 3;
    return line.substr(begin, line.find(',', begin) - begin);
}

TEST(CommandDates, TypesOfColumns) {
    for (const std::string cells :
         {"2024-02-29\n", "NA\n2023-12-31\nNA\n", "0000-01-01\n9999-12-31\n", "\"2024-01-01\"\n"})
        EXPECT_EQ(type_of(cells), "date") << cells;
    for (const std::string cells :
         {"2024-02-29 10:00\n", "2024-02-29T23:59:59.123456Z\n", "2024-02-29T10:00+01:00\n",
          "2024-02-29 10:00:00-0330\n2024-02-29 10:00:00+00\n",
          "NA\n2024-01-01\n2024-01-02 00:00\n", "2024-01-02 00:00\n2024-01-01\n",
          "2024-01-01T00:00:00.123456000\n"})
        EXPECT_EQ(type_of(cells), "timestamp") << cells;
    // What is no date, and dates beside other things.
    for (const std::string cells :
         {"2023-02-29\n", "2024-01-01 24:00\n", "2024-01-01T10\n", "10000-01-01\n", "2024-1-1\n",
          "2024-01-01 10:00:60\n", "2024-01-01T10:00+1\n", "2024-01-01T10:00+01:60\n",
          "2024-01-01T10:00:00.\n", "2024-01-01 10:00:00.1234567\n", "2024-01-01Z\n",
          "2024-13-01\n", "2024-01-01\nlater\n", "2024-01-01\n7\n", "7\n2024-01-01\n",
          "7.5\nNA\n2024-01-01 10:00\n", "01\n2024-01-01\n", "2024-01-01\n2024-01-01 10:00\n2\n",
          "31.12.2024\n"})
        EXPECT_EQ(type_of(cells), "str") << cells;
    EXPECT_EQ(type_of("1\nNA\n"), "int");
    EXPECT_EQ(type_of("NA\n"), "int");
}

// Of a large file only a sample is looked at first.
TEST(CommandDates, OneLateCell) {
    const auto days = [](const std::string &first, const std::string &last) {
        std::string cells = first;
        for (int i = 0; i < 500'000; ++i)
            cells += "2024-01-" + std::to_string(10 + i % 20) + "\n";
        return cells + last;
    };
    const std::vector<std::string> ask{"-g", "t", "-a", "count(*)", "-s", "--threads", "2"};
    const std::string dates = asked(ask, days("", "2023-12-31\n"));
    EXPECT_TRUE(dates.starts_with("2023-12-31,1\n2024-01-10,25000\n")) << dates;
    const std::string texts = asked(ask, days("", "later\n"));
    EXPECT_TRUE(texts.starts_with("2024-01-10,25000\n")) << texts;
    EXPECT_TRUE(texts.ends_with("2024-01-29,25000\nlater,1\n")) << texts;
    EXPECT_EQ(type_of(days("", "7\n")), "str");
    EXPECT_EQ(type_of(days("", "2024-01-01 10:00\n")), "timestamp");
    // Long without a value, and the first ones that there are no dates, or all of them.
    std::string missing;
    for (int i = 0; i < 3'000'000; ++i)
        missing += "NA\n";
    EXPECT_EQ(type_of(missing + "2024-01-01\n" + missing), "date");
    EXPECT_EQ(type_of(missing + "2024-01-01\n" + missing + "5\n"), "str");
    EXPECT_EQ(type_of(missing + "0.5\n" + missing + "5\n"), "dbl");
}

// Keys are printed as they stand in the file, or a note tells that they are not.
TEST(CommandDates, KeysPrintBack) {
    const std::vector<std::string> ask{"-g", "t", "-a", "count(*)"};
    for (const std::string one :
         {"2024-02-29", "2024-02-29 10:00", "2024-02-29T10:00:00", "2024-02-29 00:00:00",
          "2024-02-29T10:00:00Z", "2024-02-29 10:00:00.120", "2024-02-29T10:00:00.000000000Z"})
        EXPECT_EQ(asked(ask, one + "\n" + one + "\n"), one + ",2\n");
    for (const std::string one : {"2024-02-29T01:30+02:00", "2024-02-29 20:00:00-0500",
                                  "2024-02-29 20:00:00.5+03", "2024-02-29 20:00:00-00:00"}) {
        const std::string told = asked(ask, one + "\n" + one + "\n");
        EXPECT_TRUE(told.starts_with(one + ",2\n")) << told;
        EXPECT_EQ(holds(told, "have an offset from UTC"), one.find("-00:00") == one.npos) << told;
        EXPECT_FALSE(holds(told, "another spelling")) << told;
    }
    const std::string note = "another spelling; --types 't:str' keeps each as it is";
    const auto noted = [&](const std::string &cells, const std::string &printed) {
        const std::string told = asked(ask, cells);
        EXPECT_TRUE(told.starts_with(printed)) << told;
        EXPECT_TRUE(holds(told, note)) << told;
    };
    noted("2024-02-29\n2024-02-29 10:00\n", "2024-02-29 00:00:00,1\n2024-02-29 10:00:00,1\n");
    noted("2024-02-29T10:00:00Z\n2024-02-29 10:00:00\n", "2024-02-29 10:00:00,2\n");
    noted("2024-02-29T01:00+01:00\n2024-02-29T02:00+02:00\n", "2024-02-29,2\n");
    EXPECT_TRUE(holds(asked(ask, "2024-02-29T10:00Z\n2024-02-29T10:00\n"), "taken as UTC, too"));
    EXPECT_EQ(
        asked({"-g", "t", "-a", "count(*)", "--types", "t:str"}, "2024-02-29T10:00Z\n2024-02-29\n"),
        "2024-02-29T10:00Z,1\n2024-02-29,1\n");
    // In the order of times, and with the key once more beside it.
    EXPECT_EQ(
        asked({"-g", "t", "-a", "max(t)", "-s", "--desc"}, "2024-02-29T10:00\n2023-01-01T09:00\n"),
        "2024-02-29T10:00,2024-02-29 10:00:00\n2023-01-01T09:00,2023-01-01 09:00:00\n");
}

TEST(CommandDates, InOtherFormats) {
    const auto in = [](const std::string &format, std::vector<std::string> options,
                       const std::string &cells) {
        options.insert(options.end(), {"--date-format", format});
        return asked(options, cells);
    };
    const std::vector<std::string> ask{"-g", "t", "-a", "count(*)", "-s"};
    for (const auto &[format, first, second] : std::vector<std::array<std::string, 3>>{
             {"DD.MM.YYYY", "31.12.2023", "01.02.2024"},
             {"D.M.YYYY", "31.12.2023", "1.2.2024"},
             {"MM/DD/YYYY", "12/31/2023", "02/01/2024"},
             {"yyyy/mm/dd", "2023/12/31", "2024/02/01"},
             {"%d.%m.%Y", "31.12.2023", "01.02.2024"},
             {"%d-%b-%y", "31-Dec-23", "01-Feb-24"},
             {"DD.MM.YYYY HH:MM", "31.12.2023 12:30", "01.02.2024 00:00"},
             {"DD.MM.YY", "31.12.99", "01.01.00"},
             {"DD.MM.YYYY", "2023-12-31", "2024-02-01"}}) {
        EXPECT_EQ(in(format, ask, second + "\n" + first + "\n"), first + ",1\n" + second + ",1\n");
        EXPECT_TRUE(type_of(first + "\n", {"--date-format", format}) != "str");
    }
    EXPECT_EQ(in("D.M.YYYY", {"-a", "min(t),max(t)"}, "31.12.2023\n1.2.2024\n"),
              "2023-12-31,2024-02-01\n");
    EXPECT_EQ(in("DD.MM.YYYY", {"-a", "count(*)", "-w", "t >= '01.02.2024' and t < '2024-03-01'"},
                 "31.12.2023\n01.02.2024\n29.02.2024\n01.03.2024\nNA\n"),
              "2\n");
    EXPECT_EQ(in("DD.MM.YYYY",
                 {"-g", "m", "-a", "count(*)", "--let", "m = month(t), late = t > '31.01.2024'",
                  "-w", "late"},
                 "01.02.2024\n29.02.2024\n01.01.2024\n"),
              "2,2\n");
    EXPECT_TRUE(holds(in("D.M.YYYY", ask, "01.02.2024\n"), "another spelling"));
    EXPECT_EQ(in("DD.MM.YYYY", ask, "30.02.2024\n"), "30.02.2024,1\n");
    // A format that ISO's dates fit goes before it.
    EXPECT_EQ(in("YYYY-DD-MM", {"-a", "min(t),max(t)"}, "2024-05-01\n2024-13-01\n"),
              "2024-01-05,2024-01-13\n");
    EXPECT_EQ(in("YYYY-DD-MM", ask, "2024-05-01\n2024-01-13\n"), "2024-01-13,1\n2024-05-01,1\n");
    // Numbers stay numbers, unless dates are asked for.
    EXPECT_EQ(type_of("20240131\n", {"--date-format", "YYYYMMDD"}), "int");
    EXPECT_EQ(in("YYYYMMDD", {"-a", "max(t)", "--types", "t:date"}, "20240131\n"), "2024-01-31\n");
    EXPECT_EQ(
        in("DD.MM.YYYY", {"--decimal", ",", "--thousands", ".", "-a", "max(t)"}, "31.12.2024\n"),
        "2024-12-31\n");
}

TEST(CommandDates, InExpressionsAndAggregates) {
    const std::string days = "2024-02-28\n2024-03-01\nNA\n2024-02-29\n";
    EXPECT_EQ(
        asked({"-a", "min(t),max(t),median(t),count_distinct(t),range(t)"}, days).substr(0, 45),
        "2024-02-28,2024-03-01,2024-02-29,3,172800\n" + std::string("vas"));
    EXPECT_EQ(asked({"-a", "count(*)", "-w", "t between '2024-02-29' and '2024-12-31'"}, days),
              "2\n");
    EXPECT_EQ(asked({"-a", "count(*)", "-w", "t like '2024-02-%'"}, days), "2\n");
    EXPECT_EQ(asked({"-g", "p", "-a", "count(t)", "--let", "p = date_trunc('month', t)"}, days),
              "2024-02-01,2\n2024-03-01,1\n,0\n");
    EXPECT_EQ(asked({"-g", "y,m,d,w,h", "-a", "count(*)", "--let",
                     "y = year(t), m = month(t), d = day(t), w = weekday(t), h = hour(t)"},
                    "2024-02-29T23:30-02:00\n")
                  .substr(0, 14),
              "2024,3,1,5,1,1");
    EXPECT_EQ(asked({"-a", "count(*)", "-w", "t = '2024-03-01T01:30'"}, "2024-02-29T23:30-02:00\n"),
              "1\n");
    EXPECT_EQ(
        asked({"-g", "w", "-a", "count(*)", "--let", "w = date_trunc('week', t)"}, "0000-01-01\n"),
        "-0001-12-27,1\n");
    EXPECT_TRUE(holds(asked({"-g", "w", "-a", "count(*)", "--let", "w = t > '2024'"}, days),
                      "a date is written as 2024-01-31 is"));
    const outcome told = vask({"summary", "-", "-f", "csv", "--no-header"}, "t\n" + days);
    EXPECT_TRUE(told.out.starts_with("t,date,1,3,2024-02-28,")) << told.out;
}

} // namespace
