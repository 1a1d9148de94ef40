// Every aggregate that GNU datamash has as well, on the same files, whole and by group.
#include "run_command.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <map>
#include <optional>
#include <random>
#include <sstream>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace {

// {v} and {w} stand for columns.
struct operation {
    std::string vask, datamash;
};

const std::vector<operation> one_column{
    {"sum({v})", "sum {v}"},         {"min({v})", "min {v}"},
    {"max({v})", "max {v}"},         {"count({v})", "count {v}"},
    {"mean({v})", "mean {v}"},       {"count_distinct({v})", "countunique {v}"},
    {"stdev({v})", "sstdev {v}"},    {"pstdev({v})", "pstdev {v}"},
    {"svar({v})", "svar {v}"},       {"variancep({v})", "pvar {v}"},
    {"skews({v})", "sskew {v}"},     {"pskew({v})", "pskew {v}"},
    {"median({v})", "median {v}"},   {"q1({v})", "q1 {v}"},
    {"quartile({v},3)", "q3 {v}"},   {"perc({v})", "perc {v}"},
    {"perc:33({v})", "perc:33 {v}"}, {"percentile({v},0.01)", "perc:1 {v}"},
    {"mode({v})", "mode {v}"},
};
const std::vector<operation> two_columns{
    {"covars({v},{w})", "scov {v}:{w}"},
    {"scov({v},{w})", "scov {v}:{w}"},
    {"pcov({v},{w})", "pcov {v}:{w}"},
    {"correl({v},{w})", "ppearson {v}:{w}"},
};

// Datamash works in long double, in two passes where this works in one, and prints 14 digits.
constexpr double tolerance = 1e-8; // of the value, or absolute below 1

struct data_file {
    std::string text; // tab-separated, without quotes: datamash knows none
    std::vector<std::string> groupings;
    std::vector<std::string> columns;
    std::vector<std::pair<std::string, std::string>> pairs; // missing in the same rows
};

std::string tab_separated(std::string csv) {
    std::erase(csv, '"');
    std::ranges::replace(csv, ',', '\t');
    return csv;
}

data_file penguins() {
    return {tab_separated(content_of(VASK_PENGUINS)),
            {"", "species", "island", "species,island"},
            {"flipper_length_mm", "body_mass_g", "bill_length_mm", "bill_depth_mm"},
            {{"flipper_length_mm", "body_mass_g"}, {"bill_depth_mm", "body_mass_g"}}};
}

data_file generated(unsigned seed, int rows, int missing_percent) {
    std::mt19937 random(seed);
    const auto below = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    std::ostringstream text;
    text << "g\th\tsmall\tlarge\ttenths\treal\n" << std::setprecision(17);
    for (int row = 0; row < rows; ++row) {
        const int small = below(41) - 20;
        text << "abcde"[below(5)] << '\t' << below(40);
        const auto cell = [&](auto value) {
            if (below(100) < missing_percent)
                text << "\tNA";
            else
                text << '\t' << value;
        };
        cell(small);
        cell(5'000'000'000LL + below(500));
        cell(small * 0.1 + below(10));
        cell(std::normal_distribution<double>(3, 2)(random));
        text << '\n';
    }
    std::vector<std::pair<std::string, std::string>> pairs;
    if (missing_percent == 0)
        pairs = {{"small", "tenths"}, {"real", "small"}, {"large", "real"}};
    return {text.str(), {"", "g", "g,h"}, {"small", "large", "tenths", "real"}, pairs};
}

std::string with_columns(const std::string &text, const std::string &v, const std::string &w) {
    return fmt::format(fmt::runtime(text), fmt::arg("v", v), fmt::arg("w", w));
}

// Rows by the values that make up their group.
std::map<std::string, std::vector<std::string>> rows_of(const std::string &lines, char separator,
                                                        std::size_t keys) {
    std::map<std::string, std::vector<std::string>> rows;
    std::istringstream in(lines);
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line + separator);
        std::string key, field;
        std::vector<std::string> cells;
        for (std::size_t i = 0; std::getline(fields, field, separator); ++i) {
            if (i < keys)
                key += field + "|";
            else
                cells.push_back(field);
        }
        rows.emplace(key, cells);
    }
    return rows;
}

// What a cell says: a number, or NaN for a missing value, for which vask prints nothing and
// datamash one of its names for no number. Nothing for any other text.
std::optional<double> number_of(const std::string &cell) {
    if (cell.empty() || cell == "N/A")
        return std::nan("");
    char *end = nullptr;
    const double value = std::strtod(cell.c_str(), &end);
    return *end == '\0' ? std::optional(value) : std::nullopt;
}

// A text that is no number agrees with nothing: every aggregate here is a number.
bool agree(const std::string &got, const std::string &expected) {
    const auto a = number_of(got);
    const auto b = number_of(expected);
    if (!a || !b)
        return false;
    // An infinite number is within any share of itself from every number.
    if (!std::isfinite(*a) || !std::isfinite(*b))
        return *a == *b || (std::isnan(*a) && std::isnan(*b));
    return std::abs(*a - *b) <= tolerance * std::max({1.0, std::abs(*a), std::abs(*b)});
}

// Then vask gives no mode, datamash the smallest value.
bool all_different(const std::vector<operation> &operations,
                   const std::vector<std::string> &cells) {
    const auto cell = [&](const std::string &name) {
        for (std::size_t i = 0; i < cells.size(); ++i)
            if (operations[i].datamash == name)
                return cells[i];
        return std::string();
    };
    return cell("count {v}") == cell("countunique {v}") && cell("mode {v}") == cell("min {v}");
}

void compare(const data_file &data, const std::vector<operation> &operations, const std::string &v,
             const std::string &w) {
    const temporary_file file(data.text, ".tsv");
    for (const std::string &grouping : data.groupings) {
        std::string list, asked = "LC_ALL=C datamash --header-in --narm";
        if (!grouping.empty())
            asked += " -s -g " + grouping;
        for (const operation &each : operations) {
            list.append(list.empty() ? "" : ",").append(with_columns(each.vask, v, w));
            asked.append(" ").append(with_columns(each.datamash, v, w));
        }
        std::vector<std::string> request{file.path(), "--drop-na", "--threads", "3",
                                         "--format",  "csv",       "--agg",     list};
        std::size_t keys = 0;
        if (!grouping.empty()) {
            keys = 1 + static_cast<std::size_t>(std::count(grouping.begin(), grouping.end(), ','));
            request.insert(request.end(), {"--group-by", grouping});
        }
        const outcome ours = vask(request);
        ASSERT_EQ(ours.status, 0) << ours.err;
        const outcome theirs = run("sh", {"-c", asked + " <" + file.path()});
        ASSERT_EQ(theirs.status, 0) << asked << "\n" << theirs.err;
        const auto got = rows_of(ours.out.substr(ours.out.find('\n') + 1), ',', keys);
        const auto expected = rows_of(theirs.out, '\t', keys);
        ASSERT_EQ(got.size(), expected.size());
        for (const auto &[key, cells] : expected) {
            ASSERT_TRUE(got.contains(key)) << key;
            ASSERT_EQ(cells.size(), operations.size()) << theirs.out;
            for (std::size_t i = 0; i < cells.size(); ++i)
                EXPECT_TRUE(agree(got.at(key).at(i), cells[i]) ||
                            (operations[i].datamash == "mode {v}" && got.at(key)[i].empty() &&
                             all_different(operations, cells)))
                    << with_columns(operations[i].vask, v, w) << " by (" << grouping << ") at "
                    << key << ": " << got.at(key)[i] << ", datamash says " << cells[i];
        }
    }
}

TEST(Datamash, TextsAreNoNumbersToTheComparison) {
    EXPECT_TRUE(agree("2.5", "2.5000000001"));
    EXPECT_TRUE(agree("inf", "inf"));
    EXPECT_TRUE(agree("", "nan"));
    EXPECT_TRUE(agree("nan", "N/A"));
    for (const char *wrong : {"0.1", "", "inf", "-2.5", "2.5x", "2,5", "male", "1 2", " "})
        EXPECT_FALSE(agree(wrong, "2.5")) << wrong;
    for (const char *text : {"male", "2.5x", "0x", "NA"})
        EXPECT_FALSE(agree(text, text)) << text;
}

TEST(Datamash, AgreesOnTheSameFiles) {
    if (std::system("datamash --version >/dev/null 2>&1") != 0) {
        if (std::getenv("VASK_TEST_TOOLS_REQUIRED") != nullptr)
            FAIL() << "GNU datamash is not installed; scripts/install-dependencies installs it";
        GTEST_SKIP() << "GNU datamash is not installed";
    }
    for (const data_file &data : {penguins(), generated(5, 3000, 0), generated(6, 70'000, 12)}) {
        for (const std::string &column : data.columns)
            compare(data, one_column, column, "");
        for (const auto &[v, w] : data.pairs)
            compare(data, two_columns, v, w);
    }
}

} // namespace
