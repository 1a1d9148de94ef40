// Memory of the reference kernel: how the blocks that columns live in are made, and the
// count of the bytes that callers of the GDK operations hold.
#ifndef REFKERNEL_MEMORY_H
#define REFKERNEL_MEMORY_H

#include "vask/refkernel/block.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace refkernel::memory {

// Blocks of this many bytes and more ask for huge pages: a column of 1e8 rows
// otherwise costs 2e5 page faults when it is first written.
inline constexpr std::size_t huge_page_threshold = std::size_t{4} << 20;

//! Tells the system that a large block wants huge pages; does nothing to a small one.
void advise_huge_pages(void *base, std::size_t bytes) noexcept;

//! The same filled with zeros, by the system where it can: a page of a large
//! block that is never touched costs nothing.
std::shared_ptr<block> allocate_zeroed_block(std::size_t bytes) noexcept;

// What the GDK operations do, without failing on request and without being
// recorded. Null when memory runs out; a size of 0 gives a block too.
void *allocate(std::size_t bytes) noexcept;
void *allocate_zeroed(std::size_t bytes) noexcept;
void *reallocate(void *held, std::size_t bytes) noexcept;
void release(void *held) noexcept;

//! From now on, what runs out of memory in one of the GDK operations of that kind throws
//! std::bad_alloc instead of giving null, which some operators take for a fault of the kernel.
void throw_when_out_of_memory() noexcept;

// The account of bytes handed out by the four operations above, kept only
// while it is switched on. Blocks from before the switch are not in it, and
// giving them back changes nothing.
void start_account() noexcept;
void stop_account() noexcept;
std::uint64_t bytes_outstanding() noexcept;
std::uint64_t most_bytes_outstanding() noexcept;
std::uint64_t blocks_outstanding() noexcept;

} // namespace refkernel::memory

#endif
