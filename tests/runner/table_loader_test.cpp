#include "runner/table_loader.h"

#include "runner/column_cells.h"
#include "runner/user_error.h"

#include "temporary_file.h"

#include <cstdlib>
#include <random>
#include <string>

#include <gtest/gtest.h>
#include <zstd.h>

namespace vask::runner {
namespace {

using cell_text = std::optional<std::string>; // nothing: missing

// A column as the test means it: what its cells say, and the type that this makes it.
struct expected_column {
    std::string name;
    column_type type;
    std::vector<cell_text> cells;
};

class file_maker {
public:
    explicit file_maker(unsigned seed) : random_(seed) {}

    std::vector<expected_column> columns(std::size_t rows) {
        std::vector<expected_column> made{
            {"int", column_type::int_, {}},       {"late lng", column_type::lng, {}},
            {"late dbl", column_type::dbl, {}},   {"dbl", column_type::dbl, {}},
            {"late \"str", column_type::str, {}}, {"str, long", column_type::str, {}},
            {"late code", column_type::str, {}},  {"late code, dbl", column_type::str, {}},
            {"none", column_type::int_, {}}};
        const std::size_t odd = rows == 0 ? 0 : rows - 1 - upto(std::min<std::size_t>(rows - 1, 9));
        for (std::size_t row = 0; row < rows; ++row) {
            const std::string small = std::to_string(static_cast<int>(upto(2000)) - 1000);
            const bool last = row == odd;
            add(made[0], small);
            add(made[1], last ? "-2147483648" : small, last);
            add(made[2], last ? "1e-3" : small, last);
            add(made[3], small + ".5e1", row == 0);
            add(made[4], last ? "12 34" : small, last);
            add(made[5], text(), row == 0);
            add(made[6], last ? "-01" : small, last);
            add(made[7], last ? "001.0" : small + ".0", last);
            made[8].cells.emplace_back();
        }
        return made;
    }

    // Every way of writing the same cells: quoted or not, any line end, blank lines between.
    std::string csv(const std::vector<expected_column> &columns) {
        const std::string line_end = upto(1) == 0 ? "\n" : "\r\n";
        std::string text = upto(1) == 0 ? "\xEF\xBB\xBF" : "";
        const auto line = [&](const auto &cell_of) {
            for (std::size_t i = 0; i < columns.size(); ++i) {
                if (i > 0)
                    text += ',';
                write(text, cell_of(columns[i]));
            }
        };
        line([](const expected_column &c) { return cell_text(c.name); });
        for (std::size_t row = 0; row < columns[0].cells.size(); ++row) {
            text += line_end;
            if (upto(20) == 0)
                text += line_end;
            line([row](const expected_column &c) { return c.cells[row]; });
        }
        if (upto(1) == 0)
            text += line_end;
        return text;
    }

private:
    std::size_t upto(std::size_t n) { return random_() % (n + 1); }

    void add(expected_column &column, std::string cell, bool present = false) {
        if (!present && upto(9) == 0)
            column.cells.emplace_back();
        else
            column.cells.emplace_back(std::move(cell));
    }

    std::string text() {
        constexpr std::array pieces{"a", "b", ",", "\"", "\n", "é", " ", "\r\n"};
        std::string result = "t";
        for (std::size_t n = upto(8); n > 0; --n)
            result += pieces[upto(pieces.size() - 1)];
        return result;
    }

    void write(std::string &out, const cell_text &cell) {
        constexpr std::array missing{"", "NA", "NaN"};
        const std::string value = cell.value_or(missing[upto(2)]);
        const bool needs_quotes = value.find_first_of(",\"\r\n ") != std::string::npos;
        const std::string padding = upto(9) == 0 ? " " : "";
        out += padding;
        if (!needs_quotes && upto(3) != 0) {
            out += value + padding;
            return;
        }
        out += '"';
        for (const char c : value)
            out += c == '"' ? std::string("\"\"") : std::string(1, c);
        out += '"' + padding;
    }

    std::mt19937 random_;
};

void expect_cells(const expected_column &expected, const table_column &loaded) {
    SCOPED_TRACE(expected.name);
    EXPECT_EQ(name_of(loaded.type), name_of(expected.type));
    ASSERT_EQ(loaded.values.count(), expected.cells.size());
    const column_type type = loaded.type;
    std::uint64_t missing = 0;
    const auto cell = cells_of(loaded);
    for (std::size_t row = 0; row < expected.cells.size(); ++row) {
        const cell_text &text = expected.cells[row];
        result_cell value;
        missing += text ? 0 : 1;
        if (text && type == column_type::str)
            value = std::string_view(*text);
        else if (text && type == column_type::dbl)
            value = std::strtod(text->c_str(), nullptr);
        else if (text)
            value = std::int64_t{std::strtoll(text->c_str(), nullptr, 10)};
        const result_cell got = cell(row);
        const bool same = std::visit(
            [&]<class T>(const T &wanted) {
                if constexpr (std::equality_comparable<T>)
                    return std::holds_alternative<T>(got) && std::get<T>(got) == wanted;
                return false;
            },
            value);
        ASSERT_TRUE(same) << "row " << row << ": " << text.value_or("(missing)");
    }
    EXPECT_EQ(loaded.missing, missing);
    EXPECT_EQ(loaded.values->tail->nil != 0, missing > 0);
    EXPECT_EQ(loaded.values->tail->nonil != 0, missing == 0);
}

std::string_view text_at(const table_column &column, std::size_t row) {
    return std::get<std::string_view>(cells_of(column)(row));
}

loaded_table load(const source_text &source, load_request request, const csv_dialect &dialect) {
    const csv_header header = read_header(source, dialect, {});
    request.dialect = dialect;
    request.wanted.resize(header.names.size(), true);
    return load_table(source, header, request);
}

loaded_table load(const std::string &text, load_request request = {},
                  const csv_dialect &dialect = {}) {
    const temporary_file file(text);
    return load(source_text(file.path()), std::move(request), dialect);
}

std::string packed(const std::string &text) {
    std::string result(ZSTD_compressBound(text.size()), '\0');
    result.resize(ZSTD_compress(result.data(), result.size(), text.data(), text.size(), 1));
    return result;
}

TEST(TableLoader, AllWaysOfWritingAFileGiveItsCells) {
    std::size_t streamed = 0;
    for (unsigned seed = 0; seed < 24; ++seed) {
        file_maker maker(seed);
        const std::size_t rows = std::array<std::size_t, 4>{0, 1, 40, 3000}[seed % 4];
        auto expected = maker.columns(rows);
        if (rows == 0)
            for (expected_column &column : expected)
                column.type = column_type::int_;
        const std::string text = maker.csv(expected);
        const temporary_file file(text);
        const temporary_file compressed(packed(text));
        for (const std::size_t chunk_bytes : {1U, 2U, 7U, 50U, 100U, 5000U, 1U << 22}) {
            if (chunk_bytes < 100 && rows > 100)
                continue;
            load_request request;
            request.chunk_bytes = chunk_bytes;
            request.threads = 1 + seed % 3;
            SCOPED_TRACE(testing::Message()
                         << "seed " << seed << ", " << rows << " rows, chunks of " << chunk_bytes
                         << ", threads " << request.threads);
            for (const bool is_compressed : {false, true}) {
                SCOPED_TRACE(is_compressed ? "compressed" : "plain");
                // What is known at first: the header with some rows, or nearly nothing.
                const source_text source((is_compressed ? compressed : file).path(),
                                         seed % 5 == 0 ? 3 : 400);
                const loaded_table loaded = load(source, request, {});
                streamed += source.is_packed() ? 1 : 0;
                EXPECT_EQ(loaded.rows, rows);
                ASSERT_EQ(loaded.columns.size(), expected.size());
                for (std::size_t i = 0; i < expected.size(); ++i)
                    expect_cells(expected[i], loaded.columns[i]);
            }
        }
    }
    EXPECT_GT(streamed, 40U); // texts that were never held
    EXPECT_EQ(refkernel::current_usage().bats, 0);
}

TEST(TableLoader, TypesAndColumnsThatWereAskedFor) {
    load_request request;
    request.wanted = {true, true, false, true};
    request.forced = {{0, column_type::bte}, {1, column_type::str}, {3, column_type::timestamp}};
    request.missing = missing_words({"-9"});
    const loaded_table loaded = load("a,b,c,d\n1,07,x,2020-01-01\n-9,NA,y,-9\n", request);
    EXPECT_EQ(loaded.columns[0].values.type(), TYPE_bte);
    EXPECT_EQ(loaded.columns[0].values.values<bte>()[0], 1);
    EXPECT_TRUE(loaded.columns[0].values.is_nil(1));
    EXPECT_EQ(text_at(loaded.columns[1], 0), "07");
    EXPECT_EQ(text_at(loaded.columns[1], 1), "NA");
    EXPECT_FALSE(loaded.columns[2].values);
    EXPECT_EQ(loaded.columns[3].values.values<lng>()[0], 1577836800'000'000);
    EXPECT_TRUE(loaded.columns[3].values.is_nil(1));
    // Leading zeros mean nothing where a type is given, or when asked to mean nothing.
    load_request plain;
    plain.forced = {{0, column_type::int_}};
    const std::string codes = "a,b,c\n007,001.50,1\n7,1.5,-02\n";
    const loaded_table typed = load(codes, plain);
    EXPECT_EQ(typed.columns[0].values.values<std::int32_t>()[0], 7);
    EXPECT_EQ(text_at(typed.columns[1], 0), "001.50");
    EXPECT_EQ(text_at(typed.columns[2], 0), "1");
    EXPECT_EQ(text_at(typed.columns[2], 1), "-02");
    plain.keep_zeros = false;
    const loaded_table numbers = load(codes, plain);
    EXPECT_EQ(numbers.columns[1].values.values<dbl>()[0], 1.5);
    EXPECT_EQ(numbers.columns[2].values.values<std::int32_t>()[1], -2);
    const loaded_table unquoted = load("a\tb\n5\" pipe\t\"x\n", {}, {'\t', false});
    EXPECT_EQ(text_at(unquoted.columns[0], 0), "5\" pipe");
    EXPECT_EQ(text_at(unquoted.columns[1], 0), "\"x");
}

// Faults in the middle of a file of many chunks: the first one is told, with its line.
TEST(TableLoader, FaultsAreToldWithTheirLine) {
    struct fault {
        std::string line;
        std::string told;
    };
    const std::vector<fault> faults{
        {"1,2", "2 fields where the header has 3"},
        {"1,2,3,4", "4 fields where the header has 3"},
        {"1,x y,3", "column 2 (b): 'x y' is no int"},
        {"1,3000000000,3", "'3000000000' is no int; correct it, add it to the list of missing "
                           "values with --na, or give --types 'b:lng'"},
        {"1,,3", "column 2 (b): '' is no int"},
        {"1,2,3\"4\"", "a quote inside a field"},
        {"1,2,\"3\"4", "a quote inside a field"},
        {"1,2,\"open", ""}, // told apart below
        {std::string("1,2,\0", 5), "NUL byte"},
    };
    for (const fault &each : faults) {
        for (const std::size_t at : {0U, 1U, 700U, 1999U}) {
            std::string text = "a,b,c\n";
            for (std::size_t row = 0; row < 2000; ++row)
                text += row == at ? each.line + "\n" : "1,2,\"q\nq\"\n\n";
            load_request request;
            request.chunk_bytes = 512;
            request.threads = 2;
            request.forced = {{1, column_type::int_}};
            request.missing = missing_words({"NA"});
            std::string place = fmt::format(":{}: ", 2 + 3 * at);
            std::string told = each.told;
            if (told.empty() && at == 1999) {
                told = "a quoted field begins here that does not end";
            } else if (told.empty()) { // ends at the next quote, which is in the next record
                told = fmt::format("the record begins on line {}", 2 + 3 * at);
                place = fmt::format(":{}: ", 3 + 3 * at);
            }
            for (const std::string &content : {text, packed(text)}) {
                const temporary_file file(content);
                const source_text source(file.path(), 100);
                EXPECT_EQ(source.is_packed(), content != text);
                try {
                    load(source, request, {});
                    ADD_FAILURE() << "no error for " << each.line;
                } catch (const user_error &error) {
                    const std::string message = error.what();
                    EXPECT_NE(message.find(place), std::string::npos) << place << message;
                    EXPECT_NE(message.find(told), std::string::npos) << told << message;
                }
            }
        }
    }
    EXPECT_EQ(refkernel::current_usage().bats, 0);
}

// Its header has fewer bytes than the mark before it.
TEST(TableLoader, ByteOrderMarkOfACompressedFile) {
    const temporary_file file(packed("\xEF\xBB\xBFx\n1\n2\n3\n"));
    const source_text source(file.path(), 8);
    const loaded_table loaded = load(source, {}, {});
    EXPECT_TRUE(source.is_packed());
    EXPECT_EQ(loaded.rows, 3U);
}

// Few rows are kept, in pieces and files that are compressed or not.
TEST(TableLoader, KeptRowsOfCompressedFiles) {
    std::string text = "a,b\n";
    for (int row = 0; row < 3000; ++row)
        text += fmt::format("{},{}\n", row, row % 7 == 0 ? "x" : "");
    const temporary_file plain(text);
    const temporary_file compressed(packed(text));
    const source_text first(compressed.path(), 100);
    const source_text second(plain.path());
    const source_text third(compressed.path(), 100);
    const csv_header header = read_header(first, {}, {});
    load_request request;
    request.wanted = {true, true};
    request.further = {{&second, header.data_begin}, {&third, header.data_begin}};
    request.chunk_bytes = 1000;
    request.threads = 3;
    request.filter = std::make_shared<const row_filter>(
        "a % 1000 = 994", [](const std::string &) { return meaning{std::size_t{0}}; });
    const loaded_table loaded = load_table(first, header, request);
    EXPECT_TRUE(first.is_packed());
    EXPECT_EQ(loaded.file_rows, (std::vector<std::uint64_t>{3, 3, 3}));
    ASSERT_EQ(loaded.rows, 9U);
    EXPECT_EQ(loaded.columns[1].missing, 6U);
    for (BUN row = 0; row < 9; ++row) {
        EXPECT_EQ(loaded.columns[0].values.values<std::int32_t>()[row], row % 3 * 1000 + 994);
        EXPECT_EQ(loaded.columns[1].values.is_nil(row), row % 3 != 0) << row;
    }
}

TEST(TableLoader, FirstText) {
    const temporary_file file("a,b\n1,2\nNA,3\n\n2,\"x\n\"\nz,4\n");
    const source_text source(file.path());
    const csv_header header = read_header(source, {}, {});
    load_request request;
    const auto a = first_text(source, header, request, 0);
    ASSERT_TRUE(a.has_value());
    EXPECT_EQ(a->cell, "z");
    EXPECT_EQ(a->line, "7");
    request.missing = missing_words({"NA", "z"});
    EXPECT_FALSE(first_text(source, header, request, 0).has_value());
}

} // namespace
} // namespace vask::runner
