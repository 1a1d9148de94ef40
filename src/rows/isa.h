// One text of a hot loop, compiled for several instruction sets; the widest one
// that the machine has is picked at run time.
#pragma once

#include <cstdint>
#include <utility>

// On the functions that make up a row loop: only code that is inlined into the
// caller takes over the caller's instruction set.
#define VASK_ALWAYS_INLINE inline __attribute__((always_inline))

namespace vask {

enum class instruction_set : std::uint8_t { baseline, avx2, avx512 };

//! The widest set that both this build and the machine have.
instruction_set widest_instruction_set() noexcept;

//! Makes best_instruction_set() answer at most `limit`, for tests that compare the sets.
void limit_instruction_set(instruction_set limit) noexcept;

//! The set that with_best_instruction_set() uses. Safe from any thread.
instruction_set best_instruction_set() noexcept;

#if defined(__x86_64__) && !defined(VASK_BASELINE_ONLY)

// Neither wrapper names fma: contraction is switched off for the whole build,
// because a fused multiply-add rounds differently from the two operations.
template <class Loop>
__attribute__((target("avx2,bmi,bmi2,popcnt"), flatten)) auto compiled_for_avx2(Loop &loop) {
    return loop();
}

template <class Loop>
__attribute__((target("avx2,bmi,bmi2,popcnt,avx512f,avx512bw,avx512cd,avx512dq,avx512vl"),
               flatten)) auto
compiled_for_avx512(Loop &loop) {
    return loop();
}

//! Runs `loop`, a callable without arguments marked VASK_ALWAYS_INLINE, in the copy of its code
//! that was compiled for the best instruction set. All copies give the same results.
template <class Loop>
auto with_best_instruction_set(Loop loop) {
    switch (best_instruction_set()) {
        case instruction_set::avx512:
            return compiled_for_avx512(loop);
        case instruction_set::avx2:
            return compiled_for_avx2(loop);
        case instruction_set::baseline:
            break;
    }
    return loop();
}

#else

template <class Loop>
auto with_best_instruction_set(Loop loop) {
    return loop();
}

#endif

} // namespace vask
