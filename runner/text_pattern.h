// Patterns that a text is like.
#pragma once

#include <string_view>

namespace vask::runner {

//! Whether a text is like a pattern in which one character stands for any bytes, another for one.
bool is_like(std::string_view text, std::string_view pattern, char any, char one);

} // namespace vask::runner
