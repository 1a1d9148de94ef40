#include "runner/text_pattern.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vask::runner {
namespace {

// By the meaning of each character of the pattern, one after the other.
bool plainly_like(std::string_view text, std::string_view pattern) {
    if (pattern.empty())
        return text.empty();
    if (pattern.front() == '*')
        return plainly_like(text, pattern.substr(1)) ||
               (!text.empty() && plainly_like(text.substr(1), pattern));
    return !text.empty() && (pattern.front() == '?' || pattern.front() == text.front()) &&
           plainly_like(text.substr(1), pattern.substr(1));
}

std::vector<std::string> all_of(std::string_view letters, std::size_t longest) {
    std::vector<std::string> made{""};
    for (std::size_t at = 0; at < made.size() && made[at].size() < longest; ++at)
        for (const char letter : letters)
            made.push_back(made[at] + letter);
    return made;
}

// All short texts and patterns. Behind a pattern stands what would make more texts like it.
TEST(TextPattern, AgreesWithItsMeaning) {
    const std::vector<std::string> texts = all_of("ab", 5);
    for (const std::string &pattern : all_of("ab*?", 5))
        for (const char behind : {'a', '*', '?'}) {
            const std::string longer = pattern + behind;
            const std::string_view own = std::string_view(longer).substr(0, pattern.size());
            for (const std::string &text : texts)
                ASSERT_EQ(is_like(text, own, '*', '?'), plainly_like(text, pattern))
                    << "'" << text << "' like '" << pattern << "'";
        }
}

} // namespace
} // namespace vask::runner
