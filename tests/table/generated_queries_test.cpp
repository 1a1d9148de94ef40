// Queries that are drawn at random, on tables that are drawn at random, beside a plain reference.
// VASK_GENERATED_QUERIES sets how many, VASK_GENERATED_SEED where they begin.
#include "tests/table/plain_query.h"

#include <cstdlib>
#include <random>

namespace vask_test {
namespace {

class generator {
public:
    explicit generator(std::uint64_t seed) : random_(seed) {}

    std::uint64_t below(std::uint64_t n) { return random_() % n; }
    bool one_in(std::uint64_t n) { return below(n) == 0; }
    template <class T>
    const T &one_of(const std::vector<T> &all) {
        return all[below(all.size())];
    }

    column_data column(std::string name, std::size_t rows) {
        static const std::vector<std::string> formats{"c",      "s",
                                                      "i",      "l",
                                                      "C",      "S",
                                                      "I",      "L",
                                                      "f",      "g",
                                                      "g",      "b",
                                                      "u",      "U",
                                                      "vu",     "z",
                                                      "Z",      "vz",
                                                      "tdD",    "tdm",
                                                      "tts",    "ttm",
                                                      "ttu",    "ttn",
                                                      "tsn:",   "tsu:Europe/Oslo",
                                                      "tss:",   "tsm:",
                                                      "tDs",    "tDm",
                                                      "tDu",    "tDn",
                                                      "d:18,2", "d:5,0",
                                                      "n",      "l",
                                                      "i",      "u"};
        return column(std::move(name), rows, one_of(formats));
    }

    column_data column(std::string name, std::size_t rows, const std::string &format) {
        column_data made{std::move(name), format, {}};
        const std::uint64_t nulls = one_of<std::uint64_t>({0, 0, 1, 9, 20});
        const std::uint64_t different = one_of<std::uint64_t>({1, 2, 5, 20, 1000});
        const bool extreme = one_in(6);
        for (std::size_t row = 0; row < rows; ++row)
            made.values.push_back(made.format == "n" || (nulls > 0 && below(20) < nulls)
                                      ? cell::null()
                                      : value(made.format, different, extreme));
        return made;
    }

    cell value(const std::string &format, std::uint64_t different, bool extreme) {
        const std::uint64_t drawn = below(different);
        const bool odd = extreme && one_in(8);
        if (format == "b")
            return cell::of(drawn & 1);
        if (sort_of_format(format) == sort_of::text) {
            static const std::vector<std::string> words{"",
                                                        std::string("a\0b", 3),
                                                        std::string("a\0c", 3),
                                                        "twelve bytes",
                                                        "thirteen byte",
                                                        "\xff\xfe",
                                                        "ångström",
                                                        "thirteen bytes and one more"};
            return cell::of_text(drawn < words.size() ? words[drawn] : std::to_string(drawn));
        }
        if (format == "f" || format == "g") {
            if (odd) {
                const double lowest = format == "f" ? std::numeric_limits<float>::lowest()
                                                    : std::numeric_limits<double>::lowest();
                const std::vector<double> values{std::nan(""),
                                                 -std::nan(""),
                                                 -0.0,
                                                 std::numeric_limits<double>::infinity(),
                                                 -std::numeric_limits<double>::infinity(),
                                                 lowest,
                                                 -lowest};
                return cell::of_real(one_of(values));
            }
            return cell::of_real((static_cast<double>(drawn) - 2) / 4);
        }
        const bool is_unsigned = format == "C" || format == "S" || format == "I" || format == "L";
        if (odd && format[0] != 'd') {
            const auto bits = static_cast<int>(8 * width_of_format(format));
            const wide least = is_unsigned ? 0 : -(wide{1} << (bits - 1));
            const wide most = least + (wide{1} << bits) - 1;
            const wide middle = is_unsigned ? wide{1} << (bits - 1) : 0;
            return cell::of(one_of<wide>({least, most, middle, least + 1, most - 1}));
        }
        const wide least = is_unsigned ? 0 : -2;
        const wide most = format == "c" ? 100 : 200;
        return cell::of(least + static_cast<wide>(drawn) % most);
    }

    table_data table() { return table(one_in(12) ? 0 : one_in(4) ? 1 + below(4) : 1 + below(80)); }

    table_data table(std::size_t rows) {
        table_data made;
        const std::size_t columns = 2 + below(4);
        for (std::size_t i = 0; i < columns; ++i)
            made.columns.push_back(column(std::string(1, static_cast<char>('a' + i)), rows));
        return made;
    }

    table_layout layout(const table_data &of) {
        table_layout made;
        for (const column_data &column : of.columns) {
            array_layout own;
            own.offset = one_in(3) ? static_cast<std::int64_t>(below(70)) : 0;
            own.dictionary = column.format != "n" && one_in(5);
            // A byte does not number the words of many rows.
            own.index = of.rows() < 100
                            ? one_of<std::string>({"c", "C", "s", "S", "i", "I", "l", "L"})
                            : one_of<std::string>({"s", "S", "i", "I", "l", "L"});
            own.null_in_dictionary = one_in(2);
            own.count_nulls = one_in(2);
            made.columns.push_back(own);
        }
        made.offset = one_in(5) ? static_cast<std::int64_t>(below(10)) : 0;
        std::size_t left = of.rows();
        const bool cut = one_in(3);
        while (cut && left > 0) {
            made.batches.push_back(one_in(4) ? 0 : 1 + below(left));
            left -= made.batches.back();
        }
        if (left > 0)
            made.batches.push_back(left);
        return made;
    }

    asked_query query(const table_data &of) {
        asked_query made;
        std::vector<std::string> left;
        for (const column_data &column : of.columns)
            left.push_back(column.name);
        for (std::uint64_t keys = below(4); keys > 0 && !left.empty(); --keys) {
            const std::size_t at = below(left.size());
            made.by.push_back(left[at]);
            left.erase(left.begin() + static_cast<std::ptrdiff_t>(at));
        }
        static const std::vector<std::string> functions{
            "size",     "first_row", "count", "count_nulls", "count_distinct", "sum",
            "mean",     "min",       "max",   "range",       "stdev",          "stdevp",
            "variance", "variancep", "skews", "skewp",       "median",         "quantile",
            "quartile", "iqr",       "mad",   "largest",     "mode",           "covars",
            "covarp",   "correl",    "slope", "intercept",   "weighted_mean",  "first",
            "last",     "any"};
        static const std::vector<std::string> pairs{"covars", "covarp",    "correl",
                                                    "slope",  "intercept", "weighted_mean"};
        const std::uint64_t n = 1 + below(4);
        for (std::uint64_t i = 0; i < n; ++i) {
            wanted each{one_of(functions), {}, 0, "r" + std::to_string(i)};
            if (each.function != "size" && each.function != "first_row")
                each.columns.push_back(one_of(of.columns).name);
            if (std::find(pairs.begin(), pairs.end(), each.function) != pairs.end())
                each.columns.push_back(one_of(of.columns).name);
            if (each.function == "quantile")
                each.parameter = one_of<double>({0, 0.1, 0.25, 0.5, 0.75, 0.9, 1});
            if (each.function == "quartile")
                each.parameter = static_cast<double>(below(5));
            if (each.function == "largest")
                each.parameter = static_cast<double>(1 + below(4));
            // Types that do not go are refused; a few of them are enough.
            if (goes(of, each) || one_in(30))
                made.functions.push_back(std::move(each));
        }
        if (made.functions.empty())
            made.functions.push_back({"size", {}, 0, "r"});
        for (const unsigned flag : {VASK_KEEP_NULLS, VASK_NAN_IS_NULL, VASK_WIDE_SUMS,
                                    VASK_SORT_GROUPS, VASK_DROP_NULL_KEYS})
            made.flags |= one_in(3) ? flag : 0U;
        // Nothing else is at fault in any layout.
        if (one_in(3) && is_utf8(of))
            made.flags |= VASK_VALIDATE;
        made.partitions = static_cast<int>(one_of<std::uint64_t>({0, 0, 0, 1, 3, 11}));
        return made;
    }

private:
    // Of the texts that are drawn one is not.
    static bool is_utf8(const table_data &of) {
        for (const column_data &column : of.columns)
            for (const cell &value : column.values)
                if (column.format.back() == 'u' || column.format.back() == 'U')
                    if (value.text.find('\xff') != value.text.npos)
                        return false;
        return true;
    }

    static bool goes(const table_data &of, const wanted &each) {
        asked_query alone;
        alone.functions = {each};
        alone.flags = VASK_NAN_IS_NULL | VASK_WIDE_SUMS;
        try {
            (void)plain_query(of, alone).run();
        } catch (const plain_refusal &refused) {
            return refused.code != VASK_BAD_REQUEST;
        }
        return true;
    }

    std::mt19937_64 random_;
};

std::string shown(const asked_query &of) {
    std::string text = "by";
    for (const std::string &key : of.by)
        text += " " + key;
    text += ";";
    for (const wanted &each : of.functions) {
        text += " " + each.function + "(";
        for (const std::string &column : each.columns)
            text += " " + column;
        text += " ; " + std::to_string(each.parameter) + ")";
    }
    return text + " flags " + std::to_string(of.flags) + " partitions " +
           std::to_string(of.partitions);
}

struct expected_result {
    int code = VASK_OK;
    std::vector<plain_query::result_column> columns;
};

expected_result expected_of(const table_data &data, const asked_query &asked) {
    try {
        return {VASK_OK, plain_query(data, asked).run()};
    } catch (const plain_refusal &refused) {
        return {refused.code, {}};
    }
}

std::string compare(const outcome &told, const vask_result *result,
                    const expected_result &expected) {
    if (told.code != expected.code)
        return "code " + std::to_string(told.code) + " (" + told.text + "), not " +
               std::to_string(expected.code);
    return told.code == VASK_OK ? difference(read_result(result), expected.columns) : "";
}

std::string check_run(const vask_table *table, const asked_query &asked,
                      const expected_result &expected) {
    result_pointer result;
    const outcome told = run(table, asked, result);
    return compare(told, result.get(), expected);
}

std::string check_codes(const vask_table *table, const table_data &data, const asked_query &asked) {
    if (asked.by.empty())
        return "";
    plain_query plain(data, asked);
    const std::vector<int> &groups = plain.groups();
    const query_record query(asked);
    std::vector<std::int32_t> codes(data.rows() + 1, -7);
    std::int64_t count = -1;
    char *error = nullptr;
    const outcome told =
        take(vask_group_codes(table, &query.record, codes.data(), &count, &error), error);
    if (told.code != VASK_OK)
        return told.text;
    if (count != static_cast<std::int64_t>(plain.group_count()) || codes.back() != -7)
        return "number of groups";
    for (std::size_t row = 0; row < groups.size(); ++row)
        if (codes[row] != groups[row])
            return "code of row " + std::to_string(row);
    return "";
}

// States of parts of the rows, brought together in one step or in two.
std::string check_parts(generator &draw, ledger &counted, const table_data &data,
                        const asked_query &asked, const expected_result &expected) {
    bool refused = false;
    for (const wanted &each : asked.functions)
        refused = refused || !plain_query::has_states(each.function);
    std::vector<std::size_t> ends;
    for (std::uint64_t parts = draw.below(3); parts > 0; --parts)
        ends.push_back(draw.below(data.rows() + 1));
    ends.push_back(data.rows());
    std::sort(ends.begin(), ends.end());
    std::vector<table_pointer> states;
    const query_record query(asked);
    const auto imported = [&](vask_result *made) {
        const result_pointer result(made);
        ArrowArrayStream stream{};
        EXPECT_EQ(vask_result_stream(result.get(), &stream, nullptr), VASK_OK);
        states.push_back(import_stream(stream));
    };
    std::size_t begin = 0;
    for (const std::size_t end : ends) {
        table_data part;
        for (const column_data &column : data.columns)
            part.columns.push_back({column.name,
                                    column.format,
                                    {column.values.begin() + static_cast<std::ptrdiff_t>(begin),
                                     column.values.begin() + static_cast<std::ptrdiff_t>(end)}});
        const table_pointer table = import_table(counted, part);
        vask_result *made = nullptr;
        char *error = nullptr;
        const outcome told = take(vask_partial(table.get(), &query.record, &made, &error), error);
        if (told.code != VASK_OK) {
            if (refused || told.code == expected.code)
                return "";
            return "partial: code " + std::to_string(told.code) + ": " + told.text;
        }
        imported(made);
        begin = end;
    }
    if (refused)
        return "partial: not refused";
    const auto merge = [&](std::size_t first, std::size_t n, bool finish, vask_result **made) {
        std::vector<const vask_table *> parts;
        for (std::size_t i = first; i < first + n; ++i)
            parts.push_back(states[i].get());
        char *error = nullptr;
        return take(
            vask_merge(parts.data(), parts.size(), &query.record, finish ? 1 : 0, made, &error),
            error);
    };
    if (states.size() > 1 && draw.one_in(2)) {
        vask_result *made = nullptr;
        const outcome told = merge(0, 2, false, &made);
        if (told.code != VASK_OK)
            return "merge to states: " + told.text;
        imported(made);
        states[0] = std::move(states.back());
        states.pop_back();
        states.erase(states.begin() + 1);
    }
    vask_result *made = nullptr;
    const outcome told = merge(0, states.size(), true, &made);
    const result_pointer result(made);
    const std::string fault = compare(told, result.get(), expected);
    return fault.empty() ? "" : "merged: " + fault;
}

std::uint64_t from_environment(const char *name, std::uint64_t otherwise) {
    const char *const given = std::getenv(name);
    return given == nullptr ? otherwise : std::strtoull(given, nullptr, 10);
}

// How many of some queries of a table are refused. The first one may be given.
std::uint64_t check_queries(generator &draw, std::uint64_t seed, const table_data &data,
                            std::uint64_t queries, const asked_query *first = nullptr) {
    ledger counted;
    std::uint64_t refused = 0;
    const table_pointer table = import_table(counted, data, draw.layout(data));
    for (std::uint64_t i = 0; i < queries; ++i) {
        const asked_query asked = i == 0 && first != nullptr ? *first : draw.query(data);
        const expected_result expected = expected_of(data, asked);
        refused += expected.code != VASK_OK ? 1 : 0;
        std::string fault = check_run(table.get(), asked, expected);
        if (fault.empty() && draw.one_in(4))
            fault = check_codes(table.get(), data, asked);
        if (fault.empty() && draw.one_in(3))
            fault = check_parts(draw, counted, data, asked, expected);
        if (!fault.empty())
            ADD_FAILURE() << "seed " << seed << ", query " << i << ": " << fault << "\n"
                          << shown(asked) << "\n"
                          << (data.rows() < 100 ? shown(data) : "");
    }
    return refused;
}

TEST(GeneratedQueries, AgreeWithAPlainReference) {
#ifdef VASK_SLOW_BUILD
    constexpr std::uint64_t usual = 3000;
#else
    constexpr std::uint64_t usual = 100000;
#endif
    constexpr std::uint64_t queries_of_a_table = 8;
    const std::uint64_t queries = from_environment("VASK_GENERATED_QUERIES", usual);
    const std::uint64_t first = from_environment("VASK_GENERATED_SEED", 1);
    std::uint64_t refused = 0;
    for (std::uint64_t seed = first; seed < first + queries / queries_of_a_table + 1; ++seed) {
        generator draw(seed);
        const table_data data = draw.table();
        refused += check_queries(draw, seed, data, queries_of_a_table);
        ASSERT_FALSE(HasFailure()) << "and perhaps others";
    }
    EXPECT_LT(refused, queries / 2) << "most queries are to give results";
}

// Of so many rows that there are several partitions, of which the last has a few more.
TEST(GeneratedQueries, AgreeInTablesOfManyPartitions) {
    constexpr std::size_t rows_of_a_partition = 16384;
    for (std::uint64_t seed = 1; seed <= 4; ++seed) {
        generator draw(seed);
        table_data data;
        data.columns.push_back(draw.column("x", rows_of_a_partition * (6 + seed) + 7, "g"));
        data.columns.push_back(draw.column("y", data.rows(), seed % 2 == 0 ? "l" : "i"));
        asked_query sums;
        sums.flags = VASK_NAN_IS_NULL;
        for (const char *function : {"sum", "variance", "stdevp", "skews"})
            for (const char *column : {"x", "y"})
                sums.functions.push_back({function, {column}, 0, std::string(function) + column});
        for (const char *function : {"correl", "covarp", "slope", "intercept"})
            sums.functions.push_back({function, {"x", "y"}, 0, function});
        if (seed % 2 == 0)
            sums.by = {"y"};
        check_queries(draw, seed, data, 1, &sums);
    }
}

} // namespace
} // namespace vask_test
