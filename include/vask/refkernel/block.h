// The memory that a column's elements live in.
#ifndef VASK_REFKERNEL_BLOCK_H
#define VASK_REFKERNEL_BLOCK_H

#include "vask/refkernel/contract.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace refkernel::memory {

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
REFKERNEL_API std::shared_ptr<block> allocate_block(std::size_t bytes) noexcept;

//! A vector taken over as column memory.
template <class T>
struct vector_block final : block {
    std::vector<T> values;

    explicit vector_block(std::vector<T> &&taken) : values(std::move(taken)) {
        base = values.data();
        bytes = values.size() * sizeof(T);
    }
};

//! A block over memory of the caller's, which is never written to: a column that grows takes memory
//! of its own. release() is called at the block's end, and if it cannot be made.
REFKERNEL_API std::shared_ptr<block> borrow(const void *lent, std::size_t bytes,
                                            std::function<void()> release);

} // namespace refkernel::memory

#endif
