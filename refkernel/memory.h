// Memory of the reference kernel: the blocks that columns live in, and the
// count of the bytes that callers of the GDK operations hold.
#ifndef REFKERNEL_MEMORY_H
#define REFKERNEL_MEMORY_H

#include "refkernel/contract.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace refkernel::memory {

// Blocks of this many bytes and more ask for huge pages: a column of 1e8 rows
// otherwise costs 2e5 page faults when it is first written.
inline constexpr std::size_t huge_page_threshold = std::size_t{4} << 20;

//! Tells the system that a large block wants huge pages; does nothing to a small one.
void advise_huge_pages(void *base, std::size_t bytes) noexcept;

/*
 * Remembers that several columns have held a block or a heap. It stays where it is from then on,
 * also when one column is left: a count of holders does not order what the others read before what
 * this thread would do to it. The column takes memory of its own instead, once.
 *
 * Relaxed, because the host orders whoever makes a view of a column and whoever appends to it.
 */
class sharing_mark {
public:
    void mark_shared() noexcept { shared_.store(true, std::memory_order_relaxed); }
    [[nodiscard]] bool was_shared() const noexcept {
        return shared_.load(std::memory_order_relaxed);
    }

private:
    std::atomic<bool> shared_{false};
};

//! Element memory of a column, shared by the column and its views.
struct REFKERNEL_API block : sharing_mark {
    void *base = nullptr;
    std::size_t bytes = 0;

    block() = default;
    block(const block &) = delete;
    block &operator=(const block &) = delete;
    virtual ~block() = default;

    //! Grows the block, keeping its content; false when it cannot.
    virtual bool grow(std::size_t new_bytes) noexcept;
};

//! A block of its own, aligned to a cache line; null when memory runs out.
std::shared_ptr<block> allocate_block(std::size_t bytes) noexcept;
//! The same filled with zeros, by the system where it can: a page of a large
//! block that is never touched costs nothing.
std::shared_ptr<block> allocate_zeroed_block(std::size_t bytes) noexcept;

//! A vector taken over as column memory.
template <class T>
struct vector_block final : block {
    std::vector<T> values;

    explicit vector_block(std::vector<T> &&taken) : values(std::move(taken)) {
        base = values.data();
        bytes = values.size() * sizeof(T);
    }
};

// What the GDK operations do, without failing on request and without being
// recorded. Null when memory runs out; a size of 0 gives a block too.
void *allocate(std::size_t bytes) noexcept;
void *allocate_zeroed(std::size_t bytes) noexcept;
void *reallocate(void *held, std::size_t bytes) noexcept;
void release(void *held) noexcept;

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
