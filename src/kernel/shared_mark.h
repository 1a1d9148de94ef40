// What tasks tell the thread that waits for them.
#pragma once

#include <atomic>

namespace vask {

//! A mark that tasks can only set: that one of them failed, or met a nil. A task may look at it to
//! end early; for certain it is known after the wait.
class shared_mark {
public:
    void set() noexcept { set_.store(true, std::memory_order_relaxed); }
    bool is_set() const noexcept { return set_.load(std::memory_order_relaxed); }

private:
    std::atomic<bool> set_{false};
};

} // namespace vask
