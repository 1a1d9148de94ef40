#include "explain.h"

#include "notes.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include <fmt/format.h>

namespace vask::runner {

void explain_log::note(std::string_view text) const {
    if (on_)
        tell(fmt::format("{}\n", text));
}

table::operator_set::watcher explain_log::watcher() const {
    if (!on_)
        return {};
    return [this](const table::operator_set::call_notice &notice, const std::function<void()> &call,
                  const std::function<std::string()> &outcome) {
        const plan_capture plan;
        const auto begin = std::chrono::steady_clock::now();
        call();
        const std::chrono::duration<double, std::milli> time =
            std::chrono::steady_clock::now() - begin;
        note(fmt::format("{}({}): {} rows, {}{}{:.3f} ms", notice.name, notice.about, notice.rows,
                         plan.told(), outcome(), time.count()));
    };
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
