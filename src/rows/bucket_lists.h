// Dealing elements out to buckets in one pass.
#pragma once

#include "kernel/column.h"
#include "rows/gdk_vector.h"
#include "rows/huge_pages.h"
#include "rows/isa.h"
#include "rows/streaming.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace vask {

//! The elements of one task by bucket. The task adds them; when it has ended, all may read them.
//!
//! A bucket's elements lie in chunks of a common pool. So the rows need not be counted by bucket
//! first, as for scatter_offsets, where that would be a costly second look at them. On their way to
//! the pool they wait in a line of the bucket's own until it is full: the lines of all buckets stay
//! in the cache, and the pool is written past it (1e7 rows of 8-byte values: 79 ms in all; 88 ms
//! with elements written to the pool one by one and fetched ahead, 112 ms without).
template <class T>
class bucket_lists {
public:
    //! No buckets.
    bucket_lists() = default;

    //! Room for `most` elements in all. Throws like gdk_vector.
    bucket_lists(std::size_t buckets, std::size_t most) : ends_(buckets) {
        const std::size_t chunks = most / chunk_length + buckets;
        const std::size_t room = (buckets * line_length + chunks * chunk_length) * sizeof(T);
        memory_.reset(gdk_allocate<char>(room + cache_line_bytes));
        advise_huge_pages(memory_.get(), room);
        void *aligned = memory_.get();
        std::size_t space = room + cache_line_bytes;
        lines_ = static_cast<T *>(std::align(cache_line_bytes, room, aligned, space));
        pool_ = lines_ + buckets * line_length;
        before_.reset(gdk_allocate<std::uint32_t>(chunks));
    }

    VASK_ALWAYS_INLINE void add(std::size_t bucket, const T &element) noexcept {
        std::uint32_t &end = ends_[bucket];
        T *line = lines_ + bucket * line_length;
        line[end % line_length] = element;
        if (++end % line_length == 0) [[unlikely]]
            end = write_line(line, end - line_length);
    }

    //! After the last element.
    void complete() const noexcept { stream_fence(); }

    //! Calls `visit(element)` for the elements of a bucket, in no particular order.
    template <class Visit>
    VASK_ALWAYS_INLINE void for_each(std::size_t bucket, Visit visit) const {
        const std::uint32_t waiting = ends_[bucket] % line_length;
        for_each_of(lines_ + bucket * line_length, waiting, visit);
        for (std::uint32_t end = ends_[bucket] - waiting; end != 0;) {
            const std::uint32_t chunk = (end - 1) / chunk_length;
            if (before_[chunk] != 0)
                prefetch_bytes(pool_ + (before_[chunk] - chunk_length), 0,
                               chunk_length * sizeof(T));
            for_each_of(pool_ + std::size_t{chunk} * chunk_length, end - chunk * chunk_length,
                        visit);
            end = before_[chunk];
        }
    }

private:
    // Fills whole cache lines, be an element 8 or 12 bytes.
    static constexpr std::uint32_t line_length = 16;
    static_assert(line_length * sizeof(T) % cache_line_bytes == 0);
    static constexpr std::uint32_t chunk_length = 4 * line_length;

    //! Moves a full line to the pool, behind the elements that end at `to`; gives its own end
    //! there.
    std::uint32_t write_line(const T *line, std::uint32_t to) noexcept {
        if (to % chunk_length == 0) {
            before_[used_chunks_] = to;
            to = used_chunks_++ * chunk_length;
        }
        stream_copy(pool_ + to, line, line_length * sizeof(T));
        return to + line_length;
    }

    template <class Visit>
    VASK_ALWAYS_INLINE static void for_each_of(const T *elements, std::uint32_t n, Visit visit) {
        for (std::uint32_t i = 0; i < n; ++i)
            visit(elements[i]);
    }

    gdk_block<char> memory_; // of the lines and, behind them, the pool
    T *lines_ = nullptr;
    T *pool_ = nullptr;
    // For each chunk, where the bucket's elements before it end in the pool: 0 if there are none.
    gdk_block<std::uint32_t> before_;
    std::uint32_t used_chunks_ = 0;
    // For each bucket, where its elements end, those that wait counted as if they were in the pool.
    gdk_vector<std::uint32_t> ends_;
};

} // namespace vask
