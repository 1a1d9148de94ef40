// The lock around the extents while several tasks append to them.
#pragma once

#include <mutex>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace vask {

//! A mutual-exclusion lock that tries for a while before it sleeps: what it guards takes less time
//! than going to sleep and being woken.
class spin_then_sleep_lock {
public:
    void lock() {
        for (int i = 0; i < spins; ++i) {
            if (mutex_.try_lock())
                return;
            pause();
        }
        mutex_.lock();
    }

    void unlock() { mutex_.unlock(); }

private:
    static constexpr int spins = 4000;

    static void pause() noexcept {
#if defined(__x86_64__)
        _mm_pause();
#endif
    }

    std::mutex mutex_;
};

} // namespace vask
