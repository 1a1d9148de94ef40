// Pairs of a group and a value, dealt out to parts.
#pragma once

#include "rows/gdk_vector.h"
#include "rows/huge_pages.h"
#include "rows/isa.h"
#include "rows/streaming.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace vask {

//! The pairs of one task, which adds them; when it has ended, all may read them.
//!
//! A part's pairs lie in chunks of a common pool, so that the rows need not be counted by part
//! before they are dealt out, which would be a second pass over them. On their way to the pool they
//! wait in a line of the part's own until it is full: the lines of all parts stay in the cache, and
//! the pool is written past it (1e7 rows of 8-byte values: 79 ms in all; 88 ms with pairs written
//! to the pool one by one and fetched ahead, 112 ms without).
template <class Pair>
class pair_parts {
public:
    //! No parts.
    pair_parts() = default;

    //! Room for `most_pairs` pairs in all. Throws like gdk_vector.
    pair_parts(std::size_t parts, std::size_t most_pairs) : ends_(parts) {
        const std::size_t chunks = most_pairs / chunk_pairs + parts;
        const std::size_t room = (parts * line_pairs + chunks * chunk_pairs) * sizeof(Pair);
        memory_.reset(gdk_allocate<char>(room + cache_line_bytes));
        advise_huge_pages(memory_.get(), room);
        void *aligned = memory_.get();
        std::size_t space = room + cache_line_bytes;
        lines_ = static_cast<Pair *>(std::align(cache_line_bytes, room, aligned, space));
        pool_ = lines_ + parts * line_pairs;
        before_.reset(gdk_allocate<std::uint32_t>(chunks));
    }

    VASK_ALWAYS_INLINE void add(std::size_t part, const Pair &pair) noexcept {
        std::uint32_t &end = ends_[part];
        Pair *line = lines_ + part * line_pairs;
        line[end % line_pairs] = pair;
        if (++end % line_pairs == 0) [[unlikely]]
            end = write_line(line, end - line_pairs);
    }

    //! After the last pair.
    void complete() const noexcept { stream_fence(); }

    //! Calls `visit(pair)` for the pairs of a part, in no particular order.
    template <class Visit>
    VASK_ALWAYS_INLINE void for_each(std::size_t part, Visit visit) const {
        const std::uint32_t waiting = ends_[part] % line_pairs;
        for_each_of(lines_ + part * line_pairs, waiting, visit);
        for (std::uint32_t end = ends_[part] - waiting; end != 0;) {
            const std::uint32_t chunk = (end - 1) / chunk_pairs;
            if (before_[chunk] != 0)
                prefetch(pool_ + (before_[chunk] - chunk_pairs));
            for_each_of(pool_ + std::size_t{chunk} * chunk_pairs, end - chunk * chunk_pairs, visit);
            end = before_[chunk];
        }
    }

private:
    // Fills whole cache lines, be a pair 8 or 12 bytes.
    static constexpr std::uint32_t line_pairs = 16;
    static_assert(line_pairs * sizeof(Pair) % cache_line_bytes == 0);
    static constexpr std::uint32_t chunk_pairs = 4 * line_pairs;

    //! Moves a full line to the pool, behind the pairs that end at `to`; gives its own end there.
    std::uint32_t write_line(const Pair *line, std::uint32_t to) noexcept {
        if (to % chunk_pairs == 0) {
            before_[used_chunks_] = to;
            to = used_chunks_++ * chunk_pairs;
        }
        stream_copy(pool_ + to, line, line_pairs * sizeof(Pair));
        return to + line_pairs;
    }

    template <class Visit>
    VASK_ALWAYS_INLINE static void for_each_of(const Pair *pairs, std::uint32_t n, Visit visit) {
        for (std::uint32_t i = 0; i < n; ++i)
            visit(pairs[i]);
    }

    VASK_ALWAYS_INLINE static void prefetch(const Pair *chunk) noexcept {
        for (std::size_t at = 0; at < chunk_pairs * sizeof(Pair); at += cache_line_bytes)
            __builtin_prefetch(reinterpret_cast<const char *>(chunk) + at);
    }

    gdk_block<char> memory_; // of the lines and, behind them, the pool
    Pair *lines_ = nullptr;
    Pair *pool_ = nullptr;
    // For each chunk, where the part's pairs before it end in the pool: 0 if there are none.
    gdk_block<std::uint32_t> before_;
    std::uint32_t used_chunks_ = 0;
    // For each part, where its pairs end, those that wait counted as if they were in the pool.
    gdk_vector<std::uint32_t> ends_;
};

} // namespace vask
