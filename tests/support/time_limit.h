// How long a case may take that a fault would make many times slower.
#pragma once

namespace support {

//! Seconds at plain speed as seconds of this build: the thread sanitizer makes a case several times
//! slower.
constexpr double time_limit(double seconds) {
#if defined(__SANITIZE_THREAD__)
    return 10 * seconds;
#else
    return seconds;
#endif
}

} // namespace support
