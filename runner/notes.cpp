#include "notes.h"

#include <cstdio>

#include <fmt/format.h>

namespace vask::runner {

void tell_note(std::string_view text) {
    fmt::print(stderr, "vask: note: {}\n", text);
}

} // namespace vask::runner
