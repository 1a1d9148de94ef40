// Groups and their aggregates, against a map from key texts to running values and against datamash.
#include "run_command.h"
#include "temporary_file.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace {

struct row {
    std::vector<std::string> keys; // as they are written; empty: missing
    std::string value;
};

// Three keys, of text, int and dbl, each with missing values. A key column has about the square
// root of its values in common with another, so that combinations repeat.
std::vector<row> random_rows(std::mt19937 &random, std::size_t count, std::uint32_t values) {
    const auto upto = [&random](std::uint32_t n) {
        return static_cast<std::uint32_t>(random() % (std::uint64_t{n} + 1));
    };
    std::vector<row> rows(count);
    for (row &r : rows) {
        const auto key = [&](const std::string &text) {
            r.keys.push_back(upto(19) == 0 ? "" : text);
        };
        key(fmt::format("key {}", upto(values)));
        key(fmt::format("{}", static_cast<int>(upto(values)) - 5));
        key(fmt::format("{}.5", upto(9)));
        r.value = upto(9) == 0 ? "" : fmt::format("{}", static_cast<int>(upto(2000)) - 1000);
    }
    return rows;
}

std::string csv_of(const std::vector<row> &rows) {
    std::string text = "t,i,d,v\n";
    for (const row &r : rows)
        text += fmt::format("{},{}\n", fmt::join(r.keys, ","), r.value);
    return text;
}

struct running {
    std::int64_t rows = 0, count = 0, sum = 0;
    std::int64_t least = std::numeric_limits<std::int64_t>::max();
    std::int64_t most = std::numeric_limits<std::int64_t>::min();

    std::string csv() const {
        if (count == 0)
            return fmt::format("{},0,,,,", rows);
        return fmt::format("{},{},{},{},{},{}", rows, count, sum, least, most,
                           static_cast<double>(sum) / static_cast<double>(count));
    }
};

constexpr const char *all_aggregates = "count(*),count(v),sum(v),min(v),max(v),mean(v)";

// One line per group, in the order of the groups' first rows.
std::string expected(const std::vector<row> &rows, const std::vector<std::size_t> &columns) {
    std::map<std::string, std::size_t> places;
    std::vector<running> groups;
    std::vector<std::string> names;
    for (const row &r : rows) {
        std::vector<std::string> parts;
        for (const std::size_t column : columns)
            parts.push_back(r.keys[column]);
        const std::string name = fmt::format("{}", fmt::join(parts, ","));
        const auto [place, is_new] = places.emplace(name, groups.size());
        if (is_new) {
            groups.emplace_back();
            names.push_back(name);
        }
        running &group = groups[place->second];
        ++group.rows;
        if (r.value.empty())
            continue;
        const std::int64_t value = std::stoll(r.value);
        ++group.count;
        group.sum += value;
        group.least = std::min(group.least, value);
        group.most = std::max(group.most, value);
    }
    std::string text;
    for (std::size_t i = 0; i < groups.size(); ++i)
        text += fmt::format("{},{}\n", names[i], groups[i].csv());
    return text;
}

// Row counts on both sides of where parallel grouping begins, few values and many.
TEST(Grouping, AgreesWithAMapOfKeys) {
    const std::vector<std::string> names{"t", "i", "d"};
    for (unsigned seed = 0; seed < 6; ++seed) {
        std::mt19937 random(seed);
        const std::size_t count = std::array<std::size_t, 3>{300, 65'536, 90'000}[seed % 3];
        const std::uint32_t values = seed < 3 ? 20 : 40'000;
        const auto rows = random_rows(random, count, values);
        const temporary_file file(csv_of(rows));
        for (const std::vector<std::size_t> &columns :
             std::vector<std::vector<std::size_t>>{{0}, {1}, {2}, {2, 1}, {0, 2, 1}}) {
            std::vector<std::string> keys;
            for (const std::size_t column : columns)
                keys.push_back(names[column]);
            const std::string by = fmt::format("{}", fmt::join(keys, ","));
            const std::string wanted =
                fmt::format("{},{}\n", by, all_aggregates) + expected(rows, columns);
            for (const char *threads : {"1", "3"}) {
                const outcome got = vask({file.path(), "--group-by", by, "--agg", all_aggregates,
                                          "--format", "csv", "--threads", threads});
                EXPECT_EQ(got.status, 0) << got.err;
                // Not EXPECT_EQ: the texts are megabytes.
                const auto differs =
                    std::mismatch(got.out.begin(), got.out.end(), wanted.begin(), wanted.end());
                EXPECT_TRUE(got.out == wanted)
                    << "seed " << seed << ", by " << by << ", " << threads
                    << " threads, differs at "
                    << std::string(differs.first, got.out.end()).substr(0, 80);
            }
        }
    }
}

TEST(Grouping, OrderOfGroups) {
    const std::string csv = "k,n,v\nb,2,1\n,nan,2\na,NA,3\nb,-1,4\nB,2,5\n";
    const auto groups = [&csv](const std::string &by, bool sorted) {
        std::vector<std::string> arguments{"-",      "--group-by", by,   "--agg",
                                           "sum(v)", "--format",   "csv"};
        if (sorted)
            arguments.emplace_back("--sort");
        const std::string out = vask(arguments, csv).out;
        return out.substr(out.find('\n') + 1);
    };
    EXPECT_EQ(groups("k", false), "b,5\n,2\na,3\nB,5\n");
    EXPECT_EQ(groups("k", true), "B,5\na,3\nb,5\n,2\n");
    EXPECT_EQ(groups("n", true), "-1,4\n2,6\nnan,2\n,3\n");
    EXPECT_EQ(groups("n,k", true), "-1,b,4\n2,B,5\n2,b,1\nnan,,2\n,a,3\n");
    EXPECT_EQ(vask({"-", "--group-by", "k", "--agg", "sum(v)"}, "k,v\n").out, "k  sum(v)\n");
}

TEST(Grouping, TimestampsAndTruthValues) {
    const std::string csv = "when,ok,x\n2024-02-29,t,1\n2023-01-01T10:00,f,2\nNA,t,3\n"
                            "2024-02-29 00:00:00,f,4\n";
    const std::vector<std::string> types{"--types", "when:timestamp,ok:bit", "--format", "csv"};
    const auto asked = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), types.begin(), types.end());
        return vask(arguments, csv).out;
    };
    EXPECT_EQ(asked({"-", "--agg", "min(when),max(when),count(when)"}),
              "min(when),max(when),count(when)\n2023-01-01 10:00:00,2024-02-29 00:00:00,3\n");
    EXPECT_EQ(asked({"-", "--group-by", "ok", "--agg", "min(when),sum(x)"}),
              "ok,min(when),sum(x)\ntrue,2024-02-29 00:00:00,4\nfalse,2023-01-01 10:00:00,6\n");
    EXPECT_EQ(asked({"-", "--group-by", "when", "--agg", "sum(x)"}),
              "when,sum(x)\n2024-02-29 00:00:00,5\n2023-01-01 10:00:00,2\n,3\n");
}

TEST(Grouping, ExplainNamesTheRoad) {
    std::mt19937 random(9);
    const auto road = [&](std::size_t count, std::uint32_t values, const std::string &by) {
        return vask({"-", "--group-by", by, "--agg", "sum(v)", "--explain", "--threads", "2"},
                    csv_of(random_rows(random, count, values)))
            .err;
    };
    const auto tells = [](const std::string &text, const std::string &pattern) {
        EXPECT_NE(text.find(pattern), std::string::npos) << pattern << " is not in\n" << text;
    };
    tells(road(300, 20, "i"), "(serial road: 300 rows are no more than 65536)");
    tells(road(90'000, 20, "t"), "(hash road: text, more than 65536 rows)");
    tells(road(90'000, 20, "i"), "(hash road: a sample of 1024 rows has no more than 800");
    tells(road(90'000, 4'000'000, "i"), "(sort road: a sample of 1024 rows has more than 800");
    tells(road(300, 20, "i,t"), "VASKderive(t): ");
    tells(road(300, 20, "i,t"), "groups before on 300 rows, 2 threads)");
    tells(road(90'000, 3, "d,i"), "road: 11 groups before on 90000 rows and ");
    tells(road(90'000, 20, "i"), "vask_grp_sum(v): 90000 rows, 2 partitions, ");
}

// The tool prints 14 digits.
TEST(Grouping, AgreesWithDatamash) {
    if (std::system("command -v datamash >/dev/null") != 0)
        GTEST_SKIP() << "datamash is not installed";
    std::mt19937 random(11);
    std::string csv = "k,x\n";
    for (int i = 0; i < 70'000; ++i)
        csv += fmt::format("k{},{}\n", random() % 300,
                           random() % 10 == 0
                               ? std::string("NA")
                               : fmt::format("{:.3f}", static_cast<double>(random() % 1'000'000)));
    for (const bool grouped : {false, true}) {
        std::vector<std::string> ours{"-", "--agg", "sum(x),min(x),max(x),mean(x)", "--format",
                                      "csv"};
        std::vector<std::string> theirs{"-t,", "--header-in", "--narm"};
        if (grouped) {
            ours.insert(ours.end(), {"--group-by", "k", "--sort"});
            theirs.insert(theirs.end(), {"-s", "-g", "1"});
        }
        theirs.insert(theirs.end(), {"sum", "2", "min", "2", "max", "2", "mean", "2"});
        std::istringstream got(vask(ours, csv).out);
        std::istringstream wanted(run("LC_ALL=C datamash", theirs, csv).out);
        std::string a, b;
        std::getline(got, a); // titles
        std::size_t lines = 0;
        for (; std::getline(wanted, b); ++lines) {
            ASSERT_TRUE(std::getline(got, a));
            std::istringstream fields_a(a), fields_b(b);
            while (std::getline(fields_b, b, ',')) {
                ASSERT_TRUE(std::getline(fields_a, a, ','));
                if (b.front() == 'k')
                    EXPECT_EQ(a, b);
                else
                    EXPECT_NEAR(std::stod(a), std::stod(b), 1e-11 * std::abs(std::stod(b)));
            }
        }
        EXPECT_EQ(lines, grouped ? 300U : 1U);
        EXPECT_FALSE(std::getline(got, a));
    }
}

} // namespace
