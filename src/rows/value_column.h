// A column's values where texts run beside numbers.
#pragma once

#include "kernel/column.h"
#include "rows/key_hash.h"

namespace vask {

//! Numbers: what is stored of a value is the value.
template <class T>
class value_column {
public:
    using stored_type = T;

    explicit value_column(const BATcol &column) noexcept : rows_(rows_of<const T>(column)) {}

    VASK_ALWAYS_INLINE stored_type stored(BUN position) const noexcept { return rows_[position]; }
    VASK_ALWAYS_INLINE T value(stored_type stored) const noexcept { return stored; }

private:
    const T *rows_;
};

//! Texts: what is stored is the place in the heap.
template <>
class value_column<str> {
public:
    using stored_type = std::uint32_t;

    explicit value_column(const BATcol &column) noexcept : texts_(column) {}

    VASK_ALWAYS_INLINE stored_type stored(BUN position) const noexcept {
        return texts_.offset(position);
    }
    VASK_ALWAYS_INLINE str value(stored_type stored) const noexcept {
        return texts_.at_offset(stored);
    }

private:
    text_reader texts_;
};

} // namespace vask
