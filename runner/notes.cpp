#include "notes.h"

#include "terminal_text.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include <fmt/format.h>

namespace vask::runner {

void tell_note(std::string_view text) {
    tell(fmt::format("vask: note: {}\n", text));
}

// Names of columns and files, cells and options may hold what a terminal obeys.
void tell(std::string_view text) {
    std::string shown;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        shown += terminal_text(text.substr(begin, end - begin));
        if (end < text.size())
            shown += '\n';
        begin = end + 1;
    }
    static_cast<void>(std::fwrite(shown.data(), 1, shown.size(), stderr) == shown.size());
}

} // namespace vask::runner
