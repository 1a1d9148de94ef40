// What the user is told besides the result.
#pragma once

#include <string_view>

namespace vask::runner {

//! One line on standard error: the result stands, but it may not be what was meant.
void tell_note(std::string_view text);

} // namespace vask::runner
