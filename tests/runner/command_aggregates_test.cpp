// Aggregates of columns of all types. The command as its users see it: output, messages, exit
// status.
#include "run_command.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(Command, UsualNames) {
    const std::string csv = "x,y\n1,2\n2,4\n4,9\n";
    EXPECT_EQ(vask({"-", "-f", "csv", "--no-header", "-a",
                    "p50(x),p12.5(x),avg(x),n(x),nunique(x),quantile(x,0.5)"},
                   csv)
                  .out,
              "2,1.25,2.3333333333333335,3,3,2\n");
    for (const auto &[usual, own] :
         {std::pair{"sd(x),std(y)", "stdev(x),stdev(y)"}, std::pair{"var(x)", "variance(x)"},
          std::pair{"cor(x,y),corr(x,y)", "correl(x,y),correl(y,x)"}})
        EXPECT_EQ(vask({"-", "-f", "csv", "--no-header", "-a", usual}, csv).out,
                  vask({"-", "-f", "csv", "--no-header", "-a", own}, csv).out);
    EXPECT_EQ(vask({"-", "-f", "csv", "--no-header", "--types", "x:float,y:string", "-a",
                    "max(x),max(y),sum(x)"},
                   csv)
                  .out,
              "4,9,7\n");
    EXPECT_EQ(
        vask({"-", "--types", "t:date,b:bool", "-f", "csv", "--no-header", "-a", "max(t),sum(b)"},
             "t,b\n2024-01-02,true\n2023-01-02,f\n")
            .out,
        "2024-01-02,1\n");
}

TEST(Command, SumsOfAllTypesAndThreads) {
    std::string csv = "x\n";
    for (int i = 0; i < 120'000; ++i)
        csv += i % 10 == 0 ? "\n" : std::to_string(i % 100) + "\n"; // blank lines are no rows
    for (const char *type : {"bte", "sht", "int", "lng", "flt", "dbl"})
        for (const char *threads : {"1", "2", "7"}) {
            const outcome sum = vask({"-", "--types", std::string("x:") + type, "--threads",
                                      threads, "--agg", "sum(x)", "--format", "csv"},
                                     csv);
            EXPECT_EQ(sum.out, "sum(x)\n5400000\n") << type << ", " << threads << " threads";
        }
}

TEST(Command, TextsTruthValuesAndTimesInAggregates) {
    const std::string csv = "g,text,flag,when\n"
                            "a,b,true,2020-01-01\na,,false,2020-01-03\nb,z\u00fc,,\n"
                            "a,b,true,2020-01-04\nb,zu,t,2021-01-01 00:00:00.5\n";
    const auto answer = [&](const std::string &aggregates) {
        const outcome told =
            vask({"-", "--types", "flag:bit,when:timestamp", "--na", "", "--drop-na", "--sort",
                  "--group-by", "g", "--format", "csv", "--agg", aggregates},
                 csv);
        return told.err + told.out.substr(told.out.find('\n') + 1);
    };
    EXPECT_EQ(answer("min(text),max(text),mode(text),largest(text,2)"),
              "a,b,b,b,b\nb,zu,z\u00fc,,zu\n");
    EXPECT_EQ(answer("first(text),last(text),any(when),count_nulls(text),count(text)"),
              "a,b,b,2020-01-01 00:00:00,1,2\nb,z\u00fc,zu,2021-01-01 00:00:00.5,0,2\n");
    EXPECT_EQ(answer("sum(flag),mean(flag),max(flag),count_distinct(flag)"),
              "a,2,0.6666666666666666,true,2\nb,1,1,true,1\n");
    EXPECT_EQ(answer("mean(when),range(when),iqr(when)"),
              "a,2020-01-02 16:00:00,259200,129600\nb,2021-01-01 00:00:00.5,0,0\n");
}

TEST(Command, StatisticsMadeOfOthers) {
    const std::string csv = "g,x,w\n1,1,1\n1,2,0\n1,3,3\n1,10,NA\n2,5,0\n";
    const outcome told =
        vask({"-", "--group-by", "g", "--format", "csv", "--agg",
              "range(x),iqr(x),mad(x),weighted_mean(x,w),quantile(x,0.25)", "--drop-na"},
             csv);
    EXPECT_EQ(told.out.substr(told.out.find('\n') + 1), "1,9,3,1,2.5,1.75\n2,0,0,0,,5\n");
}

// From 2^24 on the next flt is two away: added up in flt, the ones behind it are lost. The
// sum of two large ones is beyond flt, too.
TEST(Command, FltIsAddedUpAsDbl) {
    std::string values = "a,16777216\nb,NA\nc,nan\nd,2.5521177519070385e38\n";
    for (int i = 0; i < 1023; ++i)
        values += "a,1\n";
    values += "d,2.5521177519070385e38\nd,NA\n";
    const auto answer = [](std::vector<std::string> more, const std::string &rows) {
        more.insert(more.end(), {"-", "--names", "g,x", "--types", "x:flt", "--na", "NA"});
        more.insert(more.end(), {"--format", "csv", "--agg", "mean(x),sum(x),max(x)"});
        const outcome told = vask(more, rows);
        EXPECT_EQ(told.err, "");
        return told.out.substr(told.out.find('\n') + 1);
    };
    for (const char *threads : {"1", "3"}) {
        EXPECT_EQ(answer({"--threads", threads, "--group-by", "g"}, values),
                  "a,16384.9990234375,16778239,16777216\nb,,,\nc,nan,nan,nan\n"
                  "d,2.5521177519070385e+38,5.104235503814077e+38,2.5521178e+38\n");
        EXPECT_EQ(answer({"--threads", threads}, values.substr(0, values.find('b')) +
                                                     values.substr(values.find("a,1\n"), 4 * 1023)),
                  "16384.9990234375,16778239,16777216\n");
    }
    EXPECT_EQ(answer({}, "a,.1\n"), "0.10000000149011612,0.10000000149011612,0.1\n");
}

// Values, missing ones, and what the formats of types make of them.
TEST(Command, AggregatesOfAllTypes) {
    const std::string csv = "k,x,t,i\n"
                            "a,nan,2024-01-01 10:00,1\n"
                            "b,-0.0,2024-01-01 10:00,NA\n"
                            "a,0,2024-01-02,3\n"
                            "c,nan,,8\n"
                            "NA,nan,2024-01-05 12:00:00.5,3\n";
    const auto answer = [&](const std::string &list, std::vector<std::string> more = {}) {
        more.insert(more.end(), {"-", "--types", "t:timestamp", "--format", "csv", "--drop-na"});
        more.insert(more.end(), {"--agg", list});
        const outcome told = vask(more, csv);
        EXPECT_TRUE(told.err.empty() || holds(told.err, "printed in another spelling")) << told.err;
        return told.out.substr(told.out.find('\n') + 1);
    };
    EXPECT_EQ(answer("count_distinct(k),count_distinct(x),count_distinct(t),count_distinct(i)"),
              "3,2,3,3\n");
    EXPECT_EQ(answer("min(t),median(t),mode(t),largest(t,1)"),
              "2024-01-01 10:00:00,2024-01-01 17:00:00,2024-01-01 10:00:00,"
              "2024-01-05 12:00:00.5\n");
    EXPECT_EQ(answer("median(i),q1(i),largest(i,2),largest(i,9),mode(i),variancep(i)"),
              "3,2.5,3,,3,6.6875\n");
    EXPECT_EQ(answer("count(*),count_distinct(t),max(t),count(i)", {"--group-by", "x"}),
              "nan,3,2,2024-01-05 12:00:00.5,3\n-0,2,2,2024-01-02 00:00:00,1\n");
    EXPECT_EQ(answer("count(i),mean(i),count_distinct(k),median(i),mode(i)", {"--group-by", "k"}),
              "a,2,2,1,2,\nb,0,,1,,\nc,1,8,1,8,\n,1,3,0,3,\n");
    EXPECT_EQ(vask({"-", "--format", "csv", "--agg",
                    "count(x),count_distinct(x),mean(x),stdev(x),median(x),mode(x)"},
                   "x\n")
                  .out,
              "count(x),count_distinct(x),mean(x),stdev(x),median(x),mode(x)\n0,0,,,,\n");
}

// Exact in fractions: the line through large times, and through two groups with lines of their own.
TEST(Command, LinesAndTheirCorrelation) {
    std::string csv = "g,x,y,z\n";
    for (int i = 0; i < 400; ++i) {
        const long long x = 1'700'000'000'000'000LL + 8LL * i;
        csv += std::to_string(i % 2) + "," + std::to_string(x) + "," +
               (i % 7 == 3 ? "NA" : std::to_string(i % 2 == 0 ? 2 * i : 5 - i)) + ",1\n";
    }
    const std::string list = "slope(y,x),intercept(y,x),correl(x,y),slope(z,x),correl(x,z)";
    const outcome lines = vask({"-", "--group-by", "g", "--format", "csv", "--agg", list}, csv);
    EXPECT_EQ(lines.err, "");
    EXPECT_EQ(lines.out.substr(lines.out.find('\n') + 1),
              "0,0.25,-425000000000000,1,0,\n1,-0.125,212500000000005,-1,0,\n");
    EXPECT_EQ(vask({"-", "--format", "csv", "--agg", "slope(b,a),intercept(b,a),covars(a,b)"},
                   "a,b\n1,NA\n2,3\n")
                  .out,
              "\"slope(b,a)\",\"intercept(b,a)\",\"covars(a,b)\"\n,,\n");
}

// Sums that pass through, reach and leave the bounds of 64 bits.
TEST(Command, SumsAtTheBoundsOf64Bits) {
    std::string times = "g,t\n";
    for (int i = 0; i < 14; ++i)
        times +=
            std::to_string(i % 2) + "," + std::to_string(1'700'000'000'000'000'000LL + i) + "\n";
    EXPECT_EQ(vask({"-", "--format", "csv", "--agg", "mean(t)", "--group-by", "g"}, times).out,
              "g,mean(t)\n0,1.7e+18\n1,1.7e+18\n");
    EXPECT_EQ(vask({"-", "--format", "csv", "--agg", "mean(t)"}, times).out, "mean(t)\n1.7e+18\n");
    const outcome wrapped = vask({"-", "--agg", "sum(t)", "--group-by", "g"}, times);
    EXPECT_EQ(wrapped.status, 2);
    EXPECT_TRUE(holds(wrapped.err, "sum of column 2 (t) in the group g ")) << wrapped.err;
    EXPECT_TRUE(holds(wrapped.err, "--types 't:dbl'")) << wrapped.err;
    const std::string most = "9223372036854775807";
    EXPECT_EQ(vask({"-", "--format", "csv", "--agg", "sum(x)", "--group-by", "g"},
                   "g,x\na," + most + "\nb,NA\na,5\na,-5\n")
                  .out,
              "g,sum(x)\na," + most + "\nb,\n");
    // The nil of the kernel's type is a sum like any other.
    EXPECT_EQ(vask({"-", "--format", "csv", "--agg", "sum(x)"}, "x\n-" + most + "\n-1\n").out,
              "sum(x)\n-9223372036854775808\n");
}

TEST(Command, TruthOfAllAndOfAny) {
    const std::vector<std::string> asked{"-a", "all_true(x),any_true(x)", "-f", "csv",
                                         "--no-header"};
    const auto told = [&](std::vector<std::string> words, const std::string &csv) {
        words.insert(words.end(), asked.begin(), asked.end());
        return vask(words, csv).out;
    };
    EXPECT_EQ(told({"-", "--types", "x:bit"}, "x\ntrue\nNA\nfalse\n"), "false,true\n");
    EXPECT_EQ(told({"-", "-g", "g"}, "g,x\na,1\na,0\nb,2\nc,0\n"),
              "a,false,true\nb,true,true\nc,false,false\n");
}

} // namespace
