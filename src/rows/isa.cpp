#include "rows/isa.h"

#include <algorithm>
#include <atomic>

namespace vask {

namespace {

instruction_set detect() noexcept {
#if defined(__x86_64__)
    __builtin_cpu_init();
    const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") &&
                      __builtin_cpu_supports("bmi2") && __builtin_cpu_supports("popcnt");
    if (!avx2)
        return instruction_set::baseline;
    const bool avx512 = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                        __builtin_cpu_supports("avx512cd") && __builtin_cpu_supports("avx512dq") &&
                        __builtin_cpu_supports("avx512vl");
    return avx512 ? instruction_set::avx512 : instruction_set::avx2;
#else
    return instruction_set::baseline;
#endif
}

std::atomic<instruction_set> best{detect()};

} // namespace

instruction_set widest_instruction_set() noexcept {
    static const instruction_set widest = detect();
    return widest;
}

void limit_instruction_set(instruction_set limit) noexcept {
    best.store(std::min(limit, widest_instruction_set()), std::memory_order_relaxed);
}

instruction_set best_instruction_set() noexcept {
    return best.load(std::memory_order_relaxed);
}

} // namespace vask
