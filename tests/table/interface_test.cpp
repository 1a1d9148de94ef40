// The C interface beyond what generated queries reach: literal cases, refused requests.
#include "src/kernel/hostile.h"
#include "tests/table/literal_cells.h"

#include <random>
#include <set>
#include <tuple>

namespace vask_test {
namespace {

// The values that functions give of one column `v` without groups.
std::vector<cell> whole(const column_data &values, const std::vector<wanted> &functions,
                        unsigned flags = 0) {
    ledger counted;
    const table_pointer table = import_table(counted, {{values}});
    const table_data result = run(table.get(), {{}, functions, flags, 0});
    std::vector<cell> made;
    for (const column_data &column : result.columns)
        made.push_back(column.values.empty() ? cell::of_text("no row") : column.values[0]);
    return made;
}

constexpr double lowest = std::numeric_limits<double>::lowest();
constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();

TEST(Interface, ValuesThatAreTheKernelsNilsStayValues) {
    const auto number = whole({"v", "g", reals({lowest})}, {of("sum"), of("mean"), of("min"),
                                                            of("max"), of("count"), of("median")});
    for (const std::size_t i : {0U, 1U, 2U, 3U, 5U})
        EXPECT_EQ(number[i].real, lowest) << i;
    EXPECT_EQ(number[4].whole, 1);
    const auto integer = whole({"v", "l", wholes({least, 0})},
                               {of("sum"), of("min"), of("count_distinct"), of("median")});
    EXPECT_EQ(integer[0].whole, least);
    EXPECT_EQ(integer[1].whole, least);
    EXPECT_EQ(integer[2].whole, 2);
    EXPECT_EQ(integer[3].real, -0x1p62);

    // Also where a group with a null is null, and the values of others are those of certain rows.
    ledger counted;
    const table_pointer table = import_table(
        counted, {{{"k", "i", wholes({1, 1, 2, 2})},
                   {"v", "l", {cell::of(least), cell::of(least), cell::of(5), cell::null()}}}});
    const table_data grouped = run(
        table.get(), {{"k"}, {of("first"), of("last"), of("min"), of("mode")}, VASK_KEEP_NULLS, 0});
    for (std::size_t i = 1; i <= 4; ++i) {
        EXPECT_FALSE(grouped.columns[i].values[0].is_null()) << grouped.columns[i].name;
        EXPECT_EQ(grouped.columns[i].values[0].whole, least) << grouped.columns[i].name;
        EXPECT_TRUE(grouped.columns[i].values[1].is_null()) << grouped.columns[i].name;
    }
}

// Also the least and greatest of values that all are infinite, or of zeros of which none is -0.0.
TEST(Interface, ExtremesOfWholeColumns) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const std::vector<double> &values :
         {std::vector{infinity}, std::vector{-infinity, -infinity}, std::vector{0.0, 0.0, 1.0},
          std::vector{-0.0, 0.0}, std::vector{0.0, -0.0, -1.0},
          std::vector<double>(40, infinity)}) {
        const auto found = whole({"v", "g", reals(values)}, {of("min"), of("max")});
        const auto [least_at, most_at] = std::minmax_element(values.begin(), values.end());
        EXPECT_EQ(found[0].real, *least_at);
        EXPECT_EQ(std::signbit(found[0].real), std::signbit(*least_at));
        EXPECT_EQ(found[1].real, *most_at);
    }
}

TEST(Interface, EdgesOf64Bits) {
    constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(whole({"v", "l", wholes({0, most})}, {of("range")})[0].whole, most);
    const auto two = whole({"v", "l", wholes({least, 5})},
                           {of("largest", "v", 2), {"largest", {"v"}, 3, "third"}, of("mode")});
    EXPECT_EQ(two[0].whole, least);
    EXPECT_TRUE(two[1].is_null());
    EXPECT_TRUE(two[2].is_null());
}

// A NaN that counts as null is in the group of the nulls, whatever else the key's column holds.
TEST(Interface, NaNThatIsNullAndNullAreOneGroup) {
    ledger counted;
    const table_pointer table = import_table(
        counted,
        {{{"k", "g", {cell::of_real(lowest), cell::null(), cell::of_real(std::nan(""))}}}});
    const table_data result =
        run(table.get(), {{"k"}, {{"size", {}, 0, "n"}}, VASK_NAN_IS_NULL, 0});
    ASSERT_EQ(result.rows(), 2U) << shown(result);
    EXPECT_EQ(result.columns[1].values[1].whole, 2);
}

// Times between two times are rounded in one way, however many quantiles share their selection.
TEST(Interface, MiddlesOfTimesDoNotDependOnOtherFunctions) {
    const column_data dates{"v", "tdD", wholes({-3, -2})};
    const auto alone = whole(dates, {of("median")});
    const auto together = whole(dates, {of("median"), of("quantile", "v", 0.25)});
    EXPECT_EQ(alone[0].whole, -3) << "halves go away from zero";
    EXPECT_EQ(together[0].whole, -3);
}

// Several share one selection, where one alone is an operator's.
TEST(Interface, QuantilesAreTheSameAloneAndTogether) {
    ledger counted;
    std::mt19937 random(11);
    column_data keys{"k", "i", {}};
    column_data values{"v", "g", {}};
    for (int row = 0; row < 30'000; ++row) {
        // Groups of one row, of some, and of half of all.
        const auto key = random() % 2 == 0 ? wide{0} : wide{random() % 8'000};
        keys.values.push_back(cell::of(key));
        values.values.push_back(
            random() % 20 == 0 ? cell::null() : cell::of_real(static_cast<double>(random()) / 7));
    }
    const table_pointer table = import_table(counted, {{keys, values}});
    std::vector<wanted> functions;
    for (const double share : {0.0, 0.1, 0.5, 0.77, 0.999, 1.0})
        functions.push_back({"quantile", {"v"}, share, std::to_string(share)});
    const table_data together = run(table.get(), {{"k"}, functions, 0, 0});
    for (std::size_t i = 0; i < functions.size(); ++i) {
        const table_data alone = run(table.get(), {{"k"}, {functions[i]}, 0, 0});
        ASSERT_EQ(alone.rows(), together.rows());
        for (std::size_t row = 0; row < alone.rows(); ++row)
            ASSERT_EQ(shown(alone.columns[1].values[row]),
                      shown(together.columns[i + 1].values[row]))
                << functions[i].parameter << " of group " << row;
    }
}

TEST(Interface, AliasesGiveWhatTheirFunctionsGive) {
    const std::string all = vask_functions();
    ledger counted;
    table_data data{{{"v", "g", reals({1, 2.5, 2.5, 7, 11})}, {"w", "g", reals({1, 0, 3, 4, 9})}}};
    const table_pointer table = import_table(counted, data);
    int aliases = 0;
    int functions = 0;
    for (std::size_t at = 0; at < all.size();) {
        const std::size_t end = all.find('\n', at);
        const std::string line = all.substr(at, end - at);
        at = end + 1;
        std::vector<std::string> parts{""};
        for (const char c : line) {
            if (c == '\t')
                parts.emplace_back();
            else
                parts.back().push_back(c);
        }
        ASSERT_GE(parts.size(), 5U) << line;
        const std::string same = "the same as ";
        if (parts[4].compare(0, same.size(), same) == 0) {
            ++aliases;
            const std::string rest = parts[4].substr(same.size());
            const std::size_t of_at = rest.find(" of ");
            wanted alias{parts[0], {}, 0, "a"};
            wanted original{rest.substr(0, of_at), {}, 0, "b"};
            if (of_at != std::string::npos)
                original.parameter = std::stod(rest.substr(of_at + 4));
            const std::size_t line_at = ("\n" + all).find("\n" + original.function + "\t");
            ASSERT_NE(line_at, std::string::npos) << line;
            const char columns = all[line_at + original.function.size() + 1];
            for (wanted *each : {&alias, &original})
                for (char i = '0'; i < columns; ++i)
                    each->columns.push_back(i == '0' ? "v" : "w");
            if (parts[0] == "percentile")
                alias.parameter = original.parameter = 0.3;
            const table_data result = run(table.get(), {{}, {alias, original}, 0, 0});
            ASSERT_EQ(result.columns.size(), 2U) << line;
            EXPECT_EQ(shown(result.columns[0].values[0]), shown(result.columns[1].values[0]))
                << line;
            EXPECT_EQ(result.columns[0].format, result.columns[1].format) << line;
        } else {
            ++functions;
        }
    }
    EXPECT_GE(aliases, 35);
    EXPECT_GE(functions, 32);
}

// A character for each row of the first table's column v.
std::string is_in(const table_pointer &left, const table_pointer &right) {
    vask_result *made = nullptr;
    char *error = nullptr;
    const outcome told =
        take(vask_is_in(left.get(), "v", right.get(), "v", nullptr, &made, &error), error);
    const result_pointer result(made);
    if (told.code != VASK_OK)
        return "code " + std::to_string(told.code);
    std::string text;
    const table_data read = read_result(made);
    for (const cell &value : read.columns[0].values)
        text += value.is_null() ? '-' : value.whole != 0 ? '1' : '0';
    return text;
}

TEST(Interface, IsInComparesByValue) {
    ledger counted;
    const double nan = std::nan("");
    const auto contained = [&](const column_data &own, const column_data &other) {
        return is_in(import_table(counted, {{own}}, {{{.offset = 3}}, {}, 2}),
                     import_table(counted, {{other}}, {{{.dictionary = true}}, {}}));
    };
    const cell null = cell::null();
    const wide far = wide{1} << 63;
    EXPECT_EQ(contained({"v", "i", wholes({1, 2, -2147483648LL})}, {"v", "s", wholes({2, 2, 5})}),
              "010");
    EXPECT_EQ(contained({"v", "i", {cell::of(-2147483648LL), null, cell::of(0)}},
                        {"v", "l", {cell::of(-2147483648LL), null}}),
              "1-0");
    EXPECT_EQ(
        contained({"v", "L", wholes({far, far + 1, 3})}, {"v", "l", wholes({least, least + 1, 3})}),
        "001");
    EXPECT_EQ(
        contained({"v", "l", wholes({least, least + 1, 3})}, {"v", "L", wholes({far, far + 1, 3})}),
        "001");
    // A column with the least number has other negative ones too.
    EXPECT_EQ(contained({"v", "l", wholes({least, -5, 3})}, {"v", "l", wholes({-5, 3})}), "011");
    EXPECT_EQ(contained({"v", "l", wholes({-5, 4})}, {"v", "l", wholes({least, -5, 3})}), "10");
    EXPECT_EQ(contained({"v", "g", reals({nan, -0.0, 0.5, 1, lowest, 0x1p63})},
                        {"v", "g", reals({-nan, 0.0, lowest})}),
              "110010");
    EXPECT_EQ(contained({"v", "g", reals({nan, -0.0, 0.5, 1, 0x1p63})}, {"v", "l", wholes({0, 1})}),
              "01010");
    EXPECT_EQ(contained({"v", "l", wholes({(wide{1} << 53) + 1, wide{1} << 53})},
                        {"v", "g", reals({0x1p53})}),
              "01");
    // Floats reach all unsigned numbers, and beyond them.
    EXPECT_EQ(contained({"v", "L", wholes({far, far + 2048, far + 1, 3, 2 * far - 1})},
                        {"v", "g", reals({0x1p63, 0x1p63 + 2048, 3, 0x1p64, -0x1p63, nan})}),
              "11010");
    EXPECT_EQ(contained({"v", "g", reals({0x1p63, 0x1p63 + 2048, -0.0, 0x1p64, -0x1p63, -1, nan})},
                        {"v", "L", wholes({far, far + 1, 0, 2 * far - 1})}),
              "1010000");
    EXPECT_EQ(contained({"v", "f", reals({0x1p63, 0x1p62})}, {"v", "L", wholes({far})}), "10");
    EXPECT_EQ(
        contained({"v", "u", {cell::of_text(std::string("a\0b", 3)), null, cell::of_text("")}},
                  {"v", "vu", words({std::string("a\0c", 3), ""})}),
        "0-1");
    EXPECT_EQ(contained({"v", "b", wholes({0, 1})}, {"v", "i", wholes({1, 2})}), "01");
    EXPECT_EQ(contained({"v", "i", {null, cell::of(1)}}, {"v", "n", {null}}), "-0");
    EXPECT_EQ(contained({"v", "n", {null, null}}, {"v", "i", wholes({1})}), "--");
    EXPECT_EQ(contained({"v", "n", {null, null}}, {"v", "n", {null}}), "--");
    EXPECT_EQ(contained({"v", "i", {}}, {"v", "i", {}}), "");
    EXPECT_EQ(contained({"v", "d:10,2", wholes({150, 2})}, {"v", "d:12,2", wholes({150})}), "10");
    EXPECT_EQ(contained({"v", "u", words({"1"})}, {"v", "i", wholes({1})}), "code 1");
    EXPECT_EQ(contained({"v", "tss:", wholes({1})}, {"v", "tsm:", wholes({1000})}), "code 1");
}

// Of blocks in which nothing compares, no row behind the end is taken for one that does.
TEST(Interface, NothingIsInAColumnWithoutValuesThatCompare) {
    ledger counted;
    const table_pointer left = import_table(counted, {{{"v", "l", wholes({0, 1, -1, 255})}}});
    const table_pointer unsigned_left =
        import_table(counted, {{{"v", "L", wholes({0, wide{1} << 63})}}});
    for (const std::size_t rows : {1U, 1023U, 1024U, 1025U, 3072U}) {
        SCOPED_TRACE(rows);
        const auto column = [&](const char *format, const cell &value) {
            return import_table(counted, {{{"v", format, std::vector<cell>(rows, value)}}});
        };
        EXPECT_EQ(is_in(left, column("i", cell::null())), "0000");
        EXPECT_EQ(is_in(left, column("l", cell::null())), "0000");
        EXPECT_EQ(is_in(left, column("g", cell::of_real(0.5))), "0000");
        EXPECT_EQ(is_in(unsigned_left, column("l", cell::of(least))), "00");
    }
}

TEST(Interface, IsInOfManyRowsIsALookupPerRow) {
    ledger counted;
    std::mt19937_64 random(3);
    const auto as = [](const std::string &format, std::int64_t number) {
        switch (sort_of_format(format)) {
            case sort_of::real:
                return cell::of_real(static_cast<double>(number));
            case sort_of::text:
                return cell::of_text("text number " + std::to_string(number));
            default:
                return cell::of(number);
        }
    };
    // Tables are taken for known values that lie far apart, and for many of them several.
    for (const auto &[own, other, bits] : {std::tuple{"i", "i", 31U},
                                           {"i", "l", 31U},
                                           {"l", "l", 40U},
                                           {"l", "L", 52U},
                                           {"g", "g", 40U},
                                           {"l", "g", 40U},
                                           {"u", "vu", 20U}})
        for (const std::size_t n : {40U, vask::unless_hostile(100'000U, 4'000U)}) {
            SCOPED_TRACE(std::string(own) + " in " + other + ", " + std::to_string(n));
            const auto draw = [&, bits = bits, least = other == std::string("L") ? 0 : -1] {
                return static_cast<std::int64_t>(random() >> (64 - bits)) +
                       least * (std::int64_t{1} << (bits - 1));
            };
            column_data right{"v", other, {}};
            std::vector<std::int64_t> known;
            for (std::size_t i = 0; i < n; ++i) {
                known.push_back(i == 1 ? 0 : draw());
                right.values.push_back(i % 7 == 0 ? cell::null() : as(other, known.back()));
            }
            std::set<std::int64_t> present;
            for (std::size_t i = 0; i < n; ++i)
                if (i % 7 != 0)
                    present.insert(known[i]);
            column_data left{"v", own, {}};
            std::string expected;
            for (std::size_t i = 0; i < 4000; ++i) {
                const std::int64_t asked = i % 2 == 0 ? known[random() % n] : draw();
                left.values.push_back(i % 5 == 0 ? cell::null() : as(own, asked));
                expected += i % 5 == 0 ? '-' : present.contains(asked) ? '1' : '0';
            }
            EXPECT_EQ(is_in(import_table(counted, {{left}}), import_table(counted, {{right}})),
                      expected);
        }
}

TEST(Interface, SumsBeyond64BitsNameTheirGroup) {
    ledger counted;
    const wide large = wide{1} << 62;
    const table_pointer table = import_table(
        counted,
        {{{"k", "u", words({"x", "y", "y", "y"})}, {"v", "l", wholes({1, large, large, large})}}});
    result_pointer result;
    const outcome told = run(table.get(), {{"k"}, {of("sum")}, 0, 0}, result);
    EXPECT_EQ(told.code, VASK_BAD_DATA);
    EXPECT_NE(told.text.find("k 'y'"), std::string::npos) << told.text;
    const table_pointer without_key =
        import_table(counted, {{{"k", "u", {cell::null(), cell::null()}},
                                {"n", "i", {cell::null(), cell::null()}},
                                {"v", "l", wholes({large, large})}}});
    const outcome null_keys = run(without_key.get(), {{"k", "n"}, {of("sum")}, 0, 0}, result);
    EXPECT_NE(null_keys.text.find("k null, n null"), std::string::npos) << null_keys.text;
    const table_data wide_sums = run(table.get(), {{"k"}, {of("sum")}, VASK_WIDE_SUMS, 0});
    EXPECT_EQ(wide_sums.columns[1].format, "d:38,0");
    EXPECT_EQ(shown(wide_sums.columns[1].values[1]), "13835058055282163712");
}

TEST(Interface, BadRequestsAreRefusedWithATextAndStoreNothing) {
    ledger counted;
    const table_pointer table = import_table(counted, {{{"v", "i", wholes({1})},
                                                        {"t", "u", words({"x"})},
                                                        {"odd", "w:3", wholes({1})},
                                                        {"digits", "d:5,-2", wholes({1})},
                                                        {"v2", "g", reals({1})},
                                                        {"v2", "g", reals({1})}}});
    const auto refused = [&](const asked_query &asked, const std::string &says) {
        result_pointer result;
        const outcome told = run(table.get(), asked, result);
        EXPECT_EQ(told.code, VASK_BAD_REQUEST) << says;
        EXPECT_EQ(result, nullptr);
        EXPECT_NE(told.text.find(says), std::string::npos) << told.text;
    };
    refused({{}, {of("medain")}, 0, 0}, "medain");
    refused({{}, {of("sum", "t")}, 0, 0}, "utf8");
    refused({{}, {of("sum", "w")}, 0, 0}, "'w'");
    refused({{}, {of("sum", "v2")}, 0, 0}, "several");
    refused({{}, {of("count", "odd")}, 0, 0}, "w:3");
    refused({{"odd"}, {}, 0, 0}, "w:3");
    refused({{}, {of("count", "digits")}, 0, 0}, "d:5,-2");
    refused({{"v", "v"}, {}, 0, 0}, "twice");
    refused({{}, {of("sum"), of("sum")}, 0, 0}, "sum(v)");
    refused({{}, {{"sum", {}, 0, ""}}, 0, 0}, "1 column");
    refused({{}, {of("sum", "v", 3)}, 0, 0}, "no parameter");
    refused({{}, {of("quantile", "v", 1.5)}, 0, 0}, "1.5");
    refused({{}, {of("quantile", "v", std::nan(""))}, 0, 0}, "nan");
    refused({{}, {of("largest", "v", 0)}, 0, 0}, "largest");
    refused({{}, {of("quartile", "v", 1.5)}, 0, 0}, "1.5");
    refused({{}, {}, 0, 0}, "nothing");
    refused({{"v"}, {}, 0, 257}, "257");
    refused({{"v"}, {}, 0, -1}, "-1");
    refused({{"v"}, {}, 1U << 20, 0}, "0x100000");
    vask_query query = query_record({{"v"}, {}, 0, 0}).record;
    query.size = 3;
    vask_result *result = nullptr;
    EXPECT_EQ(vask_run(table.get(), &query, &result, nullptr), VASK_BAD_REQUEST);
    EXPECT_EQ(vask_run(table.get(), nullptr, &result, nullptr), VASK_BAD_REQUEST);
    EXPECT_EQ(vask_run(nullptr, &query, &result, nullptr), VASK_BAD_REQUEST);
    EXPECT_EQ(vask_merge(nullptr, 1, &query, 1, &result, nullptr), VASK_BAD_REQUEST);
    const query_record good({{"v"}, {}, 0, 0});
    char *error = nullptr;
    EXPECT_EQ(vask_merge(nullptr, 0, &good.record, 1, &result, &error), VASK_BAD_REQUEST);
    EXPECT_NE(std::string(error).find("no states"), std::string::npos) << error;
    vask_free_text(error);
    std::int32_t code = -7;
    std::int64_t groups = -7;
    const auto refused_codes = [&](const vask_query &of, std::int32_t *codes, std::int64_t *count,
                                   const char *says) {
        char *text = nullptr;
        const outcome told = take(vask_group_codes(table.get(), &of, codes, count, &text), text);
        EXPECT_EQ(told.code, VASK_BAD_REQUEST) << says;
        EXPECT_NE(told.text.find(says), std::string::npos) << told.text;
    };
    vask_query without_keys = good.record;
    without_keys.by = nullptr;
    refused_codes(without_keys, &code, &groups, "by");
    without_keys.n_by = 0;
    refused_codes(without_keys, &code, &groups, "at least one key");
    refused_codes(query_record({{"w"}, {}, 0, 0}).record, &code, &groups, "'w'");
    refused_codes(query_record({{"v"}, {}, 1U << 20, 0}).record, &code, &groups, "0x100000");
    refused_codes(good.record, nullptr, &groups, "codes");
    refused_codes(good.record, &code, nullptr, "groups");
    EXPECT_EQ(vask_group_codes(table.get(), nullptr, &code, &groups, nullptr), VASK_BAD_REQUEST);
    EXPECT_EQ(code, -7);
    EXPECT_EQ(groups, -7);
    EXPECT_EQ(vask_result_stream(nullptr, nullptr, nullptr), VASK_BAD_REQUEST);
    EXPECT_EQ(vask_table_rows(nullptr), -1);
    EXPECT_EQ(result, nullptr);
    vask_table_free(nullptr);
    vask_result_free(nullptr);
    vask_free_text(nullptr);
}

// ---- malformed arrays ---------------------------------------------------------------------------

// Batches can have parts of one array as their dictionaries.
TEST(Interface, DictionariesThatShareMemoryAreOthers) {
    ledger counted;
    ArrowArray first{};
    const table_pointer table =
        import_stream(make_stream(counted, {{{"v", "u", words({"a", "b", "c", "b", "c"})}}},
                                  {{{.dictionary = true}}, {3, 2}}, [&](ArrowArray &batch) {
                                      ArrowArray &dictionary = *batch.children[0]->dictionary;
                                      if (first.buffers == nullptr) {
                                          first = dictionary;
                                          return;
                                      }
                                      // In the memory of the first one, where the entries are c, b
                                      // and a behind one of no
                                      // row, but without that: b and c become a and b.
                                      std::copy_n(first.buffers, 3, dictionary.buffers);
                                      dictionary.offset = first.offset + 1;
                                  }));
    const table_data found = run(table.get(), {{"v"}, {{"size", {}, 0, "n"}}, 0, 0});
    EXPECT_EQ(shown(found), "v (u): 'a' 'b' 'c'\nn (l): 2 2 1\n");
}

// Texts of a result are written by several tasks, each behind those of the ones before.
TEST(Interface, ManyTextsComeBack) {
    ledger counted;
    constexpr int rows = vask::unless_hostile(200'000, 4'000);
    table_data data{{{"k", "u", {}}}};
    for (int row = 0; row < rows; ++row)
        data.columns[0].values.push_back(cell::of_text("text " + std::to_string(row * 7)));
    const table_pointer table = import_table(counted, data);
    const table_data found = run(table.get(), {{"k"}, {{"size", {}, 0, "n"}}, 0, 0});
    ASSERT_EQ(found.rows(), data.rows());
    for (std::size_t row = 0; row < data.rows(); ++row)
        ASSERT_EQ(found.columns[0].values[row].text, data.columns[0].values[row].text) << row;
}

// ---- states -------------------------------------------------------------------------------------

TEST(States, OfAnotherVersionOrQueryAreRefused) {
    ledger counted;
    const table_pointer table =
        import_table(counted, {{{"k", "i", wholes({1, 1, 2})}, {"v", "g", reals({1, 2, 4})}}});
    const query_record query({{"k"}, {of("sum")}, 0, 0});
    vask_result *made = nullptr;
    ASSERT_EQ(vask_partial(table.get(), &query.record, &made, nullptr), VASK_OK);
    const result_pointer states(made);
    const auto merged_without = [&](const std::string &column) {
        table_data data = read_result(states.get());
        std::erase_if(data.columns, [&](const column_data &of) { return of.name == column; });
        const table_pointer whole = import_table(counted, read_result(states.get()));
        const table_pointer part = import_table(counted, data);
        const std::array<const vask_table *, 2> parts{whole.get(), part.get()};
        vask_result *merged = nullptr;
        char *error = nullptr;
        const outcome told =
            take(vask_merge(parts.data(), parts.size(), &query.record, 1, &merged, &error), error);
        const result_pointer result(merged);
        EXPECT_EQ(told.code, column.empty() ? VASK_OK : VASK_BAD_DATA);
        return told.text;
    };
    EXPECT_EQ(merged_without(""), "");
    for (const column_data &column : read_result(states.get()).columns) {
        const std::string told = merged_without(column.name);
        EXPECT_NE(told.find("part 2 of the states has no column"), std::string::npos) << told;
        EXPECT_EQ(told.find("another version") != told.npos, column.name == "vask.states.1")
            << told;
    }
}

// ---- threads ------------------------------------------------------------------------------------

} // namespace
} // namespace vask_test
