// The C interface beyond what generated queries reach: literal cases, refusals, ownership, threads.
#include "tests/table/plain_query.h"

#include <random>
#include <set>
#include <thread>
#include <tuple>

#include <tbb/global_control.h>

namespace vask_test {
namespace {

std::vector<cell> reals(const std::vector<double> &values) {
    std::vector<cell> made;
    for (const double value : values)
        made.push_back(cell::of_real(value));
    return made;
}

std::vector<cell> wholes(const std::vector<wide> &values) {
    std::vector<cell> made;
    for (const wide value : values)
        made.push_back(cell::of(value));
    return made;
}

std::vector<cell> words(const std::vector<std::string> &values) {
    std::vector<cell> made;
    for (const std::string &value : values)
        made.push_back(cell::of_text(value));
    return made;
}

wanted of(std::string function, std::string column = "v", double parameter = 0) {
    return {std::move(function), {std::move(column)}, parameter, ""};
}

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
    EXPECT_EQ(
        contained({"v", "u", {cell::of_text(std::string("a\0b", 3)), null, cell::of_text("")}},
                  {"v", "vu", words({std::string("a\0c", 3), ""})}),
        "0-1");
    EXPECT_EQ(contained({"v", "b", wholes({0, 1})}, {"v", "i", wholes({1, 2})}), "01");
    EXPECT_EQ(contained({"v", "i", {null, cell::of(1)}}, {"v", "n", {null}}), "-0");
    EXPECT_EQ(contained({"v", "i", {}}, {"v", "i", {}}), "");
    EXPECT_EQ(contained({"v", "d:10,2", wholes({150, 2})}, {"v", "d:12,2", wholes({150})}), "10");
    EXPECT_EQ(contained({"v", "u", words({"1"})}, {"v", "i", wholes({1})}), "code 1");
    EXPECT_EQ(contained({"v", "tss:", wholes({1})}, {"v", "tsm:", wholes({1000})}), "code 1");
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
        for (const std::size_t n : {40U, 100'000U}) {
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

// Imports and runs a query on a table of ten rows whose batch was spoilt; all is released once.
void expect_malformed(const std::string &format, const array_layout &how,
                      const std::function<void(ArrowArray &column)> &spoil) {
    SCOPED_TRACE(format);
    ledger counted;
    column_data values{"v", format, {}};
    for (int i = 0; i < 10; ++i)
        values.values.push_back(sort_of_format(format) == sort_of::text
                                    ? cell::of_text("more than twelve bytes")
                                    : cell::of(i));
    outcome told;
    const table_pointer table =
        import_stream(make_stream(counted, {{values}}, {{how}, {}},
                                  [&](ArrowArray &batch) { spoil(*batch.children[0]); }),
                      &told);
    if (table != nullptr) {
        result_pointer result;
        told = run(table.get(), {{"v"}, {of("count")}, 0, 0}, result);
    }
    EXPECT_EQ(told.code, VASK_BAD_DATA) << told.text;
    EXPECT_NE(told.text.find("'v'"), std::string::npos) << told.text;
}

template <class T>
void set(ArrowArray &array, int buffer, std::size_t at, T value) {
    std::memcpy(static_cast<char *>(const_cast<void *>(array.buffers[buffer])) + at * sizeof value,
                &value, sizeof value);
}

TEST(Malformed, ArraysAreRefusedAndReleasedOnce) {
    constexpr auto most = std::numeric_limits<std::int64_t>::max();
    for (const char *const format : {"i", "g", "b", "u", "U", "vu", "d:9,2", "tsu:UTC"}) {
        expect_malformed(format, {}, [](ArrowArray &of) { of.length = -1; });
        expect_malformed(format, {}, [](ArrowArray &of) { of.offset = -1; });
        expect_malformed(format, {}, [](ArrowArray &of) { of.length = 9; });
        expect_malformed(format, {}, [](ArrowArray &of) { of.offset = most - 3; });
        expect_malformed(format, {}, [](ArrowArray &of) { of.n_buffers = 1; });
        expect_malformed(format, {}, [](ArrowArray &of) { of.buffers = nullptr; });
        expect_malformed(format, {}, [](ArrowArray &of) { of.buffers[1] = nullptr; });
    }
    expect_malformed("u", {}, [](ArrowArray &of) { set<std::int32_t>(of, 1, 4, 1); });
    expect_malformed("U", {}, [](ArrowArray &of) { set<std::int64_t>(of, 1, 4, 1); });
    expect_malformed("u", {}, [](ArrowArray &of) { set<std::int32_t>(of, 1, 0, -5); });
    expect_malformed("u", {}, [](ArrowArray &of) { of.buffers[2] = nullptr; });
    expect_malformed("vu", {}, [](ArrowArray &of) { set<std::int32_t>(of, 1, 0, -1); });
    expect_malformed("vu", {}, [](ArrowArray &of) { set<std::int32_t>(of, 1, 0, 1 << 30); });
    expect_malformed("vu", {}, [](ArrowArray &of) { set<std::int32_t>(of, 1, 2, 1); });
    expect_malformed("vu", {}, [](ArrowArray &of) { set<std::int32_t>(of, 1, 2, -1); });
    expect_malformed("vu", {}, [](ArrowArray &of) { set<std::int32_t>(of, 1, 3, 1 << 30); });
    expect_malformed("vu", {}, [](ArrowArray &of) { of.buffers[2] = nullptr; });
    expect_malformed("vu", {}, [](ArrowArray &of) { of.buffers[3] = nullptr; });
    for (const char *const format : {"i", "u"}) {
        const array_layout coded{.dictionary = true};
        expect_malformed(format, coded, [](ArrowArray &of) { of.dictionary = nullptr; });
        expect_malformed(format, coded, [](ArrowArray &of) { set<std::int32_t>(of, 1, 3, 99); });
        expect_malformed(format, coded, [](ArrowArray &of) { set<std::int32_t>(of, 1, 3, -1); });
        expect_malformed(format, coded, [](ArrowArray &of) { of.dictionary->length = -2; });
    }
}

// ---- full validation ----------------------------------------------------------------------------

// What a query says with and without VASK_VALIDATE about rows of one batch, perhaps spoilt.
void expect_found_by_validation(const column_data &values, const array_layout &how,
                                const std::function<void(ArrowArray &column)> &spoil,
                                const std::string &part_of_text) {
    SCOPED_TRACE(values.format + ": " + part_of_text);
    for (const bool by_codes : {false, true})
        for (const unsigned flags : {0U, static_cast<unsigned>(VASK_VALIDATE)}) {
            ledger counted;
            outcome told;
            const table_pointer table =
                import_stream(make_stream(counted, {{values}}, {{how}, {}},
                                          [&](ArrowArray &batch) { spoil(*batch.children[0]); }),
                              &told);
            ASSERT_NE(table, nullptr) << told.text;
            if (by_codes) {
                const query_record query({{"v"}, {}, flags, 0});
                std::vector<std::int32_t> codes(values.values.size());
                std::int64_t groups = 0;
                told.code =
                    vask_group_codes(table.get(), &query.record, codes.data(), &groups, nullptr);
            } else {
                result_pointer result;
                told = run(table.get(), {{}, {of("count")}, flags, 0}, result);
                if (flags != 0) {
                    EXPECT_NE(told.text.find(part_of_text), std::string::npos) << told.text;
                }
            }
            EXPECT_EQ(told.code, flags == 0 || part_of_text.empty() ? VASK_OK : VASK_BAD_DATA);
        }
}

TEST(Validation, FindsTextsThatAreNoUtf8) {
    const auto nothing = [](ArrowArray &) {};
    const auto column = [](const char *format, const std::string &text) {
        column_data made{"v", format, words({"a", "some longer text of plain bytes"})};
        made.values.push_back(cell::null());
        made.values.push_back(cell::of_text(text));
        return made;
    };
    const std::string ahead[] = {"", "eight by", "as long as a view's own bytes"};
    // On both sides of each bound of the encoding.
    for (const char *const bad :
         {"\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xc2", "\xc2\x7f", "\xdf\xc0", "\xe0\x9f\xbf",
          "\xe1\x80", "\xe1\x80\x7f", "\xe1\x80\xc0", "\xed\xa0\x80", "\xf0\x8f\xbf\xbf",
          "\xf0\x90\x80", "\xf1\x80\x80\x41", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff"})
        for (const std::string &before : ahead) {
            for (const char *const format : {"u", "U", "vu"})
                expect_found_by_validation(column(format, before + bad), {.offset = 3}, nothing,
                                           "'v': row 3 of a batch is no UTF-8");
            for (const char *const format : {"z", "Z", "vz"})
                expect_found_by_validation(column(format, before + bad), {}, nothing, "");
        }
    for (const char *const good :
         {"", "\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
          "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf3\xbf\xbf\xbf", "\xf4\x8f\xbf\xbf"})
        for (const std::string &before : ahead)
            for (const char *const format : {"u", "U", "vu"}) {
                expect_found_by_validation(column(format, before + good), {}, nothing, "");
                expect_found_by_validation(column(format, good + before), {.dictionary = true},
                                           nothing, "");
            }
}

TEST(Validation, FindsWhatNoReadMeets) {
    column_data texts{"v", "u", words({"a", "b", "c"})};
    texts.values.insert(texts.values.end(), 2, cell::null());
    texts.values.push_back(cell::of_text("a text that is longer than a view"));
    column_data numbers{"v", "i", {cell::of(1), cell::null(), cell::of(3)}};

    // Between two nulls.
    for (const int place : {0, 1 << 20})
        expect_found_by_validation(
            texts, {.offset = 2}, [&](ArrowArray &of) { set<std::int32_t>(of, 1, 2 + 4, place); },
            place == 0 ? "'v': the offsets of row 3 " : "'v': the offsets of row 4 ");
    // Of as many nulls as there are, and where a bitmap would be.
    for (column_data *const column : {&texts, &numbers}) {
        expect_found_by_validation(
            *column, {.offset = 1}, [](ArrowArray &of) { of.null_count += 1; }, "nulls and has");
        expect_found_by_validation(
            *column, {.offset = 1}, [](ArrowArray &of) { of.null_count = 0; }, "to have 0 nulls");
        expect_found_by_validation(
            *column, {}, [](ArrowArray &of) { of.buffers[0] = nullptr; }, "nulls and has 0");
        expect_found_by_validation(
            *column, {.count_nulls = false}, [](ArrowArray &) {}, "");
    }
    texts.format = "vu";
    const std::string other = "'v': the view of row 5 of a batch has other bytes";
    expect_found_by_validation(
        texts, {}, [](ArrowArray &of) { set<char>(of, 1, 16 * 5 + 7, '!'); }, other);
    expect_found_by_validation(
        texts, {}, [](ArrowArray &of) { set<char>(of, 1, 16 * 0 + 15, '!'); }, "view of row 0");
    // Entries of no row, and values of a dictionary that is not made of texts.
    texts.format = "u";
    expect_found_by_validation(
        texts, {.dictionary = true},
        [](ArrowArray &of) { set<char>(*of.dictionary, 2, 6, '\xff'); },
        "'v': row 0 of a batch is no UTF-8");
    expect_found_by_validation(
        numbers, {.dictionary = true}, [](ArrowArray &of) { of.dictionary->null_count = 1; },
        "to have 1 nulls and has 0");
}

// The offset behind a batch's last row is none of the array's last, which alone is true.
TEST(Malformed, OffsetsBehindABatchThatIsShorterThanItsArray) {
    for (const char *const format : {"u", "U"}) {
        SCOPED_TRACE(format);
        ledger counted;
        const column_data values{"v", format, words({"a", "b", "c", "d"})};
        outcome told;
        const table_pointer table = import_stream(
            make_stream(counted, {{values}}, {},
                        [&](ArrowArray &batch) {
                            batch.length = 2;
                            if (format[0] == 'u')
                                set<std::int32_t>(*batch.children[0], 1, 2, 1 << 24);
                            else
                                set<std::int64_t>(*batch.children[0], 1, 2, std::int64_t{1} << 24);
                        }),
            &told);
        EXPECT_EQ(told.code, VASK_BAD_DATA) << told.text;
    }
}

TEST(Malformed, StreamsAreRefusedAndReleasedOnce) {
    const table_data data{{{"v", "i", wholes({1, 2, 3, 4})}, {"t", "u", words({"", "", "", ""})}}};
    const auto refused = [&](int code, const table_layout &how,
                             std::function<void(ArrowArray &)> spoil = {},
                             std::function<void(ArrowSchema &)> spoil_schema = {}) {
        ledger counted;
        outcome told;
        const table_pointer table = import_stream(
            make_stream(counted, data, how, std::move(spoil), std::move(spoil_schema)), &told);
        EXPECT_EQ(told.code, code) << told.text;
        return told.text;
    };
    table_layout fails{{}, {1, 2, 1}};
    fails.fails_at = 2;
    EXPECT_NE(refused(VASK_FAILED, fails).find("the disk is gone"), std::string::npos);
    table_layout no_schema;
    no_schema.fails_at_schema = true;
    refused(VASK_FAILED, no_schema);
    refused(VASK_BAD_DATA, {}, [](ArrowArray &of) { of.n_children = 1; });
    refused(VASK_BAD_DATA, {}, [](ArrowArray &of) { of.length = -1; });
    refused(VASK_BAD_DATA, {}, [](ArrowArray &of) { of.offset = -1; });
    refused(VASK_BAD_DATA, {},
            [](ArrowArray &of) { of.offset = std::numeric_limits<std::int64_t>::max() - 1; });
    refused(VASK_BAD_REQUEST, {}, [](ArrowArray &of) {
        of.length = std::int64_t{1} << 32;
        for (int i = 0; i < 2; ++i)
            of.children[i]->length = of.length;
    });
    refused(VASK_BAD_DATA, {}, {}, [](ArrowSchema &of) { of.format = "i"; });
    refused(VASK_BAD_DATA, {}, {}, [](ArrowSchema &of) { of.format = nullptr; });
    refused(VASK_BAD_DATA, {}, {}, [](ArrowSchema &of) { of.n_children = -1; });
    refused(VASK_BAD_DATA, {}, {}, [](ArrowSchema &of) { of.children[1]->format = nullptr; });
    outcome told;
    ArrowArrayStream released{};
    EXPECT_EQ(import_stream(released, &told), nullptr);
    EXPECT_EQ(told.code, VASK_BAD_REQUEST);
}

TEST(Ownership, ColumnsAreTakenOverAlsoWhenTheyAreRefused) {
    ledger counted;
    vask_table *made = nullptr;
    ASSERT_EQ(vask_table_new(&made, nullptr), VASK_OK);
    const table_pointer table(made);
    EXPECT_EQ(vask_table_rows(made), -1);
    const auto add = [&](const column_data &of, vask_table *to, const char *name) {
        ArrowSchema schema = make_schema(counted, of);
        ArrowArray array = make_array(counted, of, 0, of.values.size(), {.offset = 2});
        const int code = vask_table_add_arrow(to, name, &schema, &array, nullptr);
        EXPECT_EQ(schema.release, nullptr);
        EXPECT_EQ(array.release, nullptr);
        return code;
    };
    EXPECT_EQ(add({"a", "l", wholes({5, 6})}, made, nullptr), VASK_OK);
    EXPECT_EQ(add({"a", "u", words({"x", "y"})}, made, "b"), VASK_OK);
    EXPECT_EQ(add({"c", "l", wholes({5})}, made, nullptr), VASK_BAD_REQUEST) << "other rows";
    EXPECT_EQ(add({"c", "l", wholes({5})}, nullptr, nullptr), VASK_BAD_REQUEST);
    int releases = 0;
    const auto count = [](void *owner) { ++*static_cast<int *>(owner); };
    const std::int32_t values[] = {7, 8};
    const std::uint8_t bits = 0b0100'0000;
    EXPECT_EQ(vask_table_add_values(made, "d", "i", 2, values, &bits, 5, count, &releases, nullptr),
              VASK_OK);
    EXPECT_EQ(releases, 0);
    int refusals = 0;
    for (const char *const format : {"u", "n", "+s", "", "q"})
        EXPECT_EQ(vask_table_add_values(made, "e", format, 2, values, nullptr, 0, count, &refusals,
                                        nullptr),
                  VASK_BAD_REQUEST);
    EXPECT_EQ(
        vask_table_add_values(made, "e", "i", -1, values, nullptr, 0, count, &refusals, nullptr),
        VASK_BAD_REQUEST);
    EXPECT_EQ(
        vask_table_add_values(made, "e", "i", 2, nullptr, nullptr, 0, count, &refusals, nullptr),
        VASK_BAD_REQUEST);
    EXPECT_EQ(
        vask_table_add_values(nullptr, "e", "i", 2, values, nullptr, 0, count, &refusals, nullptr),
        VASK_BAD_REQUEST);
    EXPECT_EQ(refusals, 8);
    EXPECT_EQ(shown(run(made, {{"b"}, {of("sum", "a"), of("sum", "d")}, 0, 0})),
              "b (u): 'x' 'y'\nsum(a) (l): 5 6\nsum(d) (l): null 8\n");
    EXPECT_EQ(releases, 0);
    vask_table_free(made);
    (void)const_cast<table_pointer &>(table).release();
    EXPECT_EQ(releases, 1);
}

TEST(Ownership, ResultsOutliveTablesAndStreamsOutliveResults) {
    ledger counted;
    ArrowArrayStream first{};
    ArrowArrayStream second{};
    {
        table_pointer table = import_table(
            counted, {{{"k", "u", words({"x", "y", "x"})}, {"v", "g", reals({1, 2, 4})}}});
        result_pointer result;
        ASSERT_EQ(run(table.get(), {{"k"}, {of("max"), of("first", "k")}, 0, 0}, result).code,
                  VASK_OK);
        table.reset();
        EXPECT_EQ(shown(read_result(result.get())).substr(0, 14), "k (u): 'x' 'y'");
        ASSERT_EQ(vask_result_stream(result.get(), &first, nullptr), VASK_OK);
        ASSERT_EQ(vask_result_stream(result.get(), &second, nullptr), VASK_OK);
    }
    // A child that was moved out lives on by itself.
    ArrowArray batch{};
    ASSERT_EQ(first.get_next(&first, &batch), 0);
    ArrowArray child = *batch.children[1];
    batch.children[1]->release = nullptr;
    batch.release(&batch);
    first.release(&first);
    EXPECT_EQ(static_cast<const double *>(child.buffers[1])[0], 4);
    child.release(&child);
    second.release(&second); // without a look at it
}

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
    table_data data{{{"k", "u", {}}}};
    for (int row = 0; row < 200'000; ++row)
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

table_data large_table(std::size_t rows) {
    table_data made{{{"k", "i", {}}, {"t", "u", {}}, {"v", "g", {}}, {"w", "l", {}}}};
    std::uint64_t state = 7;
    for (std::size_t row = 0; row < rows; ++row) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        const std::uint64_t drawn = state >> 33;
        made.columns[0].values.push_back(cell::of(drawn % 1000));
        made.columns[1].values.push_back(cell::of_text("text " + std::to_string(drawn % 77)));
        made.columns[2].values.push_back(
            drawn % 19 == 0 ? cell::null() : cell::of_real(static_cast<double>(drawn) / 7));
        made.columns[3].values.push_back(cell::of(static_cast<wide>(drawn) - 1000));
    }
    return made;
}

const std::vector<asked_query> &various_queries() {
    static const std::vector<asked_query> queries{
        {{"k"}, {of("sum"), of("mean"), of("stdev"), of("median")}, 0, 0},
        {{"t"}, {of("sum"), of("count_distinct", "k"), of("mode", "k")}, VASK_SORT_GROUPS, 0},
        {{"k", "t"}, {of("max", "t"), of("skews"), {"correl", {"v", "w"}, 0, ""}}, 0, 0},
        {{}, {of("sum"), of("quantile", "v", 0.9), of("iqr", "w"), of("first", "t")}, 0, 0},
        {{"w"}, {of("last"), {"weighted_mean", {"v", "w"}, 0, ""}}, 0, 0}};
    return queries;
}

TEST(Threads, CallsOnOneTableMayOverlap) {
    ledger counted;
    const table_data data = large_table(20'000);
    std::vector<std::string> expected;
    for (int partitions : {0, 3})
        for (asked_query asked : various_queries()) {
            // Of a table of its own each, so that no form of a column is there before.
            const table_pointer alone = import_table(counted, data);
            asked.partitions = partitions;
            expected.push_back(shown(run(alone.get(), asked)));
        }
    for (const bool mixed : {false, true}) {
        const table_pointer table = import_table(counted, data);
        std::vector<std::thread> threads;
        std::atomic<int> wrong{0};
        for (std::size_t thread = 0; thread < 8; ++thread)
            threads.emplace_back([&, thread] {
                const std::size_t queries = various_queries().size();
                for (std::size_t i = 0; i < queries; ++i) {
                    const std::size_t at = (i + thread) % queries;
                    asked_query asked = various_queries()[at];
                    const bool other = mixed && thread % 2 == 1;
                    asked.partitions = other ? 3 : 0;
                    result_pointer result;
                    if (run(table.get(), asked, result).code != VASK_OK ||
                        shown(read_result(result.get())) != expected[at + (other ? queries : 0)])
                        ++wrong;
                }
            });
        for (std::thread &thread : threads)
            thread.join();
        EXPECT_EQ(wrong, 0) << mixed;
    }
}

TEST(Threads, ResultsDoNotDependOnTheNumberOfThreads) {
    ledger counted;
    const table_data data = large_table(100'000);
    std::vector<std::string> first;
    for (const std::size_t threads : {1U, 2U, 5U}) {
        const tbb::global_control limit(tbb::global_control::max_allowed_parallelism, threads);
        const table_pointer table = import_table(counted, data, {{}, {2048, 1, 0, 97'951}});
        for (std::size_t i = 0; i < various_queries().size(); ++i) {
            const std::string result = shown(run(table.get(), various_queries()[i]));
            if (threads == 1)
                first.push_back(result);
            else
                EXPECT_TRUE(result == first[i]) << threads << " threads, query " << i;
        }
    }
}

TEST(Threads, LargeTablesAgreeWithAPlainReference) {
    ledger counted;
    const table_data data = large_table(30'000);
    const table_pointer table = import_table(counted, data, {{{}, {.dictionary = true}}, {}});
    for (const asked_query &asked :
         {asked_query{{"t"}, various_queries()[0].functions, 0, 0},
          asked_query{{"k"}, various_queries()[1].functions, 0, 0}, various_queries()[3]})
        EXPECT_EQ(difference(run(table.get(), asked), plain_query(data, asked).run()), "");
}

TEST(Progress, GoesUpAndCancels) {
    ledger counted;
    const table_pointer table = import_table(counted, large_table(100));
    struct seen {
        std::vector<double> done;
        std::size_t stop_at = 1000;
        std::vector<std::string> notes;
    };
    query_record query(various_queries()[0]);
    query.record.progress = [](void *context, double done) {
        auto &own = *static_cast<seen *>(context);
        own.done.push_back(done);
        return own.done.size() >= own.stop_at ? 1 : 0;
    };
    query.record.note = [](void *context, const char *text) {
        static_cast<seen *>(context)->notes.emplace_back(text);
    };
    seen all;
    query.record.context = &all;
    vask_result *made = nullptr;
    ASSERT_EQ(vask_run(table.get(), &query.record, &made, nullptr), VASK_OK);
    result_pointer result(made);
    ASSERT_GE(all.done.size(), 2U);
    EXPECT_TRUE(std::is_sorted(all.done.begin(), all.done.end()));
    EXPECT_EQ(all.done.back(), 1.0);
    EXPECT_FALSE(all.notes.empty());
    for (std::size_t stop = 1; stop <= all.done.size(); ++stop) {
        seen some;
        some.stop_at = stop;
        query.record.context = &some;
        made = nullptr;
        char *error = nullptr;
        const outcome told = take(vask_run(table.get(), &query.record, &made, &error), error);
        EXPECT_EQ(told.code, VASK_CANCELLED);
        EXPECT_EQ(made, nullptr);
        EXPECT_EQ(some.done.size(), stop) << "nothing is asked after it was cancelled";
    }
}

TEST(Progress, FailuresOfLongCallsAreTold) {
    ledger counted;
    std::vector<double> values(300'000, 1);
    values.back() = std::nan("");
    const table_pointer table = import_table(counted, {{{"v", "g", reals(values)}}});
    query_record query({{}, {of("median")}, 0, 0});
    query.record.progress = [](void *, double) { return 0; };
    vask_result *made = nullptr;
    char *error = nullptr;
    const outcome told = take(vask_run(table.get(), &query.record, &made, &error), error);
    EXPECT_EQ(told.code, VASK_BAD_DATA);
    EXPECT_NE(told.text.find("NaN"), std::string::npos) << told.text;
    EXPECT_EQ(made, nullptr);
}

// A call of so many rows that it is worked on elsewhere: asked and told on the thread that called,
// and over soon after it was cancelled, wherever that finds it.
TEST(Progress, LongCallsAskTheirCallerAndEnd) {
    using clock = std::chrono::steady_clock;
    ledger counted;
    const table_pointer table = import_table(counted, large_table(300'000));
    struct seen {
        std::thread::id caller = std::this_thread::get_id();
        bool elsewhere = false;
        clock::time_point end = clock::time_point::max();
        std::vector<double> done;
        std::vector<std::string> notes;
    };
    query_record query(various_queries()[0]);
    query.record.progress = [](void *context, double done) {
        auto &own = *static_cast<seen *>(context);
        own.elsewhere = own.elsewhere || std::this_thread::get_id() != own.caller;
        own.done.push_back(done);
        return clock::now() >= own.end ? 1 : 0;
    };
    query.record.note = [](void *context, const char *text) {
        auto &own = *static_cast<seen *>(context);
        own.elsewhere = own.elsewhere || std::this_thread::get_id() != own.caller;
        own.notes.emplace_back(text);
    };
    const auto asked_until = [&](clock::time_point end, seen &all, std::string &answer) {
        all.end = end;
        query.record.context = &all;
        vask_result *made = nullptr;
        char *error = nullptr;
        const outcome told = take(vask_run(table.get(), &query.record, &made, &error), error);
        const result_pointer result(made);
        EXPECT_EQ(result != nullptr, told.code == VASK_OK);
        EXPECT_FALSE(all.elsewhere);
        EXPECT_TRUE(std::is_sorted(all.done.begin(), all.done.end()));
        if (result != nullptr)
            answer = shown(read_result(result.get()));
        return told.code;
    };
    seen all;
    std::string expected;
    const auto begin = clock::now();
    ASSERT_EQ(asked_until(clock::time_point::max(), all, expected), VASK_OK);
    const auto whole = clock::now() - begin;
    EXPECT_EQ(all.done.back(), 1.0);
    EXPECT_FALSE(all.notes.empty());
    int cancelled = 0;
    for (int i = 0; i < 12; ++i) {
        seen some;
        std::string answer;
        const int code = asked_until(clock::now() + whole * i / 12, some, answer);
        if (code == VASK_OK) {
            EXPECT_EQ(answer, expected);
        } else {
            EXPECT_EQ(code, VASK_CANCELLED);
            ++cancelled;
        }
    }
    EXPECT_GT(cancelled, 0);
    seen again;
    std::string answer;
    EXPECT_EQ(asked_until(clock::time_point::max(), again, answer), VASK_OK);
    EXPECT_EQ(answer, expected);
}

} // namespace
} // namespace vask_test
