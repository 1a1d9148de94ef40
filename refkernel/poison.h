// Bytes that nobody may touch, where the address sanitizer is there to see it.
#ifndef REFKERNEL_POISON_H
#define REFKERNEL_POISON_H

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define REFKERNEL_POISONS
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define REFKERNEL_POISONS
#endif
#endif

#ifdef REFKERNEL_POISONS
#include <sanitizer/asan_interface.h>
#endif

namespace refkernel::memory {

//! Of a block's bytes the first `used` may be touched, those up to `capacity` not.
inline void poison_behind([[maybe_unused]] void *base, [[maybe_unused]] std::size_t used,
                          [[maybe_unused]] std::size_t capacity) noexcept {
#ifdef REFKERNEL_POISONS
    ASAN_UNPOISON_MEMORY_REGION(base, capacity);
    ASAN_POISON_MEMORY_REGION(static_cast<char *>(base) + used, capacity - used);
#endif
}

} // namespace refkernel::memory

#endif
