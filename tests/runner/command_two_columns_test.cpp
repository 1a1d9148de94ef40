// Columns that are looked up in another file, and unions. The command as its users see it: output,
// messages, exit status.
#include "run_command.h"
#include "temporary_file.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(Command, ContainedInAColumnOfAnotherFile) {
    const std::string orders = "customer,amount\n7,10\n8,1\nNA,2\n9,3\n7,4\n5000000000,5\n";
    const temporary_file known("name\tid\na\t7\nb\t9\nc\tNA\nd\t7\ne\t-4\n", ".tsv");
    const temporary_file nobody("id\n");
    const std::string other = known.path() + ":id";
    EXPECT_EQ(
        vask({"-", "--contained-in", other, "--column", "customer", "--format", "csv"}, orders).out,
        "customer,contained\n7,1\n8,0\n,0\n9,1\n7,1\n5000000000,0\n");
    EXPECT_EQ(vask({"-", "--contained-in", other, "--column", "customer", "--format", "csv",
                    "--group-by", "contained", "--agg", "sum(amount),mean(contained)"},
                   orders)
                  .out,
              "contained,sum(amount),mean(contained)\n1,17,1\n0,8,0\n");
    EXPECT_EQ(vask({"-", "--contained-in", nobody.path() + ":id", "--format", "csv", "--agg",
                    "sum(contained),count(contained)"},
                   "id\n3\n4\n")
                  .out,
              "sum(contained),count(contained)\n0,2\n");
    // 007 is another code than 7, if nobody says that both are numbers.
    const temporary_file codes("id\n007\n12\n");
    const std::string coded = codes.path() + ":id";
    EXPECT_EQ(vask({"-", "--contained-in", coded, "--types", "id:int", "--format", "csv"},
                   "id\n7\n012\n5\n")
                  .out,
              "id,contained\n7,1\n12,1\n5,0\n");
    // Any values of one kind, whatever their width: both columns have one beyond 32 bits.
    const temporary_file wide("id,name,part\n5000000000,x,0.5\n7,NA,8\n");
    const auto looked_up = [&](const std::string &column, const std::string &other_column) {
        const outcome told =
            vask({"-", "--contained-in", wide.path() + ":" + other_column, "--column", column,
                  "--format", "csv", "--agg", "sum(contained),count(*)"},
                 "id,name,part\n5000000000,x,0.5\n5000000001,NA,8.0\n0,X,\n");
        return told.err + told.out.substr(told.out.find('\n') + 1);
    };
    EXPECT_EQ(looked_up("id", "id"), "1,3\n");
    EXPECT_EQ(looked_up("name", "name"), "1,3\n");
    EXPECT_EQ(looked_up("part", "part"), "2,3\n");
    EXPECT_EQ(looked_up("id", "part"), "0,3\n");
    // Dates, of which one file has other things as well.
    const temporary_file days("day\n2024-01-01\n2024-02-01 00:00\n");
    const temporary_file words("day\nsoon\n2024-01-01\n");
    const std::string asked_days = "day\n2024-01-01\n2024-02-01\n";
    const auto found = [](const temporary_file &in, const std::string &cells,
                          std::vector<std::string> more = {}) {
        more.insert(more.end(), {"-", "--contained-in", in.path() + ":day", "--format", "csv",
                                 "--agg", "sum(contained)", "--no-header"});
        const outcome told = vask(more, cells);
        return told.out + told.err;
    };
    EXPECT_EQ(found(days, asked_days), "2\n");
    EXPECT_TRUE(holds(found(words, asked_days), "--types 'day:str'"));
    EXPECT_EQ(found(words, asked_days, {"--types", "day:str"}), "1\n");
    EXPECT_EQ(found(days, words.content()), "1\n");
    const std::vector<std::pair<std::vector<std::string>, std::string>> mistakes{
        {{"-", "--contained-in", coded, "--column", "customer"}, "id is str, which do not compare"},
        {{"-", "--contained-in", coded, "--column", "customer"}, "give --types 'customer:int'"},
        {{"-", "--contained-in", known.path()}, "FILE:COLUMN"},
        {{"-", "--contained-in", other}, "--column names it): there is no column 'id'"},
        {{"-", "--contained-in", known.path() + ":nme", "--column", "customer"},
         "did you mean name"},
        {{"-", "--contained-in", known.path() + ":name", "--column", "customer"}, "name is str"},
        {{"-", "--column", "customer", "--agg", "sum(amount)"}, "--contained-in"},
    };
    for (const auto &[arguments, told] : mistakes) {
        const outcome result = vask(arguments, orders);
        EXPECT_EQ(result.status, 2);
        EXPECT_TRUE(holds(result.err, told)) << result.err;
    }
}

TEST(Command, UnionOfTwoColumns) {
    const std::string csv = "a,b,c\n1,1.5,x\nNA,2,x\n3,NA,x\n4,5,x\n";
    EXPECT_EQ(vask({"union", "-", "a", "b", "--format", "csv", "--threads", "3"}, csv).out,
              "row,column,value\n1,a,1\n4,a,4\n1,b,1.5\n4,b,5\n");
    EXPECT_EQ(vask({"union", "-", "a", "a"}, "a\n").out, "row  column  value\n");
    EXPECT_TRUE(holds(vask({"union", "-", "a", "c"}, csv).err, "column 3 (c) is str"));
    EXPECT_TRUE(holds(vask({"union", "-", "a"}, csv).err, "two columns"));
    EXPECT_TRUE(holds(vask({"union", "-", "a", "b", "--agg", "sum(a)"}, csv).err, "--agg"));
}

} // namespace
