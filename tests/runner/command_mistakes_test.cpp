// Requests and data that are wrong. The command as its users see it: output, messages, exit status.
#include "run_command.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Names of columns and files come from anywhere, and so would what they tell a terminal to do.
TEST(Command, MessagesHaveNoControlCharacters) {
    const outcome told = vask({"-", "-a", "sum(zz)"}, "a\x1b[31m,b\n1,2\n3,4\n");
    EXPECT_EQ(told.err.find('\x1b'), std::string::npos) << told.err;
    EXPECT_NE(told.err.find("a?[31m"), std::string::npos) << told.err;
    EXPECT_EQ(vask({"no\x1b[2Jfile", "-a", "count(*)"}).err.find('\x1b'), std::string::npos);
}

// Whatever is wrong: one message on standard error that says where and what to do, nothing on
// standard output, exit status 2.
TEST(Command, Mistakes) {
    struct mistake {
        std::vector<std::string> arguments;
        std::string input;
        std::vector<std::string> told;
    };
    const std::string agg = "--agg";
    const std::vector<mistake> mistakes{
        {{}, "", {"no file is named", "--help"}},
        {{"--no", "--formt=csv", "-"},
         "",
         {"no option --no; there is no option --formt (did you mean --format?)"}},
        {{"-", "y.csv", agg, "sum(x)"},
         "x\n1\n",
         {"y.csv: cannot open the file", "put a list with blanks in it in quotes"}},
        {{"-", agg}, "", {"--agg: nothing stands behind it"}},
        {{"-", "--na", "1", "--na", "2"}, "", {"--na: given 2 times"}},
        {{"-", agg, "sum(x)", "--na", "NA, \"a,b"},
         "x\n1\n",
         {"--na: the quotes", "'\"a,b' are not"}},
        {{"-", agg, "sum(x)", "--na", "\"a\"b"}, "x\n1\n", {"--na: expected a comma before 'b'"}},
        {{"-", agg, "sum(x)", "--types", "x:int,x:dbl"}, "x\n1\n", {"'x' is given two types"}},
        {{"-", agg, "sum(x)", "--format", "xml"}, "x\n1\n", {"--format", "'xml'", "json"}},
        {{"-", agg, "sum(x)", "--group-by", ""}, "x\n1\n", {"--group-by: expected a name"}},
        {{"-", agg, "sum(x)", "--threads", "0"}, "x\n1\n", {"--threads"}},
        {{"-", agg, "sum(x)", "--sep", "ab"}, "x\n1\n", {"--sep", "ab"}},
        {{"-", agg, "sum(x)", "--sep", ""}, "x\n1\n", {"--sep", "nothing"}},
        {{"-", agg, "mode(x)", "--strict"},
         "y,x\n1,1\n1,\n1,\n",
         {"mode(x): column 2 (x) has 2 missing values in 3 rows", "--strict"}},
        {{"-", agg, "medain(x)"}, "x\n1\n", {"did you mean median?"}},
        {{"-", agg, "sum(x)", "--digits", "0"}, "x\n1\n", {"--digits", "from 1 to 17"}},
        {{"-", agg, "sum(x)", "--limit", "-1"}, "x\n1\n", {"--limit: '-1'"}},
        {{"-", agg, "sum(x)", "--order-by", "sum(y)"},
         "x,y\n1,2\n",
         {"--order-by", "no column 'sum(y)'", "'sum(x)'"}},
        {{"-", agg, "sum(x)", "--top", "1", "--limit", "2"}, "x\n1\n", {"one of the two"}},
        {{"-", agg, "sum(x)"},
         "Oslo,7\nBergen,8\n",
         {":1: the first line looks like data: column 2 is '7'", "'8' below", "--header"}},
        {{"-", agg, "sum(x)"}, "\x1f\x8b\x08", {"standard input: the file is cut short"}},
        {{"-", agg, "median(x)", "--drop-na"}, "x\n1\nnan\n", {"(x) has 1 NaN", "--na"}},
        {{"-", agg, "median(x)"}, "x\na\n", {"median takes", "timestamp"}},
        {{"-", agg, "sum(x)"}, "x\nTRUE\nFALSE\n", {"'TRUE', on line 2", "--types 'x:bit'"}},
        {{"-", agg, "quartile(x)"}, "x\n1\n", {"written quartile(x,q)"}},
        {{"-", agg, "quartile(x,1.5)"}, "x\n1\n", {"1.5 is out of bounds", "0, 1, 2, 3 or 4"}},
        {{"-", agg, "percentile(x,90)"}, "x\n1\n", {"90 is out", "percentile(x,0.9)"}},
        {{"-", agg, "percentile(x,y)"}, "x\n1\n", {"'y' is no number"}},
        {{"-", agg, "perc:101(x)"}, "x\n1\n", {"from 0 to 100"}},
        {{"-", agg, "q1:5(x)"}, "x\n1\n", {"q1 takes nothing"}},
        {{"-", agg, "largest(x,0)"}, "x\n1\n", {"0 is out of bounds", "from 1 on"}},
        {{"-", agg, "count(x)"}, "x,y\na,1\n\x80,2\n", {":3: column 1 (x)", "0x80", "iconv"}},
        {{"-", agg, "sum(x)", "--types", "x:number"}, "x\n1\n", {"--types", "number", "timestamp"}},
        {{"-", agg, "sum(x)", "--types", "y:int"},
         "x\n1\n",
         {"--types", "'y'", "the columns are x"}},
        {{"-", agg, "sum(x"}, "x\n1\n", {"--agg", "')'"}},
        {{"-", agg, "total(x)"}, "x\n1\n", {"no aggregate 'total'", "sum", "count(*)"}},
        {{"-", agg, "totals(*)"}, "x\n1\n", {"no aggregate 'totals'"}},
        {{"-", agg, "sum(x)", "--group-by", "y"}, "x\n1\n", {"--group-by", "no column 'y'"}},
        {{"-", agg, "mean(x)"}, "x\na\n", {"mean takes", "timestamp"}},
        {{"-", agg, "sum(x,y)"}, "x,y\n1,2\n", {"sum(x,y): it is written sum(x)", "double quotes"}},
        {{"-"}, "alpha,beta\n1,2\n", {"--agg", "the columns are alpha, beta"}},
        {{"-", agg, "sum(prise)"}, "price,x\n1,1\n", {"standard input:1", "did you mean price"}},
        {{"-", agg, "sum(Price)"}, "price,x\n1,1\n", {"did you mean price"}},
        {{"", agg, "sum(x)"}, "", {"name of the file is empty"}},
        {{"-", agg, "median(t)"},
         "t\n2024-01-02\nlater\n",
         {"column 1 (t) is str", "no number or date is 'later', on line 3"}},
        {{"-", agg, "median(t)"}, "t\n5\n2024-01-02\n", {"beside dates", "'2024-01-02' on line 3"}},
        {{"-", agg, "median(t)"},
         "t\n31.12.2024\n",
         {"'31.12.2024', on line 2", "--date-format DD.MM.YYYY reads it"}},
        {{"-", agg, "max(t)", "--types", "t:timestamp"},
         "t\n1/2/2024\n",
         {"no timestamp", "--date-format M/D/YYYY or D/M/YYYY reads it"}},
        {{"-", agg, "max(t)", "--types", "t:date"},
         "t\n2024-01-02\n2024-01-02 00:01\n",
         {":3: column 1 (t): '2024-01-02 00:01' is no date", "--types 't:timestamp'"}},
        {{"-", agg, "max(t)", "--date-format", "YYYY-MM"}, "t\n1\n", {"--date-format: 'YYYY-MM'"}},
        {{"-", agg, "max(t)", "--date-format", "DMYYYY"}, "t\n1\n", {"--date-format: 'DMYYYY'"}},
        {{"-", agg, "sum(d)", "--let", "d = t contains '2024'"},
         "t\n2024-01-02\n",
         {"a text is wanted before this", "--types reads it as another type"}},
        {{"-", agg, "sum(x)", "--types", "x:bte"}, "x\n-128\n", {"'-128' is reserved", "x:int"}},
        {{"-", agg, "sum(x)", "--names", "x,y,x"}, "1,2,3\n", {"columns 1, 3", "with --names"}},
        {{"-", agg, "sum(x)", "--names", "x,y"}, "1,2,3\n", {":1: 3 fields where --names has 2"}},
        {{"-", agg, "sum(b)"}, "a;b\n1;2\n", {"no column 'b'", "--sep"}},
        {{"-", agg, "sum(x)"}, "x\n1\nabc\n", {"column 1 (x) is str", "'abc'", "line 3", "--na"}},
        {{"-", agg, "sum(x)"}, "x\n1\n\"a,b\"\n", {"list of --na (there it is written \"a,b\")"}},
        {{"-", agg, "sum(x)", "--types", "x:int"},
         "x\n1\n\" \"\n",
         {"--na (there it is written \" \"), or"}},
        {{"-", agg, "sum(x)"}, "x,y\n1,2\n1\n", {"standard input:3: 1 field where", "has 2"}},
        {{"-", agg, "sum(x)", "--types", "x:int"},
         "x\n1\n1.5\n",
         {":3: column 1 (x): '1.5'", "int"}},
        {{"-", agg, "sum(x)"}, "", {"standard input: the file is empty"}},
        {{"-", agg, "sum(x)"}, "\n\n", {"no header"}},
        {{"-", agg, "sum(x)"}, "1,2\n3,4\n", {"only numbers", "--names", "--header"}},
        {{"-", agg, "sum(y)", "--group-by", "x"}, "x,y,x\n1,2,3\n", {"columns 1, 3", "'x'"}},
        {{"-", agg, "sum(x)"}, std::string("x\n\0\n", 4), {"NUL byte"}},
        {{"-", agg, "sum(x)"}, "x,\"y\n1,2\n", {"does not end"}},
        {{"-", agg, "count(*)", "--group-by", "count(*)"},
         "count(*)\n1\n",
         {"column 1", "another name"}},
        {{"-", agg, "count(*)", "--group-by", "i"},
         "i\n1\n12345678901234567890\n",
         {":3: --group-by: column 1 (i)", "beyond 64 bits", "--types 'i:str'"}},
        {{"-", agg, "count_distinct(i)"},
         "i\n0.5\n-9223372036854775809\n",
         {":3: count_distinct(i)", "--types 'i:str'"}},
        {{"/no/such/file", agg, "sum(x)"}, "", {"/no/such/file: cannot open", "No such file"}},
        {{"/tmp", agg, "sum(x)"}, "", {"/tmp: is a directory"}},
        {{"-", agg, "sum(x)", "--library", "/no/lib.so"}, "x\n1\n", {"/no/lib.so", "--library"}},
    };
    for (const mistake &each : mistakes) {
        const outcome result = vask(each.arguments, each.input);
        EXPECT_EQ(result.status, 2) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_TRUE(result.err.starts_with("vask: ")) << result.err;
        for (const std::string &part : each.told)
            EXPECT_TRUE(holds(result.err, part)) << part << " is not in " << result.err;
    }
}

} // namespace
