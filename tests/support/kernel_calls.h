// What a call asked of the kernel, in order, told without numbers that differ from run to run.
#pragma once

#include "vask/refkernel/instrumentation.h"

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

namespace support {

//! The recorded calls with their arguments, but those for memory. A BAT is called by its role, by
//! "new" if it has none, a mirror with a minus before it.
inline std::string calls_by_role(const refkernel::instrumentation::watch &kernel,
                                 const std::map<std::int32_t, std::string> &roles) {
    std::string calls;
    for (const auto &call : kernel.recorded()) {
        const std::string name = operation_name(call.op);
        std::string rest = call.text.substr(name.size() + 1);
        if (name.starts_with("GDK"))
            continue;
        calls.append(calls.empty() ? "" : " ").append(name).append("(");
        int bats = name == "BATnew" || name.starts_with("VAL")         ? 0
                   : name == "VIEWcreate" || name.starts_with("ALIGN") ? 2
                                                                       : 1;
        for (; bats > 0; --bats) {
            std::size_t end = 0;
            const std::int32_t id = std::stoi(rest, &end);
            const auto role = roles.find(std::abs(id));
            calls.append(id < 0 ? "-" : "").append(role == roles.end() ? "new" : role->second);
            if (bats > 1)
                calls.append(rest, end, 2), end += 2;
            rest.erase(0, end);
        }
        calls += rest;
    }
    return calls;
}

} // namespace support
