// Grouping through the command: groups, their order, and the paths that --explain names.
#include "run_command.h"

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

const std::string penguins = VASK_PENGUINS;

TEST(Grouping, PenguinsBySpeciesAndBySexWithItsMissingValues) {
    // Counted and added up from the same file by awk.
    EXPECT_EQ(vask({penguins, "--group-by", "sex", "--agg", "count(*),sum(body_mass_g)", "--format",
                    "csv"})
                  .out,
              "sex,count(*),sum(body_mass_g)\nmale,168,763675\nfemale,165,637275\n,11,36050\n");
    EXPECT_TRUE(
        vask({penguins, "--group-by", "species", "--agg", "count(*)", "--format", "csv", "--sort"})
            .out.ends_with("Adelie,152\nChinstrap,68\nGentoo,124\n"));
}

TEST(Grouping, SortedGroupsHaveMissingValuesLast) {
    const std::string csv = "text,whole,real,time\n"
                            "NA,NA,NA,NA\n"
                            "b,10,nan,2024-01-02\n"
                            "a,NA,7,2023-12-31\n"
                            "NA,9,-0.5,NA\n"
                            "a,-1,7,2024-01-01\n";
    const auto sorted = [&](const std::string &columns) {
        const outcome told = vask({"-", "--sort", "--group-by", columns, "--agg", "count(*)",
                                   "--na", "NA", "--types", "time:timestamp", "--format", "csv"},
                                  csv);
        return told.err + told.out.substr(told.out.find('\n') + 1);
    };
    EXPECT_EQ(sorted("text"), "a,2\nb,1\n,2\n");
    EXPECT_EQ(sorted("whole"), "-1,1\n9,1\n10,1\n,2\n");
    EXPECT_EQ(sorted("real"), "-0.5,1\n7,2\nnan,1\n,1\n");
    EXPECT_EQ(sorted("time"), "2023-12-31,1\n2024-01-01,1\n2024-01-02,1\n,2\n");
    EXPECT_EQ(sorted("text,whole"), "a,-1,1\na,,1\nb,10,1\n,9,1\n,,1\n");
    EXPECT_EQ(sorted("real,text"), "-0.5,,1\n7,a,2\nnan,b,1\n,,1\n");
}

//! Rows enough to leave the serial path.
constexpr int rows = 70'000;

//! The value of row i in a column of so many values, in no simple order.
int value_of(int row, int values) {
    return static_cast<int>(row * 7919LL % 70'001) % values;
}

std::string file_of(int few, int many) {
    std::string csv = "few,many,text,real,v\n";
    for (int i = 0; i < rows; ++i) {
        const std::string number = std::to_string(value_of(i, few));
        csv.append(number).append(",").append(std::to_string(value_of(i, many))).append(",t");
        csv.append(number).append(",").append(number).append(".5,");
        csv.append(std::to_string(i % 10)).append("\n");
    }
    return csv;
}

//! "key,sum" lines in order of first occurrence.
template <class Key>
std::string plain_sums(Key key) {
    std::map<std::string, std::size_t> known;
    std::vector<std::pair<std::string, long>> sums;
    for (int i = 0; i < rows; ++i) {
        const auto [at, is_new] = known.try_emplace(key(i), sums.size());
        if (is_new)
            sums.emplace_back(at->first, 0);
        sums[at->second].second += i % 10;
    }
    std::string lines;
    for (const auto &[name, sum] : sums)
        lines += name + "," + std::to_string(sum) + "\n";
    return lines;
}

TEST(Grouping, EveryPathGivesThePlainGroupsOnAnyThreads) {
    const int few = 90;
    const int many = 70'001; // every row another one
    const std::string csv = file_of(few, many);
    const auto number = [](int values) {
        return [=](int i) { return std::to_string(value_of(i, values)); };
    };
    const auto text = [&](int i) { return std::string("t").append(number(few)(i)); };
    const auto real = [&](int i) { return number(few)(i) + ".5"; };
    const struct {
        std::string columns;
        std::string expected;
        std::string told; // on two threads
    } cases[] = {
        {"few", plain_sums(number(few)),
         "VASKgroup(few): 70000 rows, hash path: few values in a sample, 2 ranges, 90 groups, "},
        {"many", plain_sums(number(many)),
         "VASKgroup(many): 70000 rows, sort path: many values in a sample, 2 ranges"},
        {"text", plain_sums([&](int i) { return text(i); }),
         "VASKgroup(text): 70000 rows, hash path: few values in a sample, 2 ranges, 90 groups, "},
        {"few,text", plain_sums([&](int i) { return number(few)(i) + "," + text(i); }),
         "VASKgroup(few, text): 70000 rows, "},
        {"text,real", plain_sums([&](int i) { return text(i) + "," + real(i); }),
         "VASKderive(real): 70000 rows, "},
        {"real,many", plain_sums([&](int i) { return real(i) + "," + number(many)(i); }),
         "VASKderive(many): 70000 rows, buckets path: "},
        {"few,many", plain_sums([&](int i) { return number(few)(i) + "," + number(many)(i); }),
         "VASKgroup(few, many): 70000 rows, "},
    };
    for (const auto &each : cases)
        for (const char *threads : {"1", "2", "5"}) {
            const outcome got = vask({"-", "--group-by", each.columns, "--agg", "sum(v)",
                                      "--format", "csv", "--threads", threads, "--explain"},
                                     csv);
            EXPECT_EQ(got.status, 0) << got.err;
            EXPECT_TRUE(got.out == each.columns + ",sum(v)\n" + each.expected)
                << each.columns << ", " << threads << " threads";
            if (threads == std::string("2")) {
                EXPECT_NE(got.err.find(each.told), std::string::npos) << got.err;
            }
        }
}

} // namespace
