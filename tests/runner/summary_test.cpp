// vask summary, vask schema and --bar, as users see them.
#include "run_command.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

const std::string rows = "id,city,share,day,flag,none\n"
                         "1,Oslo,0.5,2024-01-01,true,\n"
                         "2,Bergen,NA,2024-01-03,false,\n"
                         "3,Oslo,2.5,2024-01-02,true,\n"
                         "4,,-1,NA,true,\n";

TEST(Summary, FiguresOfEachColumn) {
    const outcome told = vask({"summary", "-", "-f", "csv", "--types", "day:date,flag:bool"}, rows);
    EXPECT_EQ(told.err, "");
    EXPECT_EQ(told.out,
              "column,type,missing,different,min,q1,median,q3,max,mean,stdev,mode,histogram\n"
              "id,int,0,4,1,1.75,2.5,3.25,4,2.5,1.2909944487358056,,1 0 0 0 1 0 0 0 1 0 0 1\n"
              "city,str,1,2,Bergen,,,,Oslo,,,Oslo,\n"
              "share,dbl,1,3,-1,-0.25,0.5,1.5,2.5,0.6666666666666666,1.7559422921421233,,"
              "1 0 0 0 0 1 0 0 0 0 0 1\n"
              "day,date,1,3,2024-01-01,2024-01-01 12:00:00,2024-01-02,"
              "2024-01-02 12:00:00,2024-01-03,2024-01-02,,,"
              "1 0 0 0 0 0 1 0 0 0 0 1\n"
              "flag,bit,0,2,false,0.75,1,1,true,0.75,0.5,true,\n"
              "none,int,4,0,,,,,,,,,\n");
}

TEST(Summary, TablesRowsAndOddValues) {
    const outcome table = vask(
        {"summary", "-", "-w", "id < 4", "--let", "twice = id * 2", "--types", "day:str"}, rows);
    EXPECT_NE(table.out.find("█     █    █"), std::string::npos) << table.out;
    EXPECT_NE(table.out.find("\ntwice   lng         0          3           2    3       4"),
              std::string::npos)
        << table.out;
    EXPECT_EQ(table.out.find("1.29099"), std::string::npos) << table.out;
    // Infinities have no place on the line, NaN none in an order.
    const outcome odd = vask({"summary", "-", "-f", "csv", "--na", ""}, "x,y\n1,nan\ninf,1\n2,2\n");
    EXPECT_EQ(odd.status, 0) << odd.err;
    EXPECT_NE(odd.out.find("x,dbl,0,3,1,1.5,2,inf,inf,inf,nan,,1 0 0 0 0 0 0 0 0 0 0 1\n"),
              std::string::npos)
        << odd.out;
    EXPECT_NE(odd.out.find("y,dbl,0,3,nan,,,,nan,nan,nan,,1 0 0 0 0 0 0 0 0 0 0 1\n"),
              std::string::npos)
        << odd.out;
    const outcome empty = vask({"summary", "-", "-f", "csv"}, "x,y\n");
    EXPECT_NE(empty.out.find("\nx,int,0,0,,,,,,,,,\n"), std::string::npos)
        << empty.out << empty.err;
    EXPECT_EQ(vask({"summary", "-", "-a", "sum(x)"}, rows).status, 2);
}

// A date's least value is a date, whatever times stand above it.
TEST(Summary, DatesBesideTimes) {
    const outcome told = vask({"summary", "-", "-f", "csv", "--no-header"},
                              "t,d\n2024-01-01T10:00,2024-01-01\n2024-01-01T11:00,2024-01-02\n");
    EXPECT_NE(told.out.find("t,timestamp,0,2,2024-01-01 10:00:00,"), std::string::npos) << told.out;
    EXPECT_NE(told.out.find("d,date,0,2,2024-01-01,"), std::string::npos) << told.out;
}

TEST(Summary, Schema) {
    EXPECT_EQ(vask({"schema", "-"}, rows).out, "number  column  type  missing       first\n"
                                               "     1  id      int         0           1\n"
                                               "     2  city    str         1        Oslo\n"
                                               "     3  share   dbl         1         0.5\n"
                                               "     4  day     date        1  2024-01-01\n"
                                               "     5  flag    str         0        true\n"
                                               "     6  none    int         4          NA\n");
    const outcome json = vask({"schema", "-", "-f", "jsonl"}, "a\n1\n");
    EXPECT_EQ(json.out,
              "{\"number\":1,\"column\":\"a\",\"type\":\"int\",\"missing\":0,\"first\":1}\n");
}

TEST(Bars, BesideEachRow) {
    const std::string csv = "g,x\na,24\nb,12\nc,0\nd,0.5\ne,\n";
    EXPECT_EQ(vask({"-", "-g", "g", "-a", "sum(x)", "--bar", "sum(x)", "--no-header"}, csv).out,
              "a   24  ████████████████████████\n"
              "b   12  ████████████\n"
              "c    0\n"
              "d  0.5  ▌\n"
              "e   NA\n");
    EXPECT_EQ(vask({"-", "-g", "g", "-a", "sum(x) as s", "--bar", "s", "--no-header"},
                   "g,x\na,-12\nb,24\n")
                  .out,
              "a  -12  ████████████\n"
              "b   24              ████████████████████████\n");
    for (const std::vector<std::string> &wrong : {std::vector<std::string>{"--bar", "sum(y)"},
                                                  {"--bar", "g"},
                                                  {"--bar", "sum(x)", "-f", "csv"}}) {
        std::vector<std::string> arguments{"-", "-g", "g", "-a", "sum(x)"};
        arguments.insert(arguments.end(), wrong.begin(), wrong.end());
        const outcome told = vask(arguments, csv);
        EXPECT_EQ(told.status, 2);
        EXPECT_NE(told.err.find("--bar"), std::string::npos) << told.err;
    }
}

} // namespace
