#include "vask/embed.h"

#include "refkernel/instrumented.h"
#include "refkernel/memory.h"
#include "refkernel/pool.h"

#include <algorithm>

namespace refkernel {

kernel_usage current_usage() {
    const auto [bats, physical, logical, misuses] = pool::current_usage();
    return {bats, physical, logical, misuses};
}

checkpoint::checkpoint() : usage_(current_usage()), bytes_(memory::bytes_outstanding()) {
    for (const pool::live_bat &each : pool::live_bats()) {
        live_.push_back(each.id);
    }
}

std::string checkpoint::leaks() const {
    std::string report;
    const auto line = [&report](const std::string &text) { report += text + "\n"; };
    for (const pool::live_bat &each : pool::live_bats()) {
        if (!std::binary_search(live_.begin(), live_.end(), each.id)) {
            line("BAT " + std::to_string(each.id) + " of " + std::to_string(each.count) +
                 " rows lives, with " + std::to_string(each.physical) + " physical and " +
                 std::to_string(each.logical) + " logical references and " +
                 std::to_string(each.views) + " views");
        }
    }
    const auto difference = [&line](const char *what, std::int64_t now, std::int64_t then) {
        if (now != then) {
            line(std::string(what) + ": " + std::to_string(then) + " before, " +
                 std::to_string(now) + " now");
        }
    };
    const kernel_usage now = current_usage();
    difference("BATs", now.bats, usage_.bats);
    difference("physical references", now.physical, usage_.physical);
    difference("logical references", now.logical, usage_.logical);
    difference("releases of references that nobody held", now.misuses, usage_.misuses);
    difference("bytes", static_cast<std::int64_t>(memory::bytes_outstanding()),
               static_cast<std::int64_t>(bytes_));
    for (const auto &each : instrumentation::open_accesses()) {
        line("BATaccess of BAT " + std::to_string(each.bat_id) + " for " +
             std::to_string(each.what) + ": " + std::to_string(each.open) + " open");
    }
    return report;
}

} // namespace refkernel
