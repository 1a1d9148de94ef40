// Operations of the kernel as another host may carry them out, or seen as it sees them. The test
// program has its own VIEWcreate and ALIGNsynced in front of the reference kernel's.
#pragma once

#include "vask/kernel/bat.h"

#include <functional>
#include <utility>

namespace support {

//! For the length of a test case every pair of heads is aligned, whatever rows they have.
class everything_aligned {
public:
    everything_aligned() { claimed = true; }
    everything_aligned(const everything_aligned &) = delete;
    everything_aligned &operator=(const everything_aligned &) = delete;
    ~everything_aligned() { claimed = false; }

    static inline bool claimed = false;
};

//! For the length of a test case `look(a, b)` is called before each VIEWcreate(a, b).
class view_look_out {
public:
    explicit view_look_out(std::function<void(const BAT &, const BAT &)> look) {
        standing = std::move(look);
    }
    view_look_out(const view_look_out &) = delete;
    view_look_out &operator=(const view_look_out &) = delete;
    ~view_look_out() { standing = nullptr; }

    static inline std::function<void(const BAT &, const BAT &)> standing;
};

} // namespace support
