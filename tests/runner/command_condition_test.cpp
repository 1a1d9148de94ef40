// Conditions on rows. The command as its users see it: output, messages, exit status.
#include "run_command.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

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
        {"n > 40,5", "decimals have a point, as in 40.5: the comma stands at character 7"},
        {"city = Oslo", "(a text stands in quotes: 'Oslo'): it stands at character 8"},
        {"n > 1 and n = citi", "did you mean city?: it stands"},
        {"(n = 5", "expected ')'"},
        {"n = 'a", "the quotes are not closed that open at character 5"},
        {"n = 5a", "'5a' is no number"},
        {"m = 5", "no column 'm'"},
        {"n ? 5", "nothing can begin with this character, at character 3"},
        {"city > 5", "column 2 (city): 'Oslo' is no number"},
        {"flag = true and n = true", "'5' is no truth value"},
        {"year('2020-05-05') * 9223372036854775807 + n > 0", "leaves 64 bits"},
        {"", "expected a column or a value at character 1"},
    };
    for (const auto &[condition, told] : mistakes) {
        const outcome refused = vask({"-", "--where", condition, "--agg", "count(*)"}, csv);
        EXPECT_EQ(refused.status, 2) << condition;
        EXPECT_TRUE(holds(refused.err, told)) << refused.err;
    }
}

// Who puts a number in quotes beside < may have meant a number.
TEST(Command, OrderOfTextsThatAreNumbers) {
    const std::string csv = "x\n9\n100\n20\n";
    const std::vector<std::string> asked{"-a", "count(*)", "-f", "csv", "--no-header"};
    const auto told = [&](const std::string &condition) {
        std::vector<std::string> words{"-", "-w", condition};
        words.insert(words.end(), asked.begin(), asked.end());
        return vask(words, csv);
    };
    const outcome by_bytes = told("x > '100'");
    EXPECT_EQ(by_bytes.out, "2\n");
    EXPECT_NE(by_bytes.err.find("'100' in quotes is a text"), std::string::npos) << by_bytes.err;
    EXPECT_NE(told("x between '1' and 50").err.find("'1' in quotes"), std::string::npos);
    for (const char *const plain : {"x > 100", "x = '100'", "x > 'b'"})
        EXPECT_EQ(told(plain).err, "") << plain;
}

} // namespace
