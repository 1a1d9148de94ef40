// Large working arrays that are read at random.
#pragma once

#include "rows/gdk_vector.h"

#include <cstddef>
#include <cstdint>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace vask {

//! Asks the system to back a block of memory with huge pages, if it is large enough to matter. Call
//! it before the block is first written. At 1e7 entries the page faults and the misses of the
//! address cache are half the time of filling a hash table. A hint: nothing is tested.
inline void advise_huge_pages([[maybe_unused]] void *block, [[maybe_unused]] std::size_t bytes) {
#if defined(MADV_HUGEPAGE)
    constexpr std::size_t worth_advising = std::size_t{4} << 20;
    constexpr std::uintptr_t page = 4096;
    if (block == nullptr || bytes < worth_advising)
        return;
    const auto begin = (reinterpret_cast<std::uintptr_t>(block) + page - 1) & ~(page - 1);
    const auto end = (reinterpret_cast<std::uintptr_t>(block) + bytes) & ~(page - 1);
    madvise(reinterpret_cast<void *>(begin), end - begin, MADV_HUGEPAGE);
#endif
}

//! Room for n elements that are read or written at random. Throws like gdk_vector.
template <class T>
gdk_block<T> large_block(std::size_t n) {
    gdk_block<T> block(gdk_allocate<T>(n));
    advise_huge_pages(block.get(), n * sizeof(T));
    return block;
}

//! The same, zeroed.
template <class T>
gdk_block<T> large_zeroed_block(std::size_t n) {
    gdk_block<T> block(gdk_allocate_zeroed<T>(n));
    advise_huge_pages(block.get(), n * sizeof(T));
    return block;
}

} // namespace vask
