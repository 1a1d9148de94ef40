// What a call asked of the kernel, in order, told without numbers that differ from run to run.
#pragma once

#include "vask/refkernel/instrumentation.h"

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

namespace support {

enum class memory_calls { told, left_out };

//! The recorded calls with their arguments. A BAT is called by its role, by "new" if it has none, a
//! mirror with a minus before it. n equal calls of the memory in a row are one with "*n" behind it.
inline std::string calls_by_role(const refkernel::instrumentation::watch &kernel,
                                 const std::map<std::int32_t, std::string> &roles,
                                 memory_calls memory = memory_calls::told) {
    std::string calls;
    std::string last;
    int times = 0;
    for (const auto &call : kernel.recorded()) {
        const std::string name = operation_name(call.op);
        std::string rest = call.text.substr(name.size() + 1);
        const bool is_memory = name.starts_with("GDK");
        if (is_memory && memory == memory_calls::left_out)
            continue;
        times = call.text == last && is_memory ? times + 1 : 1;
        last = call.text;
        if (times > 1) {
            if (times > 2)
                calls.erase(calls.rfind('*'));
            calls.append("*").append(std::to_string(times));
            continue;
        }
        calls.append(calls.empty() ? "" : " ").append(name).append("(");
        int bats = is_memory || name == "BATnew" || name.starts_with("VAL") ? 0
                   : name == "VIEWcreate" || name.starts_with("ALIGN")      ? 2
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
