// Writing memory past the caches.
#pragma once

#include "rows/isa.h"

#include <cstddef>
#include <cstring>

#if defined(__x86_64__)
#include <emmintrin.h>
#endif

namespace vask {

inline constexpr std::size_t cache_line_bytes = 64;

//! Copies `bytes`, a multiple of 16, between places aligned to 16. Lines that are written whole are
//! not read first and drive nothing out of the caches, which halves the traffic of output that is
//! not read again soon. Other threads see it after stream_fence(), of the writing thread.
VASK_ALWAYS_INLINE void stream_copy(void *to, const void *from, std::size_t bytes) noexcept {
#if defined(__x86_64__)
    auto *out = static_cast<__m128i *>(to);
    const auto *in = static_cast<const __m128i *>(from);
    for (std::size_t i = 0; i < bytes / sizeof(__m128i); ++i)
        _mm_stream_si128(out + i, _mm_load_si128(in + i));
#else
    std::memcpy(to, from, bytes);
#endif
}

inline void stream_fence() noexcept {
#if defined(__x86_64__)
    _mm_sfence();
#endif
}

} // namespace vask
