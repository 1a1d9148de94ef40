#include "terminal_text.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace vask::runner {
namespace {

struct code_range {
    char32_t first;
    char32_t last;
};

// Characters that are wide by the Unicode property East_Asian_Width, joined where what lies between
// is not assigned.
constexpr std::array wide{
    code_range{0x1100, 0x115F},   code_range{0x231A, 0x231B},   code_range{0x2329, 0x232A},
    code_range{0x23E9, 0x23EC},   code_range{0x2614, 0x2615},   code_range{0x2648, 0x2653},
    code_range{0x26A1, 0x26A1},   code_range{0x2705, 0x2705},   code_range{0x2728, 0x2728},
    code_range{0x274C, 0x274C},   code_range{0x2753, 0x2755},   code_range{0x2795, 0x2797},
    code_range{0x2B1B, 0x2B1C},   code_range{0x2B50, 0x2B50},   code_range{0x2E80, 0x303E},
    code_range{0x3041, 0x4DBF},   code_range{0x4E00, 0xA4CF},   code_range{0xA960, 0xA97F},
    code_range{0xAC00, 0xD7A3},   code_range{0xF900, 0xFAFF},   code_range{0xFE30, 0xFE6F},
    code_range{0xFF01, 0xFF60},   code_range{0xFFE0, 0xFFE6},   code_range{0x16FE0, 0x18AFF},
    code_range{0x1B000, 0x1B2FF}, code_range{0x1F300, 0x1F320}, code_range{0x1F32D, 0x1F335},
    code_range{0x1F337, 0x1F37C}, code_range{0x1F37E, 0x1F393}, code_range{0x1F3A0, 0x1F3CA},
    code_range{0x1F3E0, 0x1F3F0}, code_range{0x1F3F8, 0x1F43E}, code_range{0x1F440, 0x1F440},
    code_range{0x1F442, 0x1F4FC}, code_range{0x1F4FF, 0x1F53D}, code_range{0x1F550, 0x1F567},
    code_range{0x1F5FB, 0x1F64F}, code_range{0x1F680, 0x1F6C5}, code_range{0x1F6EB, 0x1F6EC},
    code_range{0x1F7E0, 0x1F7EB}, code_range{0x1F90C, 0x1F9FF}, code_range{0x1FA70, 0x1FAFF},
    code_range{0x20000, 0x3FFFD}};

// Marks that are put over other characters, and what joins or directs them.
constexpr std::array without_width{
    code_range{0x0300, 0x036F}, code_range{0x0483, 0x0489},  code_range{0x0591, 0x05BD},
    code_range{0x0610, 0x061A}, code_range{0x064B, 0x065F},  code_range{0x0E34, 0x0E3A},
    code_range{0x0E47, 0x0E4E}, code_range{0x1AB0, 0x1AFF},  code_range{0x1DC0, 0x1DFF},
    code_range{0x200B, 0x200F}, code_range{0x202A, 0x202E},  code_range{0x2060, 0x2064},
    code_range{0x20D0, 0x20F0}, code_range{0xFE00, 0xFE0F},  code_range{0xFE20, 0xFE2F},
    code_range{0xFEFF, 0xFEFF}, code_range{0xE0100, 0xE01EF}};

template <std::size_t N>
bool is_in(const std::array<code_range, N> &ranges, char32_t code) {
    const auto *const range =
        std::lower_bound(ranges.begin(), ranges.end(), code,
                         [](const code_range &each, char32_t c) { return each.last < c; });
    return range != ranges.end() && range->first <= code;
}

struct character {
    char32_t code;
    std::size_t bytes;
};

// The first character of a text that is not empty; a byte that begins none stands for itself.
character first_character(std::string_view text) {
    const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const std::size_t bytes = byte(0) < 0x80    ? 1
                              : byte(0) >= 0xF0 ? 4
                              : byte(0) >= 0xE0 ? 3
                              : byte(0) >= 0xC2 ? 2
                                                : 1;
    constexpr std::array<unsigned char, 5> first_bits{0, 0x7F, 0x1F, 0x0F, 0x07};
    constexpr char32_t replacement = 0xFFFD;
    if (bytes == 1)
        return {byte(0) < 0x80 ? char32_t{byte(0)} : replacement, 1};
    if (bytes > text.size())
        return {replacement, 1};
    auto code = static_cast<char32_t>(byte(0) & first_bits[bytes]);
    for (std::size_t i = 1; i < bytes; ++i) {
        if ((byte(i) & 0xC0) != 0x80)
            return {replacement, 1};
        code = (code << 6) | (byte(i) & 0x3F);
    }
    return {code, bytes};
}

bool is_control(char32_t code) {
    return code < 0x20 || (code >= 0x7F && code < 0xA0);
}

// A control character of eight bits, which begins no character of UTF-8.
bool is_control_byte(char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return value >= 0x80 && value < 0xA0;
}

std::string without_controls(std::string_view text, bool one_line) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const auto [code, bytes] = first_character(text);
        if (!one_line && (code == '\t' || code == '\n'))
            result += text.front();
        else if (one_line && (code == '\t' || code == '\n' || code == '\r'))
            result += ' ';
        else if (is_control(code) || is_control_byte(text.front()))
            result += '?';
        else
            result += text.substr(0, bytes);
        text.remove_prefix(bytes);
    }
    return result;
}

} // namespace

std::string terminal_text(std::string_view text) {
    return without_controls(text, true);
}

std::string terminal_lines(std::string_view lines) {
    return without_controls(lines, false);
}

std::size_t terminal_width(std::string_view text) {
    std::size_t width = 0;
    while (!text.empty()) {
        const auto [code, bytes] = first_character(text);
        width += is_in(wide, code) ? 2 : is_in(without_width, code) ? 0 : 1;
        text.remove_prefix(bytes);
    }
    return width;
}

} // namespace vask::runner
