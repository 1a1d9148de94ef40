// From a row index to the rows of a column that hold it.
#pragma once

#include "rows/huge_pages.h"
#include "rows/isa.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

namespace vask {

//! One row; the rows of one value form a list, the last row first.
struct position_node {
    position_node *next;
    std::uint64_t position;
};

//! What the map holds of a value: its rows, and whether a probe has found it already.
struct position_bucket {
    position_node *rows; // null: no value has the bucket
    std::uint32_t value;
    std::uint8_t seen;
};

//! A hash table of as many buckets from the start as its values can need. Hashed by the value
//! itself: row indexes are dense more often than not, and then no two meet. Memory comes from the
//! process heap. One writer at a time; any number of readers when there is no writer.
class oid_position_map {
public:
    //! Room for so many values; std::bad_alloc when there is no memory.
    explicit oid_position_map(std::uint64_t values)
        : mask_(std::bit_ceil(std::clamp(values + values / 3, fewest_buckets, most_buckets)) - 1),
          buckets_(static_cast<position_bucket *>(
              std::calloc(bucket_count(), sizeof(position_bucket)))) {
        if (buckets_ == nullptr)
            throw std::bad_alloc();
        advise_huge_pages(buckets_.get(), bucket_count() * sizeof(position_bucket));
    }

    std::uint64_t bucket_count() const noexcept { return mask_ + 1; }

    //! The bucket of a value; null when it is not there.
    VASK_ALWAYS_INLINE position_bucket *find(std::uint32_t value) const noexcept {
        position_bucket &bucket = place_of(value);
        return bucket.rows != nullptr ? &bucket : nullptr;
    }

    //! The bucket of a value that is to get rows.
    VASK_ALWAYS_INLINE position_bucket &insert(std::uint32_t value) noexcept {
        position_bucket &bucket = place_of(value);
        bucket.value = value;
        return bucket;
    }

    //! Asks for the memory in which a look for the value will begin.
    VASK_ALWAYS_INLINE void prefetch(std::uint32_t value) const noexcept {
        __builtin_prefetch(buckets_.get() + (value & mask_));
    }

    //! Values that a look for this one comes by that are not it: what finding out that it is not
    //! there costs.
    std::uint32_t detour(std::uint32_t value) const noexcept {
        std::uint32_t met = 0;
        static_cast<void>(place_of(value, [&met] { ++met; }));
        return met;
    }

private:
    static constexpr std::uint64_t fewest_buckets = 4;
    // One for each value that there can be.
    static constexpr std::uint64_t most_buckets = std::uint64_t{1} << 32;

    //! The bucket that holds the value, or the free one where it belongs. The step is odd, so the
    //! walk meets every bucket. Calls `pass()` for each bucket of another value.
    template <class Pass>
    VASK_ALWAYS_INLINE position_bucket &place_of(std::uint32_t value, Pass pass) const noexcept {
        const auto ends = [value](const position_bucket &bucket) {
            return bucket.rows == nullptr || bucket.value == value;
        };
        std::uint64_t at = value & mask_;
        if (ends(buckets_[at])) [[likely]]
            return buckets_[at];
        const std::uint64_t step = (value >> 3 ^ value << 3) | 1;
        do {
            pass();
            at = (at + step) & mask_;
        } while (!ends(buckets_[at]));
        return buckets_[at];
    }
    VASK_ALWAYS_INLINE position_bucket &place_of(std::uint32_t value) const noexcept {
        return place_of(value, [] {});
    }

    struct give_back {
        void operator()(position_bucket *buckets) const noexcept { std::free(buckets); }
    };

    std::uint64_t mask_;
    std::unique_ptr<position_bucket[], give_back> buckets_;
};

} // namespace vask
