// Rows of one Arrow array: where their values lie.
#pragma once

#include "table/value_type.h"

#include <cstdint>
#include <memory>

namespace vask::table {

//! What an array tells of its nulls, to be compared with its bits.
struct told_nulls {
    std::int64_t count = -1; //!< -1: not told
    const std::uint8_t *bits = nullptr;
    std::int64_t first_bit = 0;
    std::int64_t rows = 0; //!< of the whole array
};

//! Rows of one array, read from position `offset` on.
struct piece {
    std::int64_t rows = 0;
    std::int64_t offset = 0;
    const std::uint8_t *validity = nullptr; //!< 1 bits are values, from bit `offset` on; null: all
    const void *values = nullptr;           //!< values, bits, offsets or views
    char text_format = 0;                   //!< of texts: the Arrow format's last letter, or v
    const char *bytes = nullptr;            //!< of texts by offsets
    const void *const *view_buffers = nullptr;
    const std::int64_t *view_sizes = nullptr; //!< bytes of each of them
    std::int64_t n_view_buffers = 0;
    told_nulls nulls;
    std::shared_ptr<const void> owner; //!< keeps all of it

    //! An array of indices into others.
    kind index = kind::null;
    std::shared_ptr<const piece> dictionary;
};

inline bool is_value(const piece &p, std::int64_t row) {
    if (p.validity == nullptr)
        return true;
    const std::int64_t bit = p.offset + row;
    return ((p.validity[bit >> 3] >> (bit & 7)) & 1) != 0;
}

template <class T>
const T *values_of(const piece &p) {
    return static_cast<const T *>(p.values) + p.offset;
}

} // namespace vask::table
