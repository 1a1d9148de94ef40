// Dealing rows out to buckets: where each range's rows of each bucket go.
#pragma once

#include "rows/gdk_vector.h"
#include "vask/kernel/bat.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace vask {

//! Offsets by range and bucket. Usage: each range counts its rows by bucket, the counts are turned
//! into offsets, and each range writes its rows, in order, to where its offsets say. A bucket then
//! has its rows in the order of ranges and rows. Throws like gdk_vector when it is made.
class scatter_offsets {
public:
    scatter_offsets(std::size_t ranges, std::size_t buckets)
        : buckets_(buckets), next_(ranges * buckets), begins_(buckets + 1) {}

    std::size_t buckets() const noexcept { return buckets_; }

    //! A range's rows by bucket while they are counted; where its next row goes while they are
    //! written. One task at a time.
    BUN *of(std::size_t range) noexcept { return next_.data() + range * buckets_; }

    void turn_counts_into_offsets() noexcept {
        const std::size_t ranges = buckets_ == 0 ? 0 : next_.size() / buckets_;
        BUN at = 0;
        for (std::size_t bucket = 0; bucket < buckets_; ++bucket) {
            begins_[bucket] = at;
            for (std::size_t range = 0; range < ranges; ++range)
                at += std::exchange(of(range)[bucket], at);
        }
        begins_[buckets_] = at;
    }

    //! How many rows a range has in a bucket, before one of them is written.
    BUN unwritten_rows(std::size_t range, std::size_t bucket) noexcept {
        const bool last = (range + 1) * buckets_ == next_.size();
        return (last ? end_of(bucket) : of(range + 1)[bucket]) - of(range)[bucket];
    }

    //! The rows of a bucket, counted among those of all buckets.
    BUN begin_of(std::size_t bucket) const noexcept { return begins_[bucket]; }
    BUN end_of(std::size_t bucket) const noexcept { return begins_[bucket + 1]; }

    //! The first bucket that begins at or behind a share `i / n` of the rows: cuts the buckets into
    //! n runs of about equally many rows.
    std::size_t cut(std::size_t i, std::size_t n) const noexcept {
        const auto at = static_cast<BUN>(std::uint64_t{begins_[buckets_]} * i / n);
        return i == n ? buckets_
                      : static_cast<std::size_t>(
                            std::lower_bound(begins_.begin(), begins_.end() - 1, at) -
                            begins_.begin());
    }

    //! Once all are written: where the rows of a range begin in each bucket.
    gdk_vector<BUN> begins_of(std::size_t range) const {
        gdk_vector<BUN> begins(buckets_);
        const BUN *from = range == 0 ? begins_.begin() : next_.begin() + (range - 1) * buckets_;
        std::copy_n(from, buckets_, begins.begin());
        return begins;
    }

private:
    std::size_t buckets_;
    gdk_vector<BUN> next_;
    gdk_vector<BUN> begins_;
};

} // namespace vask
