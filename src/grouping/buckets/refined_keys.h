// What refinement knows the values of a column by.
//
// Keys is a plain struct with
//   key_type            of 4 or 8 bytes
//   key(row)            the key of a row of the column
//   same(a, b)          whether two keys are those of one value
//   hash(key)           64 bits, the same for keys of one value
#pragma once

#include "kernel/column.h"
#include "rows/key_hash.h"
#include "rows/table_keys.h"
#include "rows/text_codes.h"

#include <algorithm>
#include <cstdint>
#include <type_traits>

namespace vask {

//! Numbers by their bits.
template <number T>
struct refined_numbers {
    using key_type = std::conditional_t<sizeof(T) == 8, std::uint64_t, std::uint32_t>;

    const T *rows;

    explicit refined_numbers(const BATcol &column) noexcept : rows(rows_of<const T>(column)) {}

    VASK_ALWAYS_INLINE key_type key(BUN row) const noexcept { return key_bits(rows[row]); }
    VASK_ALWAYS_INLINE static bool same(key_type a, key_type b) noexcept { return a == b; }
    VASK_ALWAYS_INLINE static std::uint64_t hash(key_type key) noexcept { return key; }
};

//! Texts by their codes.
struct refined_codes {
    using key_type = std::uint32_t;

    const text_codes *codes;

    VASK_ALWAYS_INLINE key_type key(BUN row) const noexcept { return (*codes)[row]; }
    VASK_ALWAYS_INLINE static bool same(key_type a, key_type b) noexcept { return a == b; }
    VASK_ALWAYS_INLINE static std::uint64_t hash(key_type key) noexcept { return key; }
};

//! Texts by their offsets, with their hashes above those: texts are hashed in row order, in which
//! most of them were stored.
struct refined_texts {
    using key_type = std::uint64_t;

    text_reader texts;

    explicit refined_texts(const BATcol &column) noexcept : texts(column) {}

    VASK_ALWAYS_INLINE key_type key(BUN row) const noexcept {
        const std::uint32_t offset = texts.offset(row);
        return std::uint64_t{vask_str_hash(texts.at_offset(offset))} << 32 | offset;
    }
    VASK_ALWAYS_INLINE bool same(key_type a, key_type b) const noexcept {
        return a == b || (hash(a) == hash(b) && text_keys::equal(text(a), text(b)));
    }
    VASK_ALWAYS_INLINE static std::uint64_t hash(key_type key) noexcept { return key >> 32; }

private:
    str text(key_type key) const noexcept {
        return texts.at_offset(static_cast<std::uint32_t>(key));
    }
};

} // namespace vask
