// A Bloom filter with one hash: rejects most values that a map does not hold.
#pragma once

#include "sets/oid_position_map.h"

#include <cstdlib>

namespace vask {

//! A bitmap with one bit per entered value, at a hash of it: a clear bit says "absent", a set one
//! nothing. Near the map's load limit the walk of an absent value is four slots long and ends in a
//! branch that nobody predicts, 17 ns; the bit takes 1 ns. Any number of threads may ask.
class absence_filter {
public:
    //! An empty filter: every value passes.
    absence_filter() = default;
    absence_filter(const absence_filter &) = delete;
    absence_filter &operator=(const absence_filter &) = delete;
    ~absence_filter() { std::free(words_); }

    //! Whether looking up the values of `right` through a filter pays for entering `left` into it,
    //! judged by how far the walks of some of them go for nothing.
    static bool pays(const oid_position_map &map, std::uint64_t left_count,
                     const std::uint32_t *right, std::uint64_t right_count) noexcept;

    //! Enters the values of `left`, which the map holds. Stays without effect if memory is short.
    void enter(const oid_position_map &map, const std::uint32_t *left, std::uint64_t rows);

    //! Whether it rejects any value.
    bool active() const noexcept { return words_ != nullptr; }

    //! Copies those of n values that may be present, in order, and gives their number.
    std::size_t select(const std::uint32_t *values, std::size_t n,
                       std::uint32_t *maybe_present) const noexcept;

private:
    // Sixteen bits per slot of the map let one absent value in twenty through.
    static constexpr unsigned bits_per_slot_log2 = 4;
    static constexpr unsigned word_bits = 32;

    std::uint32_t bit_of(std::uint32_t value) const noexcept {
        // Multiplication by 2^32 / golden ratio; the high bits depend on all of the value.
        return (value * 2654435769U) >> shift_;
    }

    std::uint32_t *words_ = nullptr;
    unsigned shift_ = 0;
};

} // namespace vask
