// What the user is told besides the result.
#pragma once

#include <string_view>

namespace vask::runner {

//! One line on standard error: the result stands, but it may not be what was meant.
void tell_note(std::string_view text);

//! Writes to standard error. One that is full or closed is no failure: the exit status still tells
//! what came of the request.
void tell(std::string_view text);

} // namespace vask::runner
