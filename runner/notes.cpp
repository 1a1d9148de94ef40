#include "notes.h"

#include <cstdio>

#include <fmt/format.h>

namespace vask::runner {

void tell_note(std::string_view text) {
    tell(fmt::format("vask: note: {}\n", text));
}

void tell(std::string_view text) {
    static_cast<void>(std::fwrite(text.data(), 1, text.size(), stderr) == text.size());
}

} // namespace vask::runner
