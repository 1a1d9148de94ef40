#include "explain.h"

#include <cstdio>

#include <fmt/format.h>

namespace vask::runner {

void explain_log::note(std::string_view text) const {
    if (on_)
        fmt::print(stderr, "{}\n", text);
}

void explain_log::note_call(std::string_view name, std::string_view columns, BUN rows,
                            std::string_view road,
                            std::chrono::duration<double, std::milli> time) const {
    note(fmt::format("{}({}): {} rows, {}, {:.3f} ms", name, columns, rows, road, time.count()));
}

} // namespace vask::runner
