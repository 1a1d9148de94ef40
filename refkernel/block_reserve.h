// Large blocks that were given back, kept for the next one that asks.
#ifndef REFKERNEL_BLOCK_RESERVE_H
#define REFKERNEL_BLOCK_RESERVE_H

#include <cstddef>

namespace refkernel::memory {

/*
 * The system zeroes every page that it hands out, at some 5 GB/s even with huge pages: for a
 * grouping of 1e7 rows, which makes a map of 40 MB and works on as much again, that is as much
 * time as the grouping itself. So columns and working memory of some size go through this reserve.
 *
 * It holds at most 512 MiB, or a sixteenth of the machine's memory where that is less; the oldest
 * block goes back to the system first, and all of them where the system has nothing left to give.
 * Safe from any thread.
 */

//! A block from malloc.
struct spare_block {
    void *base = nullptr;
    std::size_t bytes = 0;
};

//! A kept block of at least this many bytes that is not much larger; base is null if there is none.
//! Its content is arbitrary.
spare_block take_spare_block(std::size_t bytes) noexcept;

//! The same for a column that grows, and is likely to grow on: several times the size will do.
spare_block take_spare_block_to_grow_in(std::size_t bytes) noexcept;

//! Keeps a block, or frees it if it is too small or too large to be worth it.
void give_spare_block(spare_block given) noexcept;

//! Frees all blocks that are kept. Whether there were any.
bool free_spare_blocks() noexcept;

} // namespace refkernel::memory

#endif
