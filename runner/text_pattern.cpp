#include "text_pattern.h"

#include <cstddef>

namespace vask::runner {

bool is_like(std::string_view text, std::string_view pattern, char any, char one) {
    std::size_t at = 0;
    std::size_t in_pattern = 0;
    // The last character for any bytes, and where the text went on behind it.
    std::size_t star = std::string_view::npos;
    std::size_t retry = 0;
    while (at < text.size()) {
        if (in_pattern < pattern.size() && pattern[in_pattern] == any) {
            star = in_pattern++;
            retry = at;
        } else if (in_pattern < pattern.size() &&
                   (pattern[in_pattern] == one || pattern[in_pattern] == text[at])) {
            ++in_pattern;
            ++at;
        } else if (star != std::string_view::npos) {
            in_pattern = star + 1;
            at = ++retry;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of(any, in_pattern) == std::string_view::npos;
}

} // namespace vask::runner
