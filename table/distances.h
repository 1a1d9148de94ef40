// Sums of powers of distances from a centre, of which moments, covariance, correlation and lines
// are made. Sums of squares of values that lie far from 0 and close to each other lose all their
// digits; those of distances do not, and the statistics are the same.
#pragma once

#include "table/groups.h"
#include "table/kernel_column.h"

#include "aggregates/group_scan.h"
#include "statistics/paired_rows.h"

#include "vask/embed.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace vask::table {

//! The values of a column as distances from the first value of their group, the centre. The groups
//! outlive it.
class centred_values {
public:
    centred_values(refkernel::bat values, const groups &by);

    //! Writes the distances of rows, as dbl; the nil for a missing value.
    void write(vask_row_range rows, dbl *to) const {
        if (write_(rows, to))
            nil_seen_.store(true, std::memory_order_relaxed);
    }

    //! Whether a nil was among the rows that were written.
    bool nil_seen() const { return nil_seen_.load(std::memory_order_relaxed); }

    //! By group number; NaN for a group without values.
    const std::vector<double> &centres() const { return centres_; }

    const BAT &values() const { return *values_.record(); }

    //! Whether the distances are integers.
    bool are_integers() const { return are_integers_; }

    //! All distances by row where they were written beforehand, else null.
    const dbl *written() const { return written_.has_value() ? written_->values.data() : nullptr; }

private:
    refkernel::bat values_;
    bool are_integers_ = false;
    std::function<bool(vask_row_range, dbl *)> write_;
    mutable std::atomic<bool> nil_seen_{false};
    std::vector<double> centres_;
    std::optional<fresh_column<dbl>> written_;
};

//! The distances of the rows of one or two columns: a row source of aggregates. Of two columns a
//! row has a value where both have.
template <std::size_t columns>
class distance_rows {
public:
    explicit distance_rows(const std::array<const centred_values *, columns> &of) noexcept
        : of_(of) {}
    //! A copy begins without a loaded block.
    distance_rows(const distance_rows &other) noexcept : of_(other.of_) {}
    distance_rows &operator=(const distance_rows &) = delete;
    ~distance_rows() = default;

    //! Throws std::bad_alloc.
    void load(vask_row_range block) {
        for (std::size_t c = 0; c < columns; ++c) {
            if (const dbl *all = of_[c]->written(); all != nullptr) {
                rows_[c] = all + block.begin;
                continue;
            }
            if (scratch_ == nullptr)
                scratch_ =
                    std::make_unique_for_overwrite<std::array<dbl[scan_block_rows], columns>>();
            of_[c]->write(block, (*scratch_)[c]);
            rows_[c] = (*scratch_)[c];
        }
        block_ = block;
    }

    VASK_ALWAYS_INLINE bool is_nil(std::size_t p) const noexcept {
        bool any = false;
        for (std::size_t c = 0; c < columns; ++c)
            any |= rows_[c][p - block_.begin] == nil;
        return any;
    }
    VASK_ALWAYS_INLINE auto operator[](std::size_t p) const noexcept {
        if constexpr (columns == 1)
            return rows_[0][p - block_.begin];
        else
            return value_pair{rows_[0][p - block_.begin], rows_[1][p - block_.begin]};
    }

    //! Where the distances of a row of the loaded block lie, with those behind it.
    std::array<const dbl *, columns> values(BUN p) const noexcept {
        std::array<const dbl *, columns> result;
        for (std::size_t c = 0; c < columns; ++c)
            result[c] = rows_[c] + (p - block_.begin);
        return result;
    }

    bool are_integers() const noexcept {
        return std::all_of(of_.begin(), of_.end(),
                           [](const auto *of) { return of->are_integers(); });
    }

    //! The number of nils in the loaded block.
    BUN nils() const noexcept {
        BUN count = 0;
        for (BUN p = block_.begin; p < block_.end; ++p)
            count += is_nil(p) ? 1 : 0;
        return count;
    }

    //! What is read next is written first.
    VASK_ALWAYS_INLINE void prefetch(BUN /*p*/, BUN /*n*/) const noexcept {}

    static constexpr dbl nil = refkernel::nil_of<dbl>();

private:
    std::array<const centred_values *, columns> of_;
    std::array<const dbl *, columns> rows_{};
    vask_row_range block_{};
    std::unique_ptr<std::array<dbl[scan_block_rows], columns>> scratch_;
};

} // namespace vask::table
