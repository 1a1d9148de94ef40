// What the command prints: order, notes, help. The command as its users see it: output, messages,
// exit status.
#include "run_command.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(Command, OrderAndLimitOfRows) {
    const std::string csv = "g,x\nb,2\na,\nc,nan\nd,7\ne,2\n";
    const auto rows = [&](std::vector<std::string> more) {
        more.insert(more.end(),
                    {"-", "--na", "", "-g", "g", "-a", "sum(x)", "-f", "csv", "--no-header"});
        const outcome told = vask(more, csv);
        return told.err + told.out;
    };
    EXPECT_EQ(rows({"--order-by", "sum(x)"}), "b,2\ne,2\nd,7\nc,nan\na,\n");
    EXPECT_EQ(rows({"--order-by", "sum(x)", "--desc"}), "d,7\nb,2\ne,2\nc,nan\na,\n");
    EXPECT_EQ(rows({"--top", "2"}), "d,7\nb,2\n");
    EXPECT_EQ(rows({"--order-by", "g", "--desc", "--limit", "1"}), "e,2\n");
    EXPECT_EQ(rows({"-s", "--limit", "2"}), "a,\nb,2\n");
    EXPECT_EQ(rows({"--limit", "0"}), "");
    EXPECT_EQ(rows({"--limit", "9", "--desc"}), "e,2\nd,7\nc,nan\na,\nb,2\n");
}

TEST(Command, NotesOnStandardError) {
    const std::string csv = "k,x\n1.10,1\n2,\n2,4\n";
    const outcome noted = vask({"-", "-g", "k", "-a", "median(x),mode(x)", "-f", "csv"}, csv);
    EXPECT_EQ(noted.status, 0);
    EXPECT_EQ(noted.out, "k,median(x),mode(x)\n1.1,1,\n2,4,\n");
    EXPECT_TRUE(holds(noted.err, "column 2 (x) has 1 missing value in 3 rows")) << noted.err;
    EXPECT_EQ(noted.err.find("missing value"), noted.err.rfind("missing value")) << noted.err;
    EXPECT_TRUE(holds(noted.err, "column 1 (k): '1.10'")) << noted.err;
    EXPECT_EQ(
        vask({"-", "-g", "k", "-a", "median(x)", "--drop-na", "--types", "k:str", "-f", "csv"}, csv)
            .err,
        "");
    EXPECT_EQ(vask({"-", "-g", "k", "-a", "sum(x)"}, "k,x\n0.5,1\n-2.25,1\n1e+20,2\n").err, "");
}

TEST(Command, WhatIsAskedForTwiceIsPrintedOnce) {
    for (const char *format : {"csv", "json"}) {
        const outcome once =
            vask({"-", "--format", format, "--agg", "sum(x)", "--group-by", "g"}, "g,x\n1,2\n");
        const outcome twice = vask(
            {"-", "--format", format, "--agg", "sum(x),sum(x)", "--group-by", "g,g"}, "g,x\n1,2\n");
        EXPECT_EQ(twice.status, 0) << twice.err;
        EXPECT_EQ(once.out, twice.out);
    }
}

TEST(Command, ReadsItsOwnOutputBack) {
    const std::string csv =
        "g,count(*)\n\"\tx\",1\n\"x\t\",1\n\" x\",1\nx,1\n\"x \",1\n"
        "\"x\ry\",1\n\"x\ny\",1\n\"x\r\ny\",1\n\"x\r\",1\n\"x,y\",1\n\"x\"\"y\",1\n";
    EXPECT_EQ(vask({"-", "--format", "csv", "--agg", "count(*)", "--group-by", "g"}, csv).out, csv);
}

TEST(Command, ExplainNamesCallsOnStandardError) {
    std::string csv = "x,y,w\n";
    for (int i = 0; i < 100'000; ++i)
        csv += "1,2.5,t\n";
    const outcome told = vask({"-", "--agg", "sum(y)", "--explain", "--threads", "2"}, csv);
    EXPECT_EQ(told.out, "sum(y)\n250000\n");
    EXPECT_TRUE(holds(told.err, "loaded 100000 rows")) << told.err;
    EXPECT_TRUE(holds(told.err, "  y: dbl, 0 missing\n")) << told.err;
    EXPECT_FALSE(holds(told.err, "  x: ")) << told.err; // not needed, so not loaded
    EXPECT_TRUE(holds(told.err, "vask_sum_dbl(y): 100000 rows, 2 partitions, ")) << told.err;
    const outcome more = vask(
        {"-", "--agg", "sum(x),mean(x),count_distinct(y),median(x)", "--explain", "--threads", "2"},
        csv);
    EXPECT_TRUE(holds(
        more.err, "AggrX3_countDistinct(y): 100000 rows, serial path: few values in a sample, "))
        << more.err;
    EXPECT_TRUE(holds(more.err, "vask_median(x): 100000 rows, 1 range, ")) << more.err;
    const auto expect_once = [](const outcome &in, const std::string &call) {
        const std::size_t first = in.err.find(call);
        ASSERT_NE(first, std::string::npos) << in.err;
        EXPECT_EQ(in.err.find(call, first + 1), std::string::npos) << in.err;
    };
    expect_once(more, "vask_sum_int(x)");
    // Statistics of the same columns are made of one pass.
    const outcome distances =
        vask({"-", "--agg", "variance(x),stdevp(x),skews(x),covars(x,y),correl(x,y),intercept(x,y)",
              "--explain"},
             csv);
    expect_once(distances, "\nmoments(x): ");
    expect_once(distances, "\npair sums(x, y): ");
}

TEST(Command, HelpAndVersion) {
    const outcome help = vask({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(holds(help.out, "Examples:")) << help.out;
    EXPECT_EQ(help.err, "");
    const outcome version = vask({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_TRUE(version.out.starts_with("vask ")) << version.out;
}

} // namespace
