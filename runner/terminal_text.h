// Text as a terminal shows it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vask::runner {

//! The text without characters that a terminal obeys instead of showing them: white space becomes a
//! blank, another control character a question mark.
std::string terminal_text(std::string_view text);

//! The same of whole lines, which keep their ends and tabs.
std::string terminal_lines(std::string_view lines);

//! Columns that it takes: two for a wide character as of East Asian scripts, none for one that is
//! put over the character before it. Bytes that are no UTF-8 take one each.
std::size_t terminal_width(std::string_view text);

} // namespace vask::runner
