#include "runner/field_index.h"

#include "runner/cell_values.h"
#include "runner/column_cells.h"
#include "runner/csv_parser.h"
#include "runner/plain_numbers.h"
#include "runner/table_loader.h"
#include "runner/user_error.h"

#include "support/instruction_sets.h"
#include "temporary_file.h"

#include <algorithm>
#include <array>
#include <bit>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace vask::runner {
namespace {

using records = std::vector<std::vector<std::string>>;

struct record_list {
    records all{};
    std::vector<std::string> open{};

    void field(std::string_view cell) { open.emplace_back(cell); }
    void record() { all.push_back(std::exchange(open, {})); }
    bool stopped() const { return false; }
};

// What the CSV library makes of a text; nothing where it is malformed.
std::optional<records> judged(std::string_view text, const csv_dialect &dialect) {
    record_list list;
    csv_parser parser(dialect, list);
    if (parser.feed(text) != text.size() || !parser.finish())
        return std::nullopt;
    return list.all;
}

struct text_maker {
    std::mt19937 random;

    std::size_t upto(std::size_t n) { return random() % (n + 1); }

    // With `odd`, now and then something that is no plain record.
    std::string text(std::size_t columns, std::size_t rows, char separator, bool odd) {
        const bool returns = upto(2) == 0;
        const std::size_t longest = upto(3) == 0 ? 90 : 6;
        std::string made;
        for (std::size_t row = 0; row < rows; ++row) {
            const std::size_t fields = odd && upto(40) == 0 ? upto(columns + 1) : columns;
            for (std::size_t i = 0; i < fields; ++i) {
                made.append(i == 0 ? 0 : 1, separator);
                made += cell(longest, separator, odd, columns == 1);
            }
            if (row + 1 == rows && upto(1) == 0)
                break;
            const bool other_end = odd && upto(20) == 0;
            made += other_end ? std::array{"\r", "\n\n", "\r\n\n", "\n \t\n"}[upto(3)]
                    : returns ? "\r\n"
                              : "\n";
        }
        return made;
    }

private:
    std::string cell(std::size_t longest, char separator, bool odd, bool alone) {
        constexpr std::array pieces{"a",    "é",  " ", "\t", "1", "\xF0\x9F\x8C\xB2",
                                    "\x80", "-.", ";"};
        constexpr std::array odd_pieces{"\"", "\"x,\ny\"", "\r", "\"\""};
        std::string made;
        if (odd && upto(30) == 0)
            return odd_pieces[upto(odd_pieces.size() - 1)];
        for (std::size_t n = upto(longest); n > 0; --n) {
            const std::string piece = pieces[upto(pieces.size() - 1)];
            made += piece.front() == separator ? "." : piece;
        }
        return alone ? "x" + made : made;
    }
};

TEST(FieldIndex, PlainRecordsHaveTheFieldsOfTheLibrary) {
    std::size_t indexed = 0;
    std::size_t left = 0;
    for (unsigned seed = 0; seed < 3000; ++seed) {
        text_maker make{std::mt19937(seed)};
        const support::instruction_set_of_turn set(seed);
        const std::size_t columns = 1 + make.upto(4);
        const bool odd = make.upto(1) == 0;
        const csv_dialect dialect{std::array{',', '\t', ';', ' '}[make.upto(3)], make.upto(3) != 0};
        const std::string text =
            make.text(columns, 1 + make.upto(60), dialect.separator, odd && dialect.quotes);
        SCOPED_TRACE(testing::Message() << "seed " << seed << "\n" << text);
        field_index fields(columns);
        const bool plain = fields.build(text, dialect.separator, dialect.quote());
        const auto wanted = judged(text, dialect);
        (plain ? indexed : left) += 1;
        if (!plain)
            continue;
        ASSERT_TRUE(wanted.has_value());
        ASSERT_EQ(fields.records(), wanted->size());
        for (std::size_t i = 0; i < fields.records(); ++i) {
            ASSERT_EQ((*wanted)[i].size(), columns);
            for (std::size_t c = 0; c < columns; ++c)
                ASSERT_EQ(fields.field(i, c), (*wanted)[i][c]) << "record " << i;
        }
    }
    // Both kinds come often; a text is left where the generator happened to write another number
    // of separators, too.
    EXPECT_GT(indexed, 500U);
    EXPECT_GT(left, 500U);
}

TEST(FieldIndex, TakesWhatIsPlain) {
    const auto takes = [](const std::string &text, std::size_t columns, char quote = '"') {
        return field_index(columns).build(text, ',', quote);
    };
    const std::string line(70, 'x');
    for (const std::string &text :
         {"a,b\n" + line + ",\n", "a,b\r\n" + line + ",\r\n,", line + "," + line}) {
        EXPECT_TRUE(takes(text, 2)) << text;
        EXPECT_FALSE(takes(text, 3)) << text;
        EXPECT_FALSE(takes("\n" + text, 2)) << text;
        EXPECT_FALSE(takes("\"q\"" + text, 2)) << text;
        EXPECT_TRUE(takes("\"q\"" + text, 2, '\0')) << text;
    }
    EXPECT_FALSE(takes("a,b\r", 2));
    EXPECT_FALSE(takes(std::string(63, 'a') + ",b\r\r\n", 2));
    EXPECT_FALSE(takes(std::string(62, 'a') + ",\rb\n", 2)); // across two blocks
    EXPECT_FALSE(takes("a,b,c\nd\n", 2));
    EXPECT_FALSE(takes("a\n \nb\n", 1));
}

// Cells as columns hold them, from a file of plain and other records in pieces of every kind.
TEST(FieldIndex, ChunksGiveTheCellsOfTheLibrary) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        text_maker make{std::mt19937(seed)};
        const support::instruction_set_of_turn set(seed);
        const std::size_t columns = 1 + make.upto(3);
        // Some longer than what is indexed at one go.
        const std::size_t rows = seed % 3 == 0 ? 20000 : 1 + make.upto(200);
        std::string data = make.text(columns, rows, ',', false);
        if (seed % 2 == 1) {
            std::vector<std::size_t> places(1 + make.upto(20));
            for (std::size_t &place : places)
                place = data.find('\n', make.upto(data.size() - 1)) + 1;
            std::ranges::sort(places, std::greater{}); // so that none lies in what is inserted
            const std::string quoted_fields = "\"q,\n\"\"\"" + std::string(columns - 1, ',') + "\n";
            for (const std::size_t place : places)
                data.insert(place, make.upto(2) == 0 ? "\n \r\n" : quoted_fields);
        }
        std::string names = "c0";
        for (std::size_t c = 1; c < columns; ++c)
            names += ",c" + std::to_string(c);
        const auto wanted = judged(data, {});
        ASSERT_TRUE(wanted.has_value());
        const temporary_file file(names + "\n" + data);
        const source_text source(file.path());
        const csv_header header = read_header(source, {}, {});
        for (const std::size_t chunk_bytes :
             {std::size_t{1} << 22, std::size_t{70000}, std::size_t{150} + make.upto(500)}) {
            load_request request;
            request.wanted.assign(columns, true);
            for (std::size_t c = 0; c < columns; ++c)
                request.forced.emplace_back(c, column_type::str);
            request.missing = missing_words({"", "1"});
            request.chunk_bytes = chunk_bytes;
            request.threads = 2;
            SCOPED_TRACE(testing::Message() << "seed " << seed << ", chunks of " << chunk_bytes);
            loaded_table loaded;
            try {
                loaded = load_table(source, header, request);
            } catch (const user_error &error) { // the byte that is the kernel's nil
                ASSERT_NE(std::string(error.what()).find("0x80"), std::string::npos);
                continue;
            }
            ASSERT_EQ(loaded.rows, wanted->size());
            for (std::size_t c = 0; c < columns; ++c) {
                std::uint64_t missing = 0;
                for (std::size_t row = 0; row < wanted->size(); ++row) {
                    const std::string &cell = (*wanted)[row][c];
                    const bool is_missing = cell.empty() || cell == "1";
                    missing += is_missing ? 1 : 0;
                    ASSERT_EQ(loaded.columns[c].values.is_nil(static_cast<BUN>(row)), is_missing);
                    if (!is_missing) {
                        ASSERT_EQ(std::get<std::string_view>(cells_of(loaded.columns[c])(row)),
                                  cell);
                    }
                }
                EXPECT_EQ(loaded.columns[c].missing, missing);
            }
        }
    }
}

// Columns are read one after the other, but the first fault of the file is told.
TEST(FieldIndex, TheFirstFaultOfPlainRecordsIsTold) {
    std::string text = "a,b,c\n";
    for (int row = 0; row < 3000; ++row)
        text += row == 2000   ? "1,x,3\n"
                : row == 2001 ? "y,2,3\n"
                : row == 2500 ? "1,2,z\n"
                              : "1,2,3\n";
    const temporary_file file(text);
    const source_text source(file.path());
    const csv_header header = read_header(source, {}, {});
    load_request request;
    request.wanted.assign(3, true);
    for (std::size_t c = 0; c < 3; ++c)
        request.forced.emplace_back(c, column_type::int_);
    try {
        load_table(source, header, request);
        ADD_FAILURE() << "no error";
    } catch (const user_error &error) {
        EXPECT_NE(std::string(error.what()).find(":2002: column 2 (b): 'x' is no int"),
                  std::string::npos)
            << error.what();
    }
}

// The readers of plain numbers agree with those that take everything, and refuse what these would
// print in another spelling.
TEST(PlainNumbers, AgreeWithTheGeneralReaders) {
    std::mt19937 random(5);
    std::size_t integers = 0;
    std::size_t decimals = 0;
    for (int i = 0; i < 400'000; ++i) {
        const std::string_view alphabet = i % 4 == 0   ? "0123456789.-+e /:"
                                          : i % 4 == 1 ? "0123456789"
                                                       : "012345.9";
        std::string cell(random() % 5 == 0 ? "-" : "");
        for (std::size_t n = random() % 19; n > 0; --n)
            cell += alphabet[random() % alphabet.size()];
        const std::string memory = std::string(16, '7') + cell;
        const char *const end = memory.data() + memory.size();
        const char *const begin = end - cell.size();
        SCOPED_TRACE(cell);
        std::int64_t integer = 0;
        lng wanted_integer = 0;
        if (read_plain_integer(begin, end, memory.data(), integer)) {
            ++integers;
            ASSERT_TRUE(read_cell(cell, wanted_integer));
            ASSERT_EQ(integer, wanted_integer);
            ASSERT_EQ(std::to_string(integer), cell);
        }
        dbl decimal = 0;
        dbl wanted_decimal = 0;
        if (read_plain_decimal(begin, end, memory.data(), false, decimal)) {
            ++decimals;
            ASSERT_TRUE(read_cell(cell, wanted_decimal));
            ASSERT_EQ(std::bit_cast<std::uint64_t>(decimal),
                      std::bit_cast<std::uint64_t>(wanted_decimal));
            ASSERT_FALSE(has_leading_zero(cell));
        }
        if (read_plain_decimal(begin, end, memory.data(), true, decimal)) {
            ASSERT_EQ(fmt::format("{}", decimal), cell);
        }
    }
    EXPECT_GT(integers, 50'000U);
    EXPECT_GT(decimals, 50'000U);
}

} // namespace
} // namespace vask::runner
