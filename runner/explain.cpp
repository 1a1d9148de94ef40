#include "explain.h"

#include <cstdio>

#include <fmt/format.h>

namespace vask::runner {

void explain_log::note(std::string_view text) const {
    if (on_)
        fmt::print(stderr, "{}\n", text);
}

void explain_log::note_call(std::string_view name, std::string_view columns, BUN rows,
                            std::string_view told,
                            std::chrono::duration<double, std::milli> time) const {
    note(fmt::format("{}({}): {} rows, {}{:.3f} ms", name, columns, rows, told, time.count()));
}

std::string explain_log::plan_capture::told() const {
    constexpr std::string_view mark = "#plan: ";
    std::string told;
    std::string_view rest = output_.text();
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
        if (line.starts_with(mark))
            told.append(line.substr(mark.size())).append(", ");
    }
    return told;
}

} // namespace vask::runner
