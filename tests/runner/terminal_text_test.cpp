#include "runner/terminal_text.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vask::runner {
namespace {

// Characters on both sides of where a range of widths begins and ends.
TEST(TerminalText, WidthsAtTheEdgesOfTheirRanges) {
    const std::vector<std::pair<std::string, std::size_t>> cases{
        {"\u02ff", 1},     {"\u0300", 0},       {"\u036f", 0},     {"\u0370", 1},
        {"\u10ff", 1},     {"\u1100", 2},       {"\u115f", 2},     {"\u1160", 1},
        {"\u26a0", 1},     {"\u26a1", 2},       {"\u26a2", 1},     {"\u200a", 1},
        {"\u200b", 0},     {"\ufeff", 0},       {"\uff00", 1},     {"\uff01", 2},
        {"\uff60", 2},     {"\uff61", 1},       {"\uffff", 1},     {"\U0001f600", 2},
        {"\U00020000", 2}, {"\U0003fffd", 2},   {"\U000e00ff", 1}, {"\U000e0100", 0},
        {"e\u0301", 1},    {"\u4e2d\u6587", 4}, {"", 0},           {"abc", 3}};
    for (const auto &[text, width] : cases)
        EXPECT_EQ(terminal_width(text), width) << text;
}

// What is cut short, or goes on with a byte that continues nothing, is shown byte by byte.
TEST(TerminalText, BytesThatAreNoTextTakeAColumnEach) {
    const std::vector<std::pair<std::string, std::size_t>> cases{{"\xe4", 1},
                                                                 {"\xe4\xb8", 2},
                                                                 {"\xe4\xb8z", 3},
                                                                 {"\xf0\x9f\x98", 3},
                                                                 {"\xff\xfe", 2},
                                                                 {"\xc3"
                                                                  "\u4e2d",
                                                                  3},
                                                                 {"\xc0\xaf", 2},
                                                                 {"\xbf", 1}};
    for (const auto &[text, width] : cases)
        EXPECT_EQ(terminal_width(text), width) << testing::PrintToString(text);
    // The end of the text, not of the character.
    EXPECT_EQ(terminal_width(std::string_view("\u0301").substr(0, 1)), 1);
    EXPECT_EQ(terminal_text("\xe4\xb8z\xff\xa0"), "\xe4\xb8z\xff\xa0");
}

// A terminal obeys the characters below the blank, the one behind the letters, and those of eight
// bits from 0x80 to 0x9f, as a byte and as a character.
TEST(TerminalText, LeavesNothingThatATerminalObeys) {
    EXPECT_EQ(terminal_text("a\tb\r\nc\x1b[2J\x7f\u009b"
                            "d\u00a0\u4e2d"),
              "a b  c?[2J??d\u00a0\u4e2d");
    std::mt19937 random(3);
    for (int i = 0; i < 20'000; ++i) {
        std::string text(random() % 12, '\0');
        for (char &c : text)
            c = static_cast<char>(random() % 3 == 0 ? random() % 0x40 + 0x80 : random() % 256);
        const std::string shown = terminal_text(text);
        for (std::size_t at = 0; at < shown.size(); ++at) {
            const auto byte = static_cast<unsigned char>(shown[at]);
            ASSERT_FALSE(byte < 0x20 || byte == 0x7f) << testing::PrintToString(text);
            // Behind what begins a character it is a part of that.
            ASSERT_FALSE(byte >= 0x80 && byte < 0xa0 &&
                         (at == 0 || static_cast<unsigned char>(shown[at - 1]) < 0x80 ||
                          shown[at - 1] == '\xc2'))
                << testing::PrintToString(text);
        }
    }
}

} // namespace
} // namespace vask::runner
