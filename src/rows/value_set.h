// The values of one side of a containment test, to be asked about row by row.
#pragma once

#include "rows/gdk_vector.h"
#include "rows/isa.h"
#include "rows/row_ranges.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vask {

//! A set of values of 32 or 64 bits: a bitmap over the span from the least to the largest where
//! that is small; else a hash table, of which a line of the cache is asked at one go. Any number of
//! threads may ask. Throws like gdk_vector when it is made, and work_cancelled.
template <class Value>
class value_set {
public:
    //! The values, at least one, which may occur several times. A bitmap may have up to `most_bits`
    //! bits. `run` runs up to `most_tasks` tasks at once.
    value_set(std::span<const Value> values, std::uint64_t most_bits, task_runner run,
              std::size_t most_tasks);

    //! contained[i] becomes 1 where values[i] is in the set, else 0, for n values.
    void mark(const Value *values, std::size_t n, bit *contained) const;

private:
    //! Lines of the table for the values whose hashes begin with the same bits: one task fills it.
    struct area {
        std::size_t begin;
        std::size_t lines;
    };

    void fill_bitmap(std::span<const Value> values, task_runner run, std::size_t tasks);
    bool fill_small_table(std::span<const Value> values);
    void fill_table(std::span<const Value> values, task_runner run, std::size_t tasks);

    //! An area for up to so many values, half of which it is to hold at most.
    static std::size_t lines_for(std::size_t values) noexcept;
    void make_lines(std::size_t n);
    VASK_ALWAYS_INLINE std::size_t area_of(std::uint64_t hash) const noexcept;
    VASK_ALWAYS_INLINE std::size_t line_of(Value value) const noexcept;
    std::size_t line_behind(std::size_t line, Value value) const noexcept;
    VASK_ALWAYS_INLINE bool add(Value value) noexcept;

    Value low_ = 0;
    Value span_ = 0;                   // of the bitmap, less one
    std::vector<std::uint32_t> words_; // of the bitmap, if there is no table

    // Values of the table, a line's from its front on; 0 is a free place.
    gdk_block<Value> memory_;
    Value *lines_ = nullptr;
    unsigned area_bits_ = 0; // of a hash, which tell the area
    std::vector<area> areas_;
    bool has_zero_ = false;
};

extern template class value_set<std::uint32_t>;
extern template class value_set<std::uint64_t>;

} // namespace vask
