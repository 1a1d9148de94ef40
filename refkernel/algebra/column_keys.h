// The values of a column as numbers that a grouping can work on.
#ifndef REFKERNEL_ALGEBRA_COLUMN_KEYS_H
#define REFKERNEL_ALGEBRA_COLUMN_KEYS_H

#include "refkernel/algebra/row_groups.h"
#include "vask/refkernel/contract.h"

#include <cstdint>
#include <functional>

namespace refkernel::algebra {

//! Elements of 1, 2, 4 or 8 bytes, or text offsets, from the first row of a BAT on.
struct number_rows {
    const void *base;
    unsigned width;
};

//! Places the values of a column in a table: a value's index is its distance from `low`, and
//! whatever lies outside, which only the nil can, has the index `last`.
struct index_range {
    std::uint64_t low;
    std::uint32_t last;

    //! The number of indices.
    std::uint64_t bound() const noexcept { return std::uint64_t{last} + 1; }
};

//! A range of indices that is large enough for no column.
inline constexpr std::uint64_t widest_bound = std::uint64_t{1} << 32;

//! How a column's values are keyed. Values are compared by their bits: nil is a value like any
//! other, -0.0 and 0.0 are two, NaNs are one if their bits are the same. Texts are keyed by where
//! they lie; where their heap can hold one in several places, `resolve` and `same_as_previous` see
//! to it.
struct column_keys {
    key_loader keys;
    bool has_range = false; // no: the values lie too far apart, or are not integers
    index_range range{};
    index_loader indices; // by `range`
    group_resolver resolve;
    std::function<bool(BUN row)> same_as_previous;
};

//! Throws `failure` for a tail that is neither void nor of elements of 1, 2, 4 or 8 bytes or texts.
void require_groupable_tail(const BAT &b);

//! The keys of a stored column, with a range if it has at most `max_bound` indices. The column
//! must stay as it is while the keys are in use.
column_keys keys_of(const BATcol &column, const BATinfo &info, std::uint64_t max_bound);

//! Loads rows as indices of a range.
index_loader load_indices(number_rows rows, index_range range);

} // namespace refkernel::algebra

#endif
