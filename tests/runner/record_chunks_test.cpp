#include "runner/record_chunks.h"

#include "runner/csv_parser.h"

#include <random>
#include <string>

#include <gtest/gtest.h>

namespace vask::runner {
namespace {

struct record_collector {
    std::vector<std::vector<std::string>> records{{}};
    void field(std::string_view text) { records.back().emplace_back(text); }
    void record() { records.emplace_back(); }
    static bool stopped() { return false; }
};

std::vector<std::vector<std::string>> parse(std::string_view text) {
    record_collector collected;
    csv_parser parser(csv_dialect{}, collected);
    EXPECT_EQ(parser.feed(text), text.size());
    EXPECT_TRUE(parser.finish());
    EXPECT_TRUE(collected.records.back().empty());
    collected.records.pop_back();
    return collected.records;
}

// Well-formed text of short fields, in which quotes, separators and line ends are frequent.
std::string random_text(std::mt19937 &random, std::string_view line_end) {
    const auto upto = [&random](std::size_t n) { return random() % (n + 1); };
    std::string text;
    for (std::size_t record = upto(40); record > 0; --record) {
        for (unsigned field = 0; field < 3; ++field) {
            if (field > 0)
                text += ',';
            const bool quoted = upto(2) == 0;
            if (quoted)
                text += '"';
            for (std::size_t i = upto(6); i > 0; --i)
                text += quoted ? std::array{"x", "\"\"", ",", "\n", "\r\n"}[upto(4)] : "y";
            if (quoted)
                text += '"';
        }
        text += line_end;
        if (upto(5) == 0)
            text += line_end;
    }
    if (upto(1) == 0)
        text += "last,one,open";
    return text;
}

TEST(RecordChunks, CutTextGivesTheSameRecords) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        std::mt19937 random(seed);
        const std::string text = random_text(random, seed % 3 == 0 ? "\r\n" : "\n");
        const auto whole = parse(text);
        for (const std::size_t chunk_bytes : {1U, 2U, 7U, 50U, 300U, 100'000U}) {
            SCOPED_TRACE(testing::Message() << "seed " << seed << ", chunks of " << chunk_bytes);
            const record_chunks cut = split_records(text, 0, '"', chunk_bytes, 1 + seed % 3);
            std::vector<std::vector<std::string>> pieces;
            std::size_t end = 0;
            for (const record_chunk &chunk : cut.chunks) {
                EXPECT_EQ(chunk.begin, end);
                end = chunk.end;
                const auto part =
                    parse(std::string_view(text).substr(chunk.begin, end - chunk.begin));
                EXPECT_GE(chunk.max_records, part.size());
                pieces.insert(pieces.end(), part.begin(), part.end());
            }
            EXPECT_EQ(end, text.size());
            EXPECT_EQ(pieces, whole);
        }
    }
}

TEST(RecordChunks, PlainLinesAreCountedExactlyAndCutFinely) {
    std::string text = "header\n";
    for (int i = 0; i < 1000; ++i)
        text += "abc,def\n";
    const record_chunks cut = split_records(text, 7, '"', 80, 2);
    std::uint64_t records = 0;
    for (const record_chunk &chunk : cut.chunks)
        records += chunk.max_records;
    EXPECT_EQ(records, 1001U); // the last one might have had no newline
    EXPECT_EQ(cut.chunks.size(), 100U);
    EXPECT_EQ(cut.chunks.front().begin, 7U);
}

TEST(RecordChunks, NulBytesAreFound) {
    std::string text(5000, 'x');
    text[4321] = '\0';
    EXPECT_EQ(split_records(text, 0, '"', 100, 2).nul_byte, 4321U);
    EXPECT_FALSE(split_records(std::string(5000, 'x'), 0, '"', 100, 2).nul_byte.has_value());
    EXPECT_TRUE(split_records("", 0, '"', 100, 2).chunks.empty());
}

TEST(RecordChunks, LineEnds) {
    std::mt19937 random(7);
    for (int i = 0; i < 200; ++i) {
        std::string text;
        for (std::size_t n = random() % 700; n > 0; --n)
            text += "\r\nab"[random() % 4];
        std::uint64_t expected = 0;
        for (std::size_t at = 0; at < text.size(); ++at)
            if (text[at] == '\r' || (text[at] == '\n' && (at == 0 || text[at - 1] != '\r')))
                ++expected;
        EXPECT_EQ(count_line_ends(text), expected) << "text " << i;
        std::uint64_t steps = 0;
        for (std::size_t at = 0; at < text.size(); at = end_of_line(text, at))
            ++steps;
        const bool ended = text.ends_with('\n') || text.ends_with('\r') || text.empty();
        EXPECT_EQ(steps, expected + (ended ? 0 : 1)) << "text " << i;
    }
    EXPECT_EQ(count_line_ends("\nx", '\r'), 0U);
}

} // namespace
} // namespace vask::runner
