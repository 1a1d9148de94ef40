#include "explain.h"

#include "kernel/frame.h"

#include <cstdio>

#include <fmt/format.h>

namespace vask::runner {

void explain_log::note(std::string_view text) const {
    if (on_)
        fmt::print(stderr, "{}\n", text);
}

void explain_log::note_call(std::string_view name, std::string_view columns, BUN rows,
                            std::chrono::duration<double, std::milli> time) const {
    const std::uint64_t partitions = partition_count(rows);
    note(fmt::format("{}({}): {} rows, {} partition{}, {:.3f} ms", name, columns, rows, partitions,
                     partitions == 1 ? "" : "s", time.count()));
}

} // namespace vask::runner
