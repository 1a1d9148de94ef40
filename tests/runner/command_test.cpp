// The command as its users see it: standard output, standard error, exit status.
#include "run_command.h"
#include "temporary_file.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

bool holds(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

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

TEST(Command, SeveralFiles) {
    const temporary_file first("k,x\na,1\nb,2\n", ".part1.csv");
    const temporary_file second("k,x\r\n\"a\",2.5", ".part2.csv");
    const temporary_file third("k,x\n", ".part3.csv");
    const auto asked = [&](std::vector<std::string> words, const std::string &input = "") {
        words.insert(words.end(), {"-f", "csv", "--no-header"});
        const outcome told = vask(words, input);
        return told.out + told.err;
    };
    const std::vector<std::string> files{first.path(), second.path(), third.path()};
    const auto about = [&](std::vector<std::string> words) {
        words.insert(words.begin(), files.begin(), files.end());
        return asked(words);
    };
    EXPECT_EQ(about({"-g", "k", "-a", "count(*),sum(x)"}), "a,2,3.5\nb,1,2\n");
    EXPECT_EQ(about({"-g", "file", "-a", "sum(x)", "--file-column", "file", "--threads", "2"}),
              first.path() + ",3\n" + second.path() + ",2.5\n");
    EXPECT_EQ(about({"-g", "file", "-a", "sum(x)", "--file-column", "file", "-w", "k = 'a'"}),
              first.path() + ",1\n" + second.path() + ",2.5\n");
    EXPECT_TRUE(
        holds(about({"-a", "sum(x)", "--file-column", "k"}), "there is a column 'k' already"));
    EXPECT_EQ(asked({first.path(), "-", "-a", "sum(x)"}, "k,x\nc,10\n"), "13\n");
    EXPECT_TRUE(holds(asked({"-", "-", "-a", "sum(x)"}, "k,x\n"), "once only"));
    // A pattern stands for its files in the order of their names.
    const std::string &name = first.path();
    const std::string own = name.substr(0, name.size() - 9) + "?art1.csv";
    EXPECT_EQ(asked({own, "-a", "sum(x)"}), "3\n");
    EXPECT_TRUE(holds(asked({own + "7*", "-a", "sum(x)"}), "no file is called so"));
    // Faults are told with the file that they are in.
    const temporary_file wrong("k,x\n\nc,4\nd\n");
    EXPECT_TRUE(holds(asked({first.path(), wrong.path(), "-a", "sum(x)"}),
                      wrong.path() + ":4: 1 field where the header has 2"));
    const temporary_file text("k,x\nc,4\nd,word\n");
    EXPECT_TRUE(holds(asked({first.path(), text.path(), "-a", "sum(x)"}),
                      "'word', on line 3 of " + text.path()));
    const temporary_file renamed("k,y\nc,4\n");
    EXPECT_TRUE(holds(asked({first.path(), renamed.path(), "-a", "sum(x)"}),
                      renamed.path() + ":1: column 2 is called 'y', and 'x' in " + first.path()));
    const temporary_file narrow("k\nc\n");
    EXPECT_TRUE(holds(asked({first.path(), narrow.path(), "-a", "sum(x)"}),
                      narrow.path() + ":1: the header has 1 name, and 2 in " + first.path()));
    // A quote that one file leaves open does not reach into the next one.
    const temporary_file open("k,x\n\"c,4\n");
    EXPECT_TRUE(holds(asked({open.path(), first.path(), "-a", "sum(x)"}),
                      open.path() + ":2: a quoted field begins here"));
}

TEST(Command, CompressedFiles) {
    const std::vector<std::pair<std::string, std::string>> programs{
        {"gzip", ".gz"}, {"zstd -q", ".zst"}, {"bzip2", ".bz2"}, {"xz", ".xz"}};
    std::string rows = "a\tx\n";
    for (int i = 0; i < 20000; ++i)
        rows += std::to_string(i * 7919 % 10007) + "\t" + std::to_string(i) + "\n";
    const temporary_file first(rows);
    const temporary_file second("1\t2\n");
    const std::vector<std::string> asked{"-a", "count(*),sum(x)", "-f", "csv", "--no-header"};
    const auto answer = [&](std::vector<std::string> words, const std::string &input = "") {
        words.insert(words.end(), asked.begin(), asked.end());
        const outcome told = vask(words, input);
        return told.out + told.err;
    };
    for (const auto &[program, ending] : programs) {
        SCOPED_TRACE(program);
        const temporary_file packed("", ".tsv" + ending);
        const auto pack = [&](const std::string &from, const std::string &how) {
            return std::system((program + " -c < " + from + how + packed.path()).c_str());
        };
        if (pack(first.path(), " > ") != 0)
            GTEST_SKIP() << program << " is not there";
        EXPECT_EQ(answer({packed.path()}), "20000,199990000\n");
        const std::string bytes = packed.content();
        EXPECT_EQ(answer({"-", "-t", "tab"}, bytes), "20000,199990000\n");
        // Cut at the start, in the middle and before the last byte.
        for (const std::size_t size : {std::size_t{10}, bytes.size() / 2, bytes.size() - 1}) {
            const temporary_file cut(bytes.substr(0, size), ending);
            EXPECT_TRUE(holds(answer({cut.path()}), "the file is cut short")) << size;
        }
        std::string wrong = bytes;
        for (std::size_t i = wrong.size() / 2; i < wrong.size() / 2 + 8; ++i)
            wrong[i] = static_cast<char>(~wrong[i]);
        EXPECT_TRUE(holds(answer({temporary_file(wrong).path()}), "the file is damaged"));
        EXPECT_TRUE(holds(answer({temporary_file(bytes + "rest").path()}), "did not write"));
        // Several members are one file, and zeros may stand behind the last one.
        pack(second.path(), " >> ");
        EXPECT_EQ(answer({packed.path()}), "20001,199990002\n");
        EXPECT_EQ(answer({"-", "-t", "tab"}, packed.content() + std::string(512, '\0')),
                  "20001,199990002\n");
    }
}

TEST(Command, RowsThatFulfilACondition) {
    const std::string csv = "id,city,n,day,flag,other city\n"
                            "1,Oslo,5,2024-01-31,true,Oslo\n"
                            "2,Bergen,50,2024-02-01 00:00:00,false,Oslo\n"
                            "3,NA,-1.5,2023-12-31,t,NA\n"
                            "4,\"O'slo, \"\"x\"\"\",NA,NA,NA,Oslo\n"
                            "5,oslo,9007199254740993,later,0,oslo\n";
    const auto kept = [&](const std::string &condition) {
        const outcome told = vask(
            {"-", "-w", condition, "-g", "id", "-a", "count(*)", "-f", "csv", "--no-header"}, csv);
        EXPECT_EQ(told.err, "") << condition;
        std::string ids;
        for (std::size_t line = 0; line < told.out.size(); line = told.out.find('\n', line) + 1)
            ids += told.out[line];
        return ids;
    };
    const std::vector<std::pair<std::string, std::string>> cases{
        {"n > 5", "25"},
        {"n >= 5 and not n = 50", "15"},
        {"not n > 5", "13"}, // nobody knows of a missing one
        {"n = 9007199254740992", ""},
        {"n == 9007199254740993 or n<>5 AND n < 51", "235"},
        {"(n = 5 or n = 50) and city != 'Oslo'", "2"},
        {"5 = n", "1"},
        {"5 < n", "25"},
        {"n between -1.5 and 5e0", "13"},
        {"n not between 0 and 10", "235"},
        {"city in (\"Oslo\", 'oslo')", "15"},
        {"city not in ('Oslo')", "245"},
        {"city = 'O''slo, \"x\"'", "4"},
        {"city is missing or n is null", "34"},
        {"city is not missing and n is not missing", "125"},
        {"city contains 'slo'", "145"},
        {"city starts with 'O' and not city ends with 'o'", "4"},
        {"city like '_slo'", "15"},
        {"city like 'B%g%n%'", "2"},
        {"city like '%s%x%'", "4"},
        {"`other city` = city", "15"},
        {"day < '2024-02-01'", "13"},
        {"day >= '2024-02-01 00:00:00' and day != 'later'", "2"},
        {"flag = true", "13"},
        {"flag = false and n > 0", "25"},
        {"city = city", "1245"},
        {"id = n", ""},
        {"id < n", "125"},
    };
    for (const auto &[condition, ids] : cases)
        EXPECT_EQ(kept(condition), ids) << condition;
    // Over many chunks, with texts, missing values and another type further down.
    std::string many = "k,t,x\n";
    for (int i = 0; i < 600'000; ++i)
        many += std::to_string(i % 10) + ",t" + std::to_string(i % 7) + "," +
                (i % 3 == 0 ? std::string() : std::to_string(i % 100) + (i > 500'000 ? ".5" : "")) +
                "\n";
    const auto sums = [&](const std::string &condition, const std::string &threads) {
        return vask({"-", "-w", condition, "-g", "k", "-s", "-f", "csv", "--threads", threads, "-a",
                     "count(*),count(x),sum(x),min(t),max(t),count_distinct(t)"},
                    many)
            .out;
    };
    const std::string all = sums("k >= 0", "1");
    std::string odd; // what is left of all groups
    for (std::size_t line = 0; line < all.size(); line = all.find('\n', line) + 1)
        if (all[line] == 'k' || (all[line] - '0') % 2 == 1)
            odd += all.substr(line, all.find('\n', line) + 1 - line);
    EXPECT_EQ(sums("k in (1,3,5,7,9)", "1"), odd);
    EXPECT_EQ(sums("k in (1,3,5,7,9)", "3"), odd);
    const std::vector<std::pair<std::string, std::string>> mistakes{
        {"n >", "expected a column or a value at character 4:\n  n >\n     ^"},
        {"n 5", "expected a comparison"},
        {"n = 5 x", "expected 'and', 'or' or the end at character 7"},
        {"(n = 5", "expected ')'"},
        {"n = 'a", "the quotes are not closed that open at character 5"},
        {"n = 5a", "'5a' is no number"},
        {"m = 5", "no column 'm'"},
        {"n ? 5", "nothing can begin with this character, at character 3"},
        {"city > 5", "column 2 (city): 'Oslo' is no number"},
        {"flag = true and n = true", "'5' is no truth value"},
        {"", "expected a column or a value at character 1"},
    };
    for (const auto &[condition, told] : mistakes) {
        const outcome refused = vask({"-", "--where", condition, "--agg", "count(*)"}, csv);
        EXPECT_EQ(refused.status, 2) << condition;
        EXPECT_TRUE(holds(refused.err, told)) << refused.err;
    }
}

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

TEST(Command, StandardInputWhenNoFileIsNamed) {
    EXPECT_EQ(vask({"-a", "sum(x)", "-t", ";", "-f", "csv"}, "x;y\n1;2\n3;4\n").out, "sum(x)\n4\n");
    EXPECT_EQ(vask({"--agg", "sum(2020)", "--header"}, "place,2020\nOslo,1\n").out,
              "sum(2020)\n        1\n");
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
    EXPECT_TRUE(holds(text.err, "no number is 'n/a', on line 4")) << text.err;
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
    const std::size_t sum = more.err.find("vask_sum_int(x)");
    ASSERT_NE(sum, std::string::npos) << more.err;
    EXPECT_EQ(more.err.find("vask_sum_int(x)", sum + 1), std::string::npos) << more.err; // once
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
        {{"-", agg, "median(t)"}, "t\n2024-01-02\n", {"line 2", "--types 't:timestamp'"}},
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
