// The values of one side of a containment test, to be asked about row by row.
#pragma once

#include "kernel/frame.h"
#include "rows/key_table.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace vask {

//! A set of 32-bit values: a bitmap over the span from the least to the largest where that is
//! small, else a hash table. Any number of threads may ask. Throws std::bad_alloc when it is made.
class value_set {
public:
    //! The values, at least one. A bitmap may have up to `most_bits` bits.
    value_set(std::span<const std::uint32_t> values, std::uint64_t most_bits);

    //! contained[i] becomes 1 where values[i] is in the set, else 0, for the rows of the range.
    void mark(const std::uint32_t *values, vask_row_range rows, bit *contained) const;

private:
    std::uint32_t low_ = 0;
    std::uint32_t span_ = 0;           // of the bitmap, less one
    std::vector<std::uint32_t> words_; // of the bitmap, if there is no table
    std::optional<key_table<bit_keys<std::uint32_t>>> table_;
};

} // namespace vask
