// Pairs of a group and a value.
#pragma once

#include "kernel/column.h"
#include "rows/key_hash.h"

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace vask {

//! Spreads the slot of a group and the bits of a value, or of its hash, over 64 bits.
VASK_ALWAYS_INLINE std::uint64_t pair_hash(BUN slot, std::uint64_t value) noexcept {
    constexpr std::uint64_t golden_ratio = 0x9e3779b97f4a7c15; // 2^64 divided by it, odd
    constexpr std::uint64_t slot_factor = 0xd6e8feb86659fd93;  // any odd number without a pattern
    std::uint64_t h = (value + slot * slot_factor) * golden_ratio;
    h = (h ^ h >> 32) * slot_factor;
    return h ^ h >> 32;
}

// A kind of pairs is a struct with
//   pair             what is stored for a row; plain, with hash()
//   keys             of a set of pairs, as open_addressing_table asks for them
//   key_of(pair)     its key
// A source of pairs is one, made from a column, with
//   pair_of(row, slot)

//! Values told apart by their bits, which are a std::uint32_t or std::uint64_t.
template <class Bits>
struct number_pairs {
    struct pair {
        // By halves, so that pairs of 64-bit values take 12 bytes. In front of the slot: behind it
        // they are written in other pieces than a pair is copied in, and each copy waits for that.
        std::array<std::uint32_t, sizeof(Bits) / sizeof(std::uint32_t)> halves;
        BUN slot;

        VASK_ALWAYS_INLINE Bits bits() const noexcept { return std::bit_cast<Bits>(halves); }
        VASK_ALWAYS_INLINE std::uint64_t hash() const noexcept { return pair_hash(slot, bits()); }
    };

    struct keys {
        struct key_type {
            Bits bits;
            BUN slot;
        };

        VASK_ALWAYS_INLINE static std::uint32_t hash(const key_type &k) noexcept {
            return static_cast<std::uint32_t>(pair_hash(k.slot, k.bits));
        }
        VASK_ALWAYS_INLINE static bool equal(const key_type &a, const key_type &b) noexcept {
            return a.bits == b.bits && a.slot == b.slot;
        }
    };

    VASK_ALWAYS_INLINE static pair pair_of(Bits bits, BUN slot) noexcept {
        return {std::bit_cast<decltype(pair::halves)>(bits), slot};
    }
    VASK_ALWAYS_INLINE typename keys::key_type key_of(const pair &p) const noexcept {
        return {p.bits(), p.slot};
    }
};

//! Texts told apart by what they read.
struct text_pairs {
    //! In place of the bits those of the text's hash and, above them, its offset in the heap.
    struct pair : number_pairs<std::uint64_t>::pair {
        VASK_ALWAYS_INLINE std::uint32_t text_hash() const noexcept {
            return static_cast<std::uint32_t>(bits());
        }
        VASK_ALWAYS_INLINE std::uint32_t offset() const noexcept {
            return static_cast<std::uint32_t>(bits() >> 32);
        }
        VASK_ALWAYS_INLINE std::uint64_t hash() const noexcept {
            return pair_hash(slot, text_hash());
        }
    };

    struct keys {
        struct key_type {
            str text;
            std::uint32_t text_hash;
            BUN slot;
        };

        VASK_ALWAYS_INLINE static std::uint32_t hash(const key_type &k) noexcept {
            return static_cast<std::uint32_t>(pair_hash(k.slot, k.text_hash));
        }
        VASK_ALWAYS_INLINE static bool equal(const key_type &a, const key_type &b) noexcept {
            return a.slot == b.slot && a.text_hash == b.text_hash &&
                   (a.text == b.text || std::strcmp(a.text, b.text) == 0);
        }
    };

    text_reader texts;

    VASK_ALWAYS_INLINE keys::key_type key_of(const pair &p) const noexcept {
        return {texts.at_offset(p.offset()), p.text_hash(), p.slot};
    }
};

//! The bits of a T, in 32 of them at least.
template <class T>
using pair_bits = std::conditional_t<sizeof(T) == 8, std::uint64_t, std::uint32_t>;

//! A column of T as a source of pairs.
template <class T>
struct pair_source : number_pairs<pair_bits<T>> {
    using kind = number_pairs<pair_bits<T>>;
    using pair = typename kind::pair;

    const T *rows;

    explicit pair_source(const BATcol &column) noexcept : rows(rows_of<const T>(column)) {}

    VASK_ALWAYS_INLINE pair pair_of(BUN row, BUN slot) const noexcept {
        return kind::pair_of(key_bits(rows[row]), slot);
    }
};

template <>
struct pair_source<str> : text_pairs {
    using kind = text_pairs;

    explicit pair_source(const BATcol &column) noexcept : text_pairs{text_reader(column)} {}

    VASK_ALWAYS_INLINE pair pair_of(BUN row, BUN slot) const noexcept {
        const std::uint32_t offset = texts.offset(row);
        return {number_pairs<std::uint64_t>::pair_of(
            std::uint64_t{offset} << 32 | vask_str_hash(texts.at_offset(offset)), slot)};
    }
};

} // namespace vask
