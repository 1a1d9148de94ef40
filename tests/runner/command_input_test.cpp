// What the command reads: files, their forms, and words for missing values. The command as its
// users see it: output, messages, exit status.
#include "run_command.h"
#include "temporary_file.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(Command, FormatsAndInputs) {
    const std::string csv = "x,y,z\n1,0.5,NA\n2,0.25,\n";
    const std::string all = "sum(x),sum(y),sum(z)";
    EXPECT_EQ(vask({"-", "--agg", all}, csv).out,
              "sum(x)  sum(y)  sum(z)\n     3    0.75      NA\n");
    EXPECT_EQ(
        vask({"-", "--agg", "sum(x), sum( y )", "--agg", "SUM(z)", "--format", "csv"}, csv).out,
        "sum(x),sum( y ),SUM(z)\n3,0.75,\n");
    EXPECT_EQ(vask({"-", "--agg", all, "--format", "json"}, csv).out,
              "[{\"sum(x)\":3,\"sum(y)\":0.75,\"sum(z)\":null}]\n");
    const temporary_file tsv("a b\tc\n1\t2\n", ".tsv");
    EXPECT_EQ(vask({"--agg", "sum(\"a b\"),sum(c)", "--format", "csv", tsv.path()}).out,
              "\"sum(\"\"a b\"\")\",sum(c)\n1,2\n");
    EXPECT_EQ(vask({"-", "--sep", "tab", "--names", "p,q", "--agg", "sum(q)"}, "1\t2\n3\t4").out,
              "sum(q)\n     6\n");
    EXPECT_EQ(vask({"-", "--header", "--agg", "sum(2020)"}, "2019,2020\n3,4\n").out,
              "sum(2020)\n        4\n");
    EXPECT_EQ(vask({"-", "--na", "-99", "--types", "x:flt", "--agg", "min(x)"}, "x\n.1\n-99\n").out,
              "min(x)\n   0.1\n");
    EXPECT_EQ(vask({"-", "--agg", "sum(x)"}, "x\n").out, "sum(x)\n    NA\n");
    EXPECT_EQ(vask({"-", "--agg", "sum(x)"}, "a,x,a\n1,2,3\n").out, "sum(x)\n     2\n");
}

TEST(Command, NumbersInOtherSpellings) {
    const auto printed = [](std::vector<std::string> options, const std::string &csv) {
        options.insert(options.begin(), {"-", "-f", "csv", "--no-header"});
        const outcome told = vask(options, csv);
        EXPECT_EQ(told.err, "");
        return told.out;
    };
    const std::string german = "x;y\n1.234,5;1.000.000\n-12,25;7\n;12\n";
    EXPECT_EQ(
        printed({"-t", ";", "--decimal", ",", "--thousands", ".", "-a", "sum(x),sum(y)"}, german),
        "1222.25,1000019\n");
    EXPECT_EQ(
        printed({"--thousands", ",", "-a", "sum(x)"}, "x\n\"1,234.5\"\n\"12,345,678\"\n1e3\n"),
        "12347912.5\n");
    EXPECT_EQ(printed({"-t", ";", "--decimal", ",", "-w", "x > 1.25", "-a", "sum(x)"},
                      "x\n1,5\n2\n1,25\n"),
              "3.5\n");
    // Groups of other than three digits, and a point that is no mark, make a text.
    for (const std::string cell :
         {"1.23", "12.3456", "1234.567", ".123", "1..234", "1.234.", "1,2.345"})
        EXPECT_EQ(printed({"-t", ";", "--decimal", ",", "--thousands", ".", "-a", "mode(x)"},
                          "x\n" + cell + "\n" + cell + "\n"),
                  cell.find(',') == cell.npos ? cell + "\n" : "\"" + cell + "\"\n");
    EXPECT_EQ(printed({"-t", ";", "--decimal", ",", "-a", "mode(x)"}, "x\n1.5\n1.5\n"), "1.5\n");
}

TEST(Command, LinesThatAreNoRecords) {
    const auto sum = [](std::vector<std::string> options, const std::string &csv) {
        options.insert(options.begin(), {"-", "-f", "csv", "--no-header", "-a", "count(*),sum(x)"});
        const outcome told = vask(options, csv);
        return told.out + told.err;
    };
    const std::string commented = "# a \"file\nx,y\n1,\"q\n#no comment\"\n#2,3\n4,5\n";
    EXPECT_EQ(sum({"--comment", "#"}, commented), "2,5\n");
    EXPECT_EQ(sum({"--skip", "2"}, "an \"export\nof today\nx,y\n1,2\n"), "1,1\n");
    EXPECT_EQ(sum({"--skip", "2"}, "an\nexport\nx,y\n1,2\n3\n"),
              "vask: standard input:5: 1 field where the header has 2; complete the line (an empty "
              "field stands for a missing value), or give --ragged fill to have it completed, "
              "--ragged skip to leave it out\n");
    EXPECT_EQ(sum({"--skip", "9"}, "x\n1\n").substr(0, 5), "vask:");
    EXPECT_EQ(sum({"--skip", "0"}, "x\n1\n"), "1,1\n");
    EXPECT_EQ(sum({"--sep", "blanks"}, "  x \t y\n 1   2\n3\t\"a  b\" \r\n\n  10 z"), "3,14\n");
    EXPECT_EQ(sum({"--sep", "blanks", "-w", "y = 'a  b'"}, "x y\n1   2\n3\t\"a  b\"\n"), "1,3\n");
    const std::string ragged = "x,y\n1,2\n3\n4,5,6\ntotal\n7,8\n";
    EXPECT_EQ(sum({"--ragged", "skip"}, ragged), "2,8\n");
    EXPECT_EQ(sum({"--ragged", "skip", "-w", "y > 2"}, ragged), "1,7\n");
    EXPECT_EQ(sum({"--ragged", "fill"}, "x,y\n1,2\n3\n\"7\",8\n"), "3,11\n");
    EXPECT_EQ(sum({"--ragged", "fill", "-w", "y is missing"}, "x,y\n1,2\n3\n7,8\n"), "1,3\n");
    EXPECT_TRUE(holds(sum({"--ragged", "fill"}, ragged), ":4: 3 fields where the header has 2"));
}

TEST(Command, WhatCellsMayBe) {
    const auto told = [](const std::string &csv, const std::string &types = "x:dbl") {
        return vask({"-", "-t", ";", "--types", types, "-a", "sum(x)"}, csv).err;
    };
    for (const auto &[cell, hint] : std::vector<std::pair<std::string, std::string>>{
             {"12,50", "--decimal , reads it"},
             {"1,234.50", "--thousands , reads it"},
             {"1.234,50", "--decimal , --thousands . reads it"},
             {"1,234", "--thousands , reads, or with a decimal comma, which --decimal , reads"},
             {"1 234", "--thousands \" \" reads it"},
             {"1'234,5", "--decimal , --thousands \"'\" reads it"},
             {"12%", "a percentage"},
             {"$ 5", "an amount of money"},
             {"-5.20 €", "an amount of money"},
             {"0x1F", "a hexadecimal number"},
             {"x", "the header stands there once more"}}) {
        EXPECT_TRUE(holds(told("x\n1\n" + cell + "\n"), hint)) << told("x\n1\n" + cell + "\n");
        const std::string inferred =
            vask({"-", "-t", ";", "-a", "sum(x)"}, "x\n" + cell + "\n").err;
        EXPECT_TRUE(holds(inferred, hint)) << inferred;
    }
    for (const std::string cell : {"abc", "1.2.3", "12,34,56", "0x", "%", "$", "a%"})
        EXPECT_FALSE(holds(told("x\n1\n" + cell + "\n"), "looks like")) << cell;
    const auto about = [](const std::string &csv) { return vask({"-", "-a", "sum(x)"}, csv).err; };
    EXPECT_TRUE(holds(about("x,y\n1,\"a \\\"b\\\" c\"\n"), "a quote behind a backslash"));
    EXPECT_TRUE(holds(about("x,y\n1,2,\n"), "the line ends with ','"));
    EXPECT_TRUE(holds(about("x,y,\n1,2\n"), "the header ends with ','"));
}

TEST(Command, StandardInputWhenNoFileIsNamed) {
    EXPECT_EQ(vask({"-a", "sum(x)", "-t", ";", "-f", "csv"}, "x;y\n1;2\n3;4\n").out, "sum(x)\n4\n");
    EXPECT_EQ(vask({"--agg", "sum(2020)", "--header"}, "place,2020\nOslo,1\n").out,
              "sum(2020)\n        1\n");
}

TEST(Command, MissingWords) {
    const std::string csv = "x\n1\nnull\n N/A\n\" \"\n\"a,b\"\n\"\"\n";
    const auto missing = [&](const std::string &list) {
        return vask({"-", "--na", list, "--format", "csv", "--agg", "count(x),count(*)"}, csv).out;
    };
    EXPECT_EQ(missing("null, N/A"), "count(x),count(*)\n4,6\n");
    EXPECT_EQ(missing(" "), "count(x),count(*)\n5,6\n");
    EXPECT_EQ(missing(R"(" ", "a,b", null ,N/A)"), "count(x),count(*)\n2,6\n");
    EXPECT_EQ(missing(R"(" ","a,b",null,N/A,)"), "count(x),count(*)\n1,6\n");
}

// As numbers, the codes would be merged and printed without their zeros. The one that makes them
// text may stand anywhere, here far behind what the first guess at the type is made from.
TEST(Command, CodesWithLeadingZeros) {
    std::string csv = "zip,hour,x\n";
    for (int i = 0; i < 10'000; ++i)
        csv += "1234,1,0.5\n";
    csv += "01234,08,1e05\n";
    EXPECT_EQ(
        vask({"-", "--format", "csv", "--group-by", "zip", "--agg", "sum(x),count_distinct(hour)"},
             csv)
            .out,
        "zip,sum(x),count_distinct(hour)\n1234,5000,1\n01234,100000,1\n");
    EXPECT_EQ(vask({"-", "--format", "csv", "--group-by", "zip", "--types", "zip:int,hour:bte",
                    "--agg", "max(hour)"},
                   csv)
                  .out,
              "zip,max(hour)\n1234,8\n");
    for (const auto &[asked, told] : std::vector<std::pair<std::string, std::string>>{
             {"sum(hour)", "'08' on line 10002 has a leading zero, so the column was read as text: "
                           "if it holds numbers, give --types 'hour:int'"},
             {"median(zip)", "give --types 'zip:int'"}}) {
        const outcome refused = vask({"-", "--agg", asked}, csv);
        EXPECT_EQ(refused.status, 2);
        EXPECT_TRUE(holds(refused.err, told)) << refused.err;
    }
    const outcome decimal = vask({"-", "--agg", "median(x)"}, "x\n07\nNA\n1.5\n");
    EXPECT_TRUE(holds(decimal.err, "'07' on line 2")) << decimal.err;
    EXPECT_TRUE(holds(decimal.err, "'x:dbl'")) << decimal.err;
    const outcome text = vask({"-", "--agg", "median(x)"}, "x\n07\nNA\nn/a\n");
    EXPECT_TRUE(holds(text.err, "no number or date is 'n/a', on line 4")) << text.err;
}

} // namespace
