// Names of results, columns by pattern and number, notes on texts: as users of the command see
// them.
#include "run_command.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

const std::string rows = "g,v1,v2,name,v3,w\n"
                         "a,1,10,x,0.5,true\n"
                         "b,2,20,y,1.5,false\n"
                         "a,3,30,z,2.5,true\n";

std::string told(std::vector<std::string> arguments, const std::string &input = rows) {
    arguments.insert(arguments.end(), {"-f", "csv", "-"});
    const outcome result = vask(arguments, input);
    return result.err + result.out;
}

TEST(AggregateNames, GivenNames) {
    EXPECT_EQ(told({"-a", "sum(v1) as total, mean(v2) AS \"mean, of v2\",max(name) as m"}),
              "total,\"mean, of v2\",m\n6,20,z\n");
    EXPECT_EQ(told({"-g", "g", "-a", "sum(v1) as total", "--top", "1"}), "g,total\na,4\n");
    EXPECT_EQ(told({"-g", "g", "-a", "sum(v1) as total", "--order-by", "total", "--limit", "1"}),
              "g,total\nb,2\n");
    // A name of one's own is no way to have two results in one.
    EXPECT_NE(told({"-a", "sum(v1) as t, mean(v1) as t"}).find("two different results are called"),
              std::string::npos);
    EXPECT_EQ(told({"-a", "sum(v1) as t, sum(v1) as t"}), "t\n6\n");
    EXPECT_NE(told({"-g", "g", "-a", "sum(v1) as g"}).find("give it another name"),
              std::string::npos);
    EXPECT_NE(told({"-a", "sum(v1) as"}).find("expected a name at its end"), std::string::npos);
    EXPECT_NE(told({"-a", "sum(v1) asx"}).find("expected a comma before 'asx'"), std::string::npos);
}

TEST(AggregateNames, ColumnsByPatternRangeAndNumber) {
    EXPECT_EQ(told({"-g", "g", "-a", "mean(*)", "--types", "w:bool"}),
              "g,mean(v1),mean(v2),mean(v3),mean(w)\na,2,20,1.5,1\nb,2,20,1.5,0\n");
    EXPECT_EQ(told({"-a", "max(*)"}), "max(g),max(v1),max(v2),max(name),max(v3),max(w)\n"
                                      "b,3,30,z,2.5,true\n");
    EXPECT_EQ(told({"-a", "sum(v*),sum(?2)"}), "sum(v1),sum(v2),sum(v3)\n6,60,4.5\n");
    EXPECT_EQ(told({"-a", "sum(v1:v2),quantile(#2:#3,0.5)"}),
              "sum(v1),sum(v2),\"quantile(v1,0.5)\",\"quantile(v2,0.5)\"\n6,60,2,20\n");
    EXPECT_EQ(told({"-g", "#1", "-a", "sum(#2)"}), "g,sum(#2)\na,4\nb,2\n");
    EXPECT_EQ(told({"-a", "perc:25,50(v1),perc:0, 100(v2)"}),
              "perc:25(v1),perc:50(v1),perc:0(v2),perc:100(v2)\n1.5,2,10,30\n");
    EXPECT_EQ(told({"-a", "count(*), n(*)"}), "count(*),n(*)\n3,3\n");
    // Names are names first.
    EXPECT_EQ(told({"-a", "sum(a:b),sum(*),sum(#1)"}, "a:b,*,#1\n1,2,4\n"),
              "sum(a:b),sum(*),sum(#1)\n1,2,4\n");
    EXPECT_EQ(told({"-a", "sum(\"a, b\":c)"}, "\"a, b\",c\n1,2\n").substr(0, 5), "vask:");
    EXPECT_EQ(told({"-a", "sum(*)"}, "\"a, b\",c\n1,2\n"), "\"sum(\"\"a, b\"\")\",sum(c)\n1,2\n");
    for (const auto &[aggregates, part] : std::vector<std::pair<std::string, std::string>>{
             {"mean(x*)", "no column's name is like 'x*'"},
             {"sum(v2:v1)", "the column v2 stands behind v1"},
             {"sum(v1:v9)", "there is no column 'v9'; the columns are"},
             {"sum(v2:name)", "column 4 (name) is str"},
             {"mean(na*)", "no column fits: mean takes"},
             {"sum(#7)", "there is no column #7; they are #1 to #6"},
             {"sum(#0)", "there is no column #0"},
             {"sum(v*) as s", "'s' names one result, and these are 3"},
             {"perc:50,x(v1)", "stands a number of percent"},
             {"quantile:5(v1)", "takes nothing behind its name"}})
        EXPECT_NE(told({"-a", aggregates}).find(part), std::string::npos)
            << aggregates << "\n"
            << told({"-a", aggregates});
}

TEST(AggregateNames, TheFileMayStandBehindAList) {
    const temporary_file file(rows);
    for (const std::string option : {"-a", "--agg"})
        EXPECT_EQ(vask({option, "sum(v1)", file.path()}).out, "sum(v1)\n      6\n");
    EXPECT_EQ(vask({"-a", "sum(x)", "--let", "x = v1", file.path()}).out, "sum(x)\n     6\n");
}

TEST(AggregateNames, TextsTruthValuesAndTheirOrder) {
    EXPECT_EQ(told({"--types", "w:bool", "-a",
                    "sum(w),mean(w),min(w),mode(w),first(w),last(w),median(w)"}),
              "sum(w),mean(w),min(w),mode(w),first(w),last(w),median(w)\n"
              "2,0.6666666666666666,false,true,true,true,1\n");
    EXPECT_EQ(told({"-a", "min(name),max(name),mode(g),first(name),last(name),largest(name,2)"}),
              "min(name),max(name),mode(g),first(name),last(name),\"largest(name,2)\"\n"
              "x,z,a,x,z,y\n");
    const std::string codes = "zip,n\n0123,1\n99,2\n100,3\n";
    const std::string note = "vask: note: standard input: column 1 (zip) has numbers with leading "
                             "zeros and was read as text, so max goes by the order of texts; "
                             "--types 'zip:lng' or ':dbl' reads numbers, ':str' says no more of "
                             "it\n";
    EXPECT_EQ(told({"-a", "max(zip),min(zip)"}, codes), note + "max(zip),min(zip)\n99,0123\n");
    EXPECT_EQ(told({"-a", "max(zip)", "--types", "zip:str"}, codes), "max(zip)\n99\n");
    EXPECT_EQ(told({"-a", "max(zip)", "--types", "zip:int"}, codes), "max(zip)\n123\n");
    EXPECT_EQ(told({"-a", "max(zip)"}, codes + "A1,4\n"), "max(zip)\nA1\n");
    EXPECT_EQ(told({"-a", "count(zip),mode(zip)"}, codes), "count(zip),mode(zip)\n3,\n");
}

} // namespace
