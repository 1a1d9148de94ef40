#include "table/text_encoder.h"

#include "support/instruction_sets.h"
#include "table/guarded_memory.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <list>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>
#include <tbb/task_arena.h>

namespace {

using namespace vask::table;
using layout = text_chunk::layout;
using cell = std::optional<std::string>;
template <class T>
using guarded = support::guarded_memory<T>;

constexpr std::uint32_t all_hash_bits = 0xffffffff;

//! Arrow arrays, each buffer of its own exact size.
class text_arrays {
public:
    //! Appends an array of some rows, behind `skipped` rows that the chunk leaves out. Rows without
    //! a value hold rubbish as far as the format allows it.
    void add(std::span<const cell> rows, layout kind, std::size_t skipped, std::mt19937 &random) {
        std::vector<cell> stored(skipped, "skipped over");
        stored.insert(stored.end(), rows.begin(), rows.end());
        text_chunk chunk{.kind = kind, .rows = static_cast<std::int64_t>(rows.size())};
        if (kind == layout::views)
            add_views(chunk, stored, skipped, random);
        else if (kind == layout::anywhere)
            add_anywhere(chunk, stored, skipped);
        else if (kind == layout::offsets32)
            add_offsets<std::int32_t>(chunk, stored, skipped);
        else
            add_offsets<std::int64_t>(chunk, stored, skipped);
        if (std::ranges::any_of(rows, [](const cell &c) { return !c; }) || random() % 2 == 0)
            add_validity(chunk, rows, random() % 80);
        chunks_.push_back(chunk);
    }

    std::span<const text_chunk> chunks() const { return chunks_; }

    //! The text of each row where it lies; without data() if there is none.
    const std::vector<std::string_view> &places() const { return places_; }

private:
    template <class Offset>
    void add_offsets(text_chunk &chunk, const std::vector<cell> &stored, std::size_t skipped) {
        std::string bytes;
        std::vector<Offset> offsets{0};
        for (const cell &c : stored) {
            bytes += c.value_or("rubbish");
            offsets.push_back(static_cast<Offset>(bytes.size()));
        }
        chunk.bytes = keep<char>(bytes);
        const Offset *kept = keep<Offset>(offsets);
        chunk.places = kept + skipped;
        for (std::size_t i = skipped; i < stored.size(); ++i)
            places_.push_back(stored[i] ? std::string_view(chunk.bytes + kept[i], stored[i]->size())
                                        : std::string_view());
    }

    void add_views(text_chunk &chunk, const std::vector<cell> &stored, std::size_t skipped,
                   std::mt19937 &random) {
        std::array<std::string, 3> buffers;
        std::vector<std::array<std::int32_t, 4>> views;
        for (const cell &c : stored) {
            std::array<std::int32_t, 4> view{};
            if (!c) {
                for (auto &word : view)
                    word = static_cast<std::int32_t>(random());
            } else {
                view[0] = static_cast<std::int32_t>(c->size());
                std::memcpy(&view[1], c->data(), std::min<std::size_t>(c->size(), 12));
                if (c->size() > 12) {
                    std::string &buffer = buffers[random() % buffers.size()];
                    view[2] = static_cast<std::int32_t>(&buffer - buffers.data());
                    view[3] = static_cast<std::int32_t>(buffer.size());
                    buffer += *c;
                }
            }
            views.push_back(view);
        }
        std::vector<const void *> kept_buffers;
        for (const std::string &buffer : buffers)
            kept_buffers.push_back(keep<char>(buffer));
        chunk.view_buffers = keep<const void *>(kept_buffers);
        const auto *kept = keep<std::array<std::int32_t, 4>>(views);
        chunk.places = kept + skipped;
        for (std::size_t i = skipped; i < stored.size(); ++i) {
            const auto *inline_text = reinterpret_cast<const char *>(&kept[i][1]);
            if (!stored[i])
                places_.emplace_back();
            else if (stored[i]->size() <= 12)
                places_.emplace_back(inline_text, stored[i]->size());
            else
                places_.emplace_back(static_cast<const char *>(chunk.view_buffers[kept[i][2]]) +
                                         kept[i][3],
                                     stored[i]->size());
        }
    }

    void add_anywhere(text_chunk &chunk, const std::vector<cell> &stored, std::size_t skipped) {
        std::vector<std::string_view> texts;
        for (const cell &c : stored)
            texts.push_back(c ? std::string_view(keep<char>(*c), c->size())
                              : std::string_view(nullptr, 1000));
        chunk.places = keep<std::string_view>(texts) + skipped;
        for (std::size_t i = skipped; i < stored.size(); ++i)
            places_.push_back(stored[i] ? texts[i] : std::string_view());
    }

    void add_validity(text_chunk &chunk, std::span<const cell> rows, std::size_t first_bit) {
        std::vector<std::uint8_t> bits((first_bit + rows.size() + 7) / 8, 0x5a);
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const std::size_t bit = first_bit + i;
            const auto mask = static_cast<std::uint8_t>(1U << bit % 8);
            bits[bit / 8] =
                static_cast<std::uint8_t>(rows[i] ? bits[bit / 8] | mask : bits[bit / 8] & ~mask);
        }
        chunk.validity = keep<std::uint8_t>(bits);
        chunk.first_bit = static_cast<std::int64_t>(first_bit);
    }

    template <class T>
    const T *keep(std::span<const T> values) {
        auto memory = std::make_shared<guarded<T>>(values);
        kept_.push_back(memory);
        return memory->data();
    }

    std::vector<text_chunk> chunks_;
    std::vector<std::string_view> places_;
    std::list<std::shared_ptr<void>> kept_;
};

struct expected_texts {
    std::vector<std::int32_t> codes;
    std::vector<std::string_view> words;
    std::uint64_t missing = 0;
};

expected_texts encode_plainly(std::span<const std::string_view> places, std::int32_t missing_code) {
    expected_texts result;
    std::unordered_map<std::string_view, std::int32_t> code_of;
    for (const std::string_view text : places) {
        if (text.data() == nullptr) {
            result.codes.push_back(missing_code);
            ++result.missing;
            continue;
        }
        const auto [word, is_new] =
            code_of.try_emplace(text, static_cast<std::int32_t>(code_of.size()));
        if (is_new)
            result.words.push_back(text);
        result.codes.push_back(word->second);
    }
    return result;
}

void check(const text_arrays &arrays, std::int32_t missing_code, text_encoding_plan plan) {
    const expected_texts expected = encode_plainly(arrays.places(), missing_code);
    const guarded<std::int32_t> codes(arrays.places().size());
    // In a dictionary for each range, and in buckets as soon as there is a text.
    for (const std::size_t most_texts : {plan.most_texts, std::size_t{0}}) {
        SCOPED_TRACE(std::to_string(plan.ranges) + " ranges, hash bits " +
                     std::to_string(plan.hash_bits) + ", up to " + std::to_string(most_texts));
        plan.most_texts = most_texts;
        const encoded_texts got =
            encode_texts(arrays.chunks(), {codes.data(), codes.size()}, missing_code, plan);
        ASSERT_EQ(got.missing, expected.missing);
        ASSERT_TRUE(std::equal(expected.codes.begin(), expected.codes.end(), codes.data()));
        ASSERT_EQ(got.words, expected.words);
        for (std::size_t i = 0; i < got.words.size(); ++i)
            ASSERT_EQ(got.words[i].data(), expected.words[i].data()) << "not the first occurrence";
    }
}

enum class lengths { up_to_a_key, around_a_key, long_ones };

//! Texts of few different bytes, zero among them, so that many differ in a zero byte or in length
//! alone.
std::vector<std::string> draw_words(std::size_t n, lengths l, std::mt19937 &random) {
    std::vector<std::string> words;
    for (std::size_t i = 0; i < n; ++i) {
        const std::size_t length = l == lengths::up_to_a_key    ? random() % 9
                                   : l == lengths::around_a_key ? 10 + random() % 9
                                                                : 16 + random() % 300;
        std::string word(length, '\0');
        for (char &c : word)
            c = "\0\0a\xff"[random() % 4];
        words.push_back(std::move(word));
    }
    return words;
}

//! `missing`: in 16ths.
std::vector<cell> draw_cells(std::size_t rows, const std::vector<std::string> &words,
                             unsigned missing, std::mt19937 &random) {
    std::vector<cell> cells;
    for (std::size_t i = 0; i < rows; ++i)
        if (random() % 16 < missing)
            cells.emplace_back();
        else
            cells.emplace_back(words[random() % words.size()]);
    return cells;
}

//! Cuts the rows into arrays of up to `most` rows, many of them empty.
void add_in_pieces(text_arrays &to, std::span<const cell> cells, std::size_t most,
                   std::optional<layout> kind, std::mt19937 &random) {
    while (!cells.empty()) {
        const std::size_t n =
            random() % 4 == 0 ? 0 : std::min<std::size_t>(cells.size(), 1 + random() % most);
        to.add(cells.first(n), kind.value_or(static_cast<layout>(random() % 4)), random() % 3,
               random);
        cells = cells.subspan(n);
    }
    to.add({}, layout::offsets32, 0, random);
}

TEST(TextEncoder, FirstOccurrenceNumbersTheTexts) {
    std::uint64_t turn = 0;
    for (const lengths l : {lengths::up_to_a_key, lengths::around_a_key, lengths::long_ones})
        for (const std::size_t words : {1U, 20U, 700U})
            for (const unsigned missing : {0U, 1U, 8U, 15U, 16U})
                for (const std::size_t rows : {1U, 15U, 64U, 65U, 1000U})
                    for (const std::size_t piece : {3U, 70U, 5000U}) {
                        SCOPED_TRACE("lengths " + std::to_string(static_cast<int>(l)) + ", " +
                                     std::to_string(words) + " words, " + std::to_string(missing) +
                                     " of 16 missing, " + std::to_string(rows) +
                                     " rows in pieces of " + std::to_string(piece));
                        const support::instruction_set_of_turn set(++turn);
                        std::mt19937 random(static_cast<unsigned>(turn));
                        const auto cells =
                            draw_cells(rows, draw_words(words, l, random), missing, random);
                        std::optional<layout> kind;
                        if (turn % 5 != 4)
                            kind = static_cast<layout>(turn % 5);
                        text_arrays arrays;
                        add_in_pieces(arrays, cells, piece, kind, random);
                        const std::size_t ranges = 1 + random() % 9;
                        const std::int32_t missing_code[] = {-1, 0, 5,
                                                             std::numeric_limits<int>::min()};
                        for (const std::uint32_t bits : {all_hash_bits, 0U, 0xc0000000U, 1U})
                            ASSERT_NO_FATAL_FAILURE(
                                check(arrays, missing_code[turn % 4], {ranges, bits}));
                    }
}

TEST(TextEncoder, ManyDifferentTextsOnAnyNumberOfThreads) {
    std::mt19937 random(7);
    std::vector<std::string> words;
    for (int i = 0; i < 150'000; ++i)
        words.push_back("word" + std::to_string(i) + (i % 3 == 0 ? " of more than 16 bytes" : ""));
    const auto cells = draw_cells(400'000, words, 1, random);
    text_arrays arrays;
    for (std::size_t row = 0; row < cells.size(); row += 50'000)
        arrays.add(std::span(cells).subspan(row, 50'000), static_cast<layout>(row / 50'000 % 3), 0,
                   random);
    const expected_texts expected = encode_plainly(arrays.places(), -1);
    ASSERT_GT(expected.words.size(), 130'000U);
    std::vector<std::int32_t> codes(cells.size());
    for (const int threads : {1, 2, 5}) {
        std::fill(codes.begin(), codes.end(), -2);
        encoded_texts got;
        tbb::task_arena(threads).execute([&] { got = encode_texts(arrays.chunks(), codes, -1); });
        ASSERT_EQ(codes, expected.codes) << threads << " threads";
        ASSERT_EQ(got.words, expected.words) << threads << " threads";
        ASSERT_EQ(got.missing, expected.missing);
    }
    ASSERT_NO_FATAL_FAILURE(check(arrays, -1, {.ranges = 40}));
    // Of six leading bits of the hashes, most prefixes have no texts, and those of some lie where
    // others belong, at the table's beginning, too.
    const std::span some_words = std::span(words).first(3000);
    text_arrays part;
    part.add(draw_cells(12'000, {some_words.begin(), some_words.end()}, 1, random),
             layout::offsets32, 0, random);
    ASSERT_NO_FATAL_FAILURE(check(part, -1, {.ranges = 4, .hash_bits = 0xfc000000}));
}

TEST(TextEncoder, NoRows) {
    EXPECT_TRUE(encode_texts({}, {}, -1).words.empty());
    // Arrays without rows need no buffers.
    const text_chunk chunks[] = {{.kind = layout::offsets32}, {.kind = layout::views}};
    const encoded_texts got = encode_texts(chunks, {}, -1);
    EXPECT_TRUE(got.words.empty());
    EXPECT_EQ(got.missing, 0U);
}

TEST(TextEncoder, EmptyTextsNeedNoBytes) {
    const std::int32_t offsets[] = {0, 0, 0};
    const text_chunk chunk{.rows = 2, .places = offsets};
    std::int32_t codes[] = {7, 7};
    EXPECT_EQ(encode_texts({&chunk, 1}, codes, -1).words, std::vector<std::string_view>{""});
    EXPECT_EQ(codes[0], 0);
    EXPECT_EQ(codes[1], 0);
}

void expect_malformed(const text_chunk &chunk, std::uint64_t row) {
    for (std::size_t ranges = 1; ranges <= 8; ++ranges) {
        std::vector<std::int32_t> codes(static_cast<std::size_t>(chunk.rows));
        try {
            encode_texts({&chunk, 1}, codes, -1, {.ranges = ranges, .most_texts = ranges % 2});
            ADD_FAILURE() << "no failure for row " << row;
        } catch (const malformed_texts &failure) {
            EXPECT_EQ(failure.row, row) << ranges << " ranges";
        }
    }
}

// Every other row of them would be read outside the bytes.
TEST(TextEncoder, MalformedOffsets) {
    const guarded<char> bytes(std::string_view("0123456789012345678901234567890123456789"));
    const auto expect = [&]<class Offset>(std::vector<Offset> offsets, std::uint64_t row) {
        const guarded<Offset> kept(offsets);
        expect_malformed({.kind = sizeof(Offset) == 4 ? layout::offsets32 : layout::offsets64,
                          .rows = static_cast<std::int64_t>(offsets.size() - 1),
                          .places = kept.data(),
                          .bytes = bytes.data()},
                         row);
    };
    using narrow = std::vector<std::int32_t>;
    using wide = std::vector<std::int64_t>;
    expect(narrow{0, 5, 4, 40, 40}, 1);
    expect(narrow{0, 5, 10, 2'000'000'000, 40}, 2);
    expect(narrow{0, 5, 10, -2'000'000'000, 40}, 2);
    expect(narrow{0, 5, 10, 20, -1}, 0);
    expect(narrow{30, 2, 3, 4, 40}, 0);
    expect(narrow{0, 5, 41, 3, 20}, 1);
    expect(wide{0, 5, std::numeric_limits<std::int64_t>::max(), 6, 40}, 1);
    expect(wide{0, 5, std::numeric_limits<std::int64_t>::min(), 6, 40}, 1);
    expect(wide{0, 1LL << 40, (1LL << 40) + 3, 6, 40}, 0);

    // It does not matter what offsets of rows without values are, nor is it read.
    const std::int32_t offsets[] = {0, 5, 2'000'000'000, 35, 40};
    const std::uint8_t validity = 0b1001;
    std::int32_t codes[4];
    const text_chunk chunk{
        .rows = 4, .places = offsets, .bytes = bytes.data(), .validity = &validity};
    const encoded_texts got = encode_texts({&chunk, 1}, codes, -1);
    EXPECT_EQ(got.words, (std::vector<std::string_view>{"01234", "56789"}));
    EXPECT_EQ(got.missing, 2U);
}

TEST(TextEncoder, MalformedViews) {
    using view = std::array<std::int32_t, 4>;
    const std::string text(20, 'x');
    const void *buffers[] = {text.data()};
    for (const view bad : {view{-1, 0, 0, 0}, view{20, 0, -1, 0}, view{20, 0, 0, -1},
                           view{std::numeric_limits<std::int32_t>::min(), 0, 0, 0}}) {
        const view views[] = {{3, 0, 0, 0}, {20, 0, 0, 0}, bad, {3, 0, 0, 0}, bad};
        expect_malformed(
            {.kind = layout::views, .rows = 5, .places = views, .view_buffers = buffers}, 2);
    }
}

TEST(TextEncoder, OtherNumbersOfRowsAreRefused) {
    const std::int32_t offsets[] = {0, 0, 0};
    const text_chunk chunk{.rows = 2, .places = offsets};
    std::int32_t codes[3];
    EXPECT_THROW(encode_texts({&chunk, 1}, codes, -1), std::length_error);
    EXPECT_THROW(encode_texts({}, codes, -1), std::length_error);
}

} // namespace
