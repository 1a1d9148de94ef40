#include "runner/record_chunks.h"

#include <random>
#include <string>

#include <gtest/gtest.h>

namespace vask::runner {
namespace {

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

TEST(RecordChunks, EndsAreOutsideQuotes) {
    const std::string text = "\"a\",\"b\"\n\"c\nd\"\ne\n";
    EXPECT_EQ(end_outside_quotes(text, 0, 8, '"'), 8U);   // four quotes, all closed
    EXPECT_EQ(end_outside_quotes(text, 0, 11, '"'), 14U); // within "c\nd"
    EXPECT_EQ(end_outside_quotes(text, 8, 14, '"'), 14U); // two quotes
    EXPECT_EQ(end_outside_quotes(text, 8, 11, '\''), 11U);
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
