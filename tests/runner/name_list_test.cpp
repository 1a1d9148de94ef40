#include "runner/name_list.h"

#include "runner/user_error.h"

#include <gtest/gtest.h>

namespace vask::runner {
namespace {

TEST(NameList, AggregatesAsTheyWereWritten) {
    const auto calls =
        parse_aggregates(R"_( sum(v1) ,SUM( "unit, ""net"" (price)" ),quartile(bill length, 1) )_");
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_EQ(calls[0].text, "sum(v1)");
    EXPECT_EQ(calls[0].function, "sum");
    EXPECT_EQ(calls[0].arguments[0].text, "v1");
    EXPECT_FALSE(calls[0].arguments[0].quoted);
    EXPECT_EQ(calls[1].text, R"_(SUM( "unit, ""net"" (price)" ))_");
    EXPECT_EQ(calls[1].function, "sum");
    EXPECT_EQ(calls[1].arguments[0].text, R"_(unit, "net" (price))_");
    EXPECT_TRUE(calls[1].arguments[0].quoted);
    ASSERT_EQ(calls[2].arguments.size(), 2U);
    EXPECT_EQ(calls[2].arguments[0].text, "bill length");
    EXPECT_EQ(calls[2].arguments[1].text, "1");
}

TEST(NameList, NamesAndAssignments) {
    EXPECT_EQ(parse_names(R"(a, "b, c" ,d e)", "--names"),
              (std::vector<std::string>{"a", "b, c", "d e"}));
    using pairs = std::vector<std::pair<std::string, std::string>>;
    EXPECT_EQ(parse_assignments(R"(a:int,x:y : str,"b, c":dbl)", "--types"),
              (pairs{{"a", "int"}, {"x:y", "str"}, {"b, c", "dbl"}}));
}

TEST(NameList, WordsOfAnyKind) {
    using words = std::vector<std::string>;
    const std::vector<std::pair<std::string, words>> cases{
        {"", {""}},
        {"  ", {""}},
        {"NA", {"NA"}},
        {"null, N/A", {"null", "N/A"}},
        {"\tn. a. ,-99,", {"n. a.", "-99", ""}},
        {",NA", {"", "NA"}},
        {",", {"", ""}},
        {R"(" ", "a,b", N/A)", {" ", "a,b", "N/A"}},
        {R"( "" ,"say ""no""", 5")", {"", "say \"no\"", "5\""}},
    };
    for (const auto &[text, expected] : cases)
        EXPECT_EQ(parse_words(text, "--na"), expected) << text;
    for (const char *word :
         {"NA", "a b", "5\"", "", " ", "\ta", "a ", "a,b", ",", "\"", "\"a\"", "a\""})
        EXPECT_EQ(parse_words(as_word(word) + " , " + as_word(word), "--na"), words(2, word))
            << word;
    EXPECT_EQ(as_word("n. a."), "n. a.");
    for (const char *bad : {"\"", "a,\"b", "\"a\"\"", "\"a\"b", "\"a\" \"b\""})
        EXPECT_THROW(parse_words(bad, "--na"), user_error) << bad;
}

TEST(NameList, MistakesAreTold) {
    for (const char *bad : {"", "sum", "sum(", "sum()", "sum(a", "sum(a)b", "sum(a),", ",sum(a)",
                            "(a)", "sum(a,)", "sum Net x", "sum(\"a)", "sum(\"a\"b)", "\"\"(a)"})
        EXPECT_THROW(parse_aggregates(bad), user_error) << bad;
    try {
        parse_aggregates("sum Net x");
    } catch (const user_error &error) {
        EXPECT_NE(std::string(error.what()).find("after 'sum', as in sum(Net x)"),
                  std::string::npos)
            << error.what();
    }
    for (const char *bad : {"", "a,", ",a", "\"a", "\"a\"b"})
        EXPECT_THROW(parse_names(bad, "--names"), user_error) << bad;
    for (const char *bad : {"", "a", "a:int,b", "\"a\"int"})
        EXPECT_THROW(parse_assignments(bad, "--types"), user_error) << bad;
}

} // namespace
} // namespace vask::runner
