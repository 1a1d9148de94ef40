#include "notes.h"

#include "terminal_text.h"

#include <cstdio>
#include <string>

#include <fmt/format.h>

namespace vask::runner {

void tell_note(std::string_view text) {
    tell(fmt::format("vask: note: {}\n", text));
}

// Names of columns and files, cells and options may hold what a terminal obeys.
void tell(std::string_view text) {
    const std::string shown = terminal_lines(text);
    static_cast<void>(std::fwrite(shown.data(), 1, shown.size(), stderr) == shown.size());
}

} // namespace vask::runner
