// A column's rows as unsigned keys: rows of one key hold equal values.
#pragma once

#include "kernel/column.h"
#include "rows/key_hash.h"

#include <cstddef>

namespace vask {

//! Numbers, keyed by their bits.
template <number T>
struct number_keys {
    using value_type = T;
    using key_type = decltype(key_bits(T{}));
    //! As many keys as values.
    static constexpr bool one_key_per_value = true;

    const T *rows;

    explicit number_keys(const BATcol &column) noexcept : rows(rows_of<const T>(column)) {}

    //! Key of the i-th row from the position `row` on. A row loop counts i in 64 bits: a position
    //! of 32 could wrap, and for that the loop would be compiled without vector instructions.
    VASK_ALWAYS_INLINE key_type key(BUN row, std::size_t i) const noexcept {
        return key_bits((rows + row)[i]);
    }
    T value(BUN row) const noexcept { return rows[row]; }
};

//! Texts, keyed by their stored offsets. Equal texts that lie at several places have several keys.
template <class Offset>
struct offset_keys {
    using value_type = str;
    using key_type = Offset;
    static constexpr bool one_key_per_value = false;

    const Offset *rows;
    text_reader texts;

    explicit offset_keys(const BATcol &column) noexcept
        : rows(rows_of<const Offset>(column)), texts(column) {}

    VASK_ALWAYS_INLINE key_type key(BUN row, std::size_t i) const noexcept {
        return (rows + row)[i];
    }
    str value(BUN row) const noexcept { return texts[row]; }
};

} // namespace vask
