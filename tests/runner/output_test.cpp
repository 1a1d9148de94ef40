#include "runner/output.h"

#include "temporary_file.h"

#include <cmath>
#include <limits>
#include <random>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace vask::runner {
namespace {

result_column column(std::string title, std::vector<result_cell> cells, bool is_text = false) {
    return {std::move(title), is_text,
            [cells = std::move(cells)](std::size_t row) { return cells[row]; }};
}

std::string printed(std::vector<result_column> columns, std::size_t rows, output_style style) {
    const temporary_file file;
    std::FILE *const out = std::fopen(file.path().c_str(), "wb");
    print({std::move(columns), rows, {}}, style, out);
    std::fclose(out);
    return file.content();
}

std::vector<result_column> sample() {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    return {column("na,me", {"a\"b", "", std::monostate{}, " x"}, true),
            column("whole", {std::int64_t{-12}, std::int64_t{3}, std::monostate{},
                             std::numeric_limits<std::int64_t>::max()}),
            column("real", {0.1, infinity, -std::nan(""), 1e300}),
            column("single", {0.1F, 3.0F, std::monostate{}, -1e-7F}),
            column("when", {timestamp{0}, timestamp{-500'000}, std::monostate{}, timestamp{1}})};
}

TEST(Output, Csv) {
    EXPECT_EQ(printed(sample(), 4, {output_format::csv}),
              "\"na,me\",whole,real,single,when\n"
              "\"a\"\"b\",-12,0.1,0.1,1970-01-01 00:00:00\n"
              "\"\",3,inf,3,1969-12-31 23:59:59.5\n"
              ",,nan,,\n"
              "\" x\",9223372036854775807,1e+300,-1e-07,1970-01-01 00:00:00.000001\n");
    EXPECT_EQ(printed({column("x", {std::monostate{}})}, 1, {output_format::csv}), "x\n\"\"\n");
}

TEST(Output, Table) {
    EXPECT_EQ(printed(sample(), 3, {output_format::table}),
              "na,me  whole  real  single                   when\n"
              "a\"b      -12   0.1     0.1    1970-01-01 00:00:00\n"
              "\"\"         3   inf       3  1969-12-31 23:59:59.5\n"
              "NA        NA   nan      NA                     NA\n");
}

// No text reads as a missing value, no control character reaches a terminal, and columns align
// where characters are two columns wide or none.
TEST(Output, TableOfOddTexts) {
    EXPECT_EQ(
        printed({column("t\x1b",
                        {"NA", std::monostate{}, "\"NA\"", "a\x1b[2Jb\n", "\u4e2d\u6587", "e\u0301",
                         "\x9b\xc2\x9b"},
                        true),
                 column("n", {std::int64_t{1}, std::int64_t{2}, std::int64_t{3}, std::int64_t{4},
                              std::int64_t{5}, std::int64_t{6}, std::int64_t{7}})},
                7, {output_format::table}),
        "t?        n\n"
        "\"NA\"      1\n"
        "NA        2\n"
        "\"\"\"NA\"\"\"  3\n"
        "a?[2Jb    4\n"
        "\u4e2d\u6587      5\n"
        "e\u0301         6\n"
        "??        7\n");
}

TEST(Output, TsvMarkdownAndJsonLines) {
    const std::vector<result_column> columns{
        column("a|b", {"x\ty\\", std::monostate{}, "p|q"}, true),
        column("n", {std::int64_t{1}, 0.5, std::monostate{}})};
    EXPECT_EQ(printed(columns, 3, {output_format::tsv}), "a|b\tn\nx\\ty\\\\\t1\n\t0.5\np|q\t\n");
    EXPECT_EQ(printed(columns, 3, {output_format::markdown}), "| a\\|b  |   n |\n"
                                                              "| ----- | --: |\n"
                                                              "| x y\\\\ |   1 |\n"
                                                              "| NA    | 0.5 |\n"
                                                              "| p\\|q  |  NA |\n");
    EXPECT_EQ(printed(columns, 2, {output_format::jsonl}),
              "{\"a|b\":\"x\\ty\\\\\",\"n\":1}\n{\"a|b\":null,\"n\":0.5}\n");
    EXPECT_EQ(printed(columns, 1, {output_format::tsv, {}, false}), "x\\ty\\\\\t1\n");
}

TEST(Output, Digits) {
    const auto numbers = [] {
        return std::vector{
            column("d", {2647.9999999999995, 1e15 + 0.125, 1234567.0}),
            column("f", {0.1F, 1234567.0F, 3.0F}),
            column("i", {std::int64_t{1234567}, std::int64_t{9007199254740993}, std::int64_t{1}})};
    };
    EXPECT_EQ(printed(numbers(), 3, {output_format::table}),
              "               d        f                 i\n"
              "            2648      0.1           1234567\n"
              "1000000000000000  1234567  9007199254740993\n"
              "         1234567        3                 1\n");
    EXPECT_EQ(printed(numbers(), 1, {output_format::csv}),
              "d,f,i\n2647.9999999999995,0.1,1234567\n");
    EXPECT_EQ(printed(numbers(), 3, {output_format::csv, 3}),
              "d,f,i\n2650,0.1,1234567\n1000000000000000,1230000,9007199254740993\n1230000,3,1\n");
    EXPECT_EQ(printed(numbers(), 1, {output_format::jsonl, 3}),
              "{\"d\":2650.0,\"f\":0.1,\"i\":1234567}\n");
}

TEST(Output, Json) {
    const auto rows = nlohmann::json::parse(printed(sample(), 4, {output_format::json}));
    ASSERT_EQ(rows.size(), 4U);
    EXPECT_EQ(rows[0]["na,me"], "a\"b");
    EXPECT_EQ(rows[0]["single"].dump(), "0.1");
    EXPECT_EQ(rows[1]["real"], "Infinity");
    EXPECT_EQ(rows[1]["when"], "1969-12-31 23:59:59.5");
    EXPECT_EQ(rows[2]["real"], "NaN");
    EXPECT_TRUE(rows[2]["whole"].is_null());
    EXPECT_EQ(rows[3]["whole"], std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(nlohmann::json::parse(printed({}, 0, {output_format::json})),
              nlohmann::json::array());
    // Bytes that are no UTF-8 do not make the output invalid.
    EXPECT_TRUE(
        nlohmann::json::accept(printed({column("t", {"a\xff"}, true)}, 1, {output_format::json})));
}

TEST(Output, NumbersReadBackTheSame) {
    std::mt19937_64 random(20260117);
    for (int i = 0; i < 10'000; ++i) {
        const std::uint64_t bits = random();
        double real = 0;
        std::memcpy(&real, &bits, sizeof real);
        float single = 0;
        std::memcpy(&single, &bits, sizeof single);
        if (!std::isfinite(real) || !std::isfinite(single))
            continue;
        std::string text;
        append_text(text, real);
        EXPECT_EQ(std::strtod(text.c_str(), nullptr), real) << text;
        text.clear();
        append_text(text, single);
        EXPECT_EQ(std::strtof(text.c_str(), nullptr), single) << text;
    }
}

} // namespace
} // namespace vask::runner
