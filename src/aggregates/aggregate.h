// What an aggregate is, for a whole column and per group alike: a type with
//   result                      its line of result_types.h
//   accumulator                 what values are gathered in: the result's type
//   partial                     plain struct, the result over some of the rows: an accumulator
//                               `value`, and `bool seen` if the aggregate must tell "no value"
//                               from a neutral one; all zero means no rows
//   add(partial, value)         folds one value in; always inlined, no calls
//   operand(value, is)          perhaps: what stands for a value where `is`, else for nothing; and
//   add_operand(partial, operand, is)   folds it in, without a branch
//   merge(total, partial)       folds the partial of later rows into the total; when the aggregate
//                               tells seen, only called with a partial that saw a value
//   scan(rows, range)           partial of a range of a row source; always inlined, no calls
//
// and a row source is what answers is_nil(p) and [p] for the positions of the rows.
#pragma once

#include "kernel/column.h"
#include "rows/isa.h"
#include "vask/kernel/bat.h"

#include <array>
#include <concepts>
#include <cstddef>

namespace vask {

//! The rows of a fixed-width column, which are nil by ordinary equality: a NaN is a value. A plain
//! value, to be copied into a row loop. Positions are as wide as addresses, since a sum of narrower
//! ones could wrap, which the compiler would have to keep up with.
template <class T>
struct column_rows {
    const T *rows;
    T nil;

    explicit column_rows(const BAT &b) noexcept
        : rows(rows_of<const T>(*b.tail)), nil(nil_of<T>(b.tail->type)) {}

    VASK_ALWAYS_INLINE bool is_nil(std::size_t p) const noexcept { return rows[p] == nil; }
    VASK_ALWAYS_INLINE T operator[](std::size_t p) const noexcept { return rows[p]; }

    //! Where the value at p lies, with those of the rows to come.
    std::array<const T *, 1> values(BUN p) const noexcept { return {rows + p}; }

    //! Whether doubles hold every value as the integer it is.
    static constexpr bool are_integers() noexcept { return std::integral<T> && sizeof(T) <= 4; }

    //! While n rows from p on are in use, asks for rows to come.
    VASK_ALWAYS_INLINE void prefetch(BUN p, BUN n) const noexcept { prefetch_ahead(rows, p, n); }
};

template <class Aggregate>
concept tells_seen = requires(typename Aggregate::partial p) {
    p.seen;
};

//! Merges unless the partial saw no value.
template <class Aggregate>
VASK_ALWAYS_INLINE void merge_partial(typename Aggregate::partial &total,
                                      const typename Aggregate::partial &part) noexcept {
    if constexpr (tells_seen<Aggregate>) {
        if (!part.seen)
            return;
    }
    Aggregate::merge(total, part);
}

//! Whether the result over the rows of `total` is nil.
template <class Aggregate>
VASK_ALWAYS_INLINE bool has_no_value(const typename Aggregate::partial &total) noexcept {
    if constexpr (tells_seen<Aggregate>)
        return !total.seen;
    else
        return false;
}

} // namespace vask
