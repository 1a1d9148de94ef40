// Keys of rows, as tables and buckets tell them apart.
//
// A kind of keys is a plain struct with
//   key_type       one, two or three words of 32 bits
//   hash(key)      64 bits, of which the upper ones are the best spread
//   same(a, b)     whether two keys are those of one value
#pragma once

#include "kernel/column.h"
#include "kernel/hostile.h"
#include "rows/isa.h"
#include "rows/key_hash.h"

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace vask {

//! Spreads 64 bits so that the upper ones depend on all. Whole numbers as doubles differ in their
//! upper halves alone: without the first fold they probe a table three times as often as random
//! keys do.
VASK_ALWAYS_INLINE std::uint64_t spread_bits(std::uint64_t bits) noexcept {
    constexpr std::uint64_t golden_ratio = 0x9e3779b97f4a7c15;  // 2^64 divided by it, odd
    constexpr std::uint64_t second_factor = 0xd6e8feb86659fd93; // any odd number without a pattern
    bits ^= bits >> 32;
    bits *= golden_ratio;
    bits ^= bits >> 32;
    return unless_hostile_hash(bits * second_factor);
}

//! The first `bits` bits of a hash, up to 63 of them. In two steps, because a shift by all bits is
//! none.
VASK_ALWAYS_INLINE std::uint64_t leading_bits(std::uint64_t hash, unsigned bits) noexcept {
    return hash >> 1 >> (63 - bits);
}

//! 64 bits of a value and a number of 32 beside them, without padding.
struct wide_key {
    std::array<std::uint32_t, 3> words;

    static VASK_ALWAYS_INLINE wide_key of(std::uint64_t bits, std::uint32_t number) noexcept {
        return {{static_cast<std::uint32_t>(bits), static_cast<std::uint32_t>(bits >> 32), number}};
    }
    VASK_ALWAYS_INLINE std::uint64_t bits() const noexcept {
        return std::uint64_t{words[1]} << 32 | words[0];
    }
    VASK_ALWAYS_INLINE std::uint32_t number() const noexcept { return words[2]; }

    friend VASK_ALWAYS_INLINE bool operator==(const wide_key &a, const wide_key &b) noexcept {
        return a.bits() == b.bits() && a.number() == b.number();
    }
};

//! The bits of a T, in 32 of them at least.
template <class T>
using value_bits = std::conditional_t<sizeof(T) == 8, std::uint64_t, std::uint32_t>;

//! A value's bits beside the number of a group: of up to 32 bits in one word of 64.
template <class Bits>
using numbered_key = std::conditional_t<sizeof(Bits) == 8, wide_key, std::uint64_t>;

template <class Bits>
VASK_ALWAYS_INLINE numbered_key<Bits> key_beside(std::uint32_t number, Bits bits) noexcept {
    if constexpr (sizeof(Bits) == 8)
        return wide_key::of(bits, number);
    else
        return std::uint64_t{number} << 32 | bits;
}

VASK_ALWAYS_INLINE std::uint32_t number_beside(const wide_key &key) noexcept {
    return key.number();
}
VASK_ALWAYS_INLINE std::uint32_t number_beside(std::uint64_t key) noexcept {
    return static_cast<std::uint32_t>(key >> 32);
}

//! Keys told apart by their bits.
template <class Key>
struct bit_keys {
    using key_type = Key;

    VASK_ALWAYS_INLINE static std::uint64_t hash(const Key &key) noexcept {
        if constexpr (std::is_same_v<Key, wide_key>)
            return spread_bits(key.bits() ^ spread_bits(key.number()));
        else
            return spread_bits(key);
    }
    VASK_ALWAYS_INLINE static bool same(const Key &a, const Key &b) noexcept { return a == b; }
};

//! A text as the bits of a key: its hash above its offset in the heap, so that it is hashed once
//! and hardly ever compared.
VASK_ALWAYS_INLINE std::uint64_t text_bits(std::uint32_t hash, std::uint32_t offset) noexcept {
    return std::uint64_t{hash} << 32 | offset;
}

//! Texts told apart by what they read, wherever they lie; beside the number of an old group or not.
template <class Key>
struct text_content_keys {
    using key_type = Key;

    text_reader texts;

    VASK_ALWAYS_INLINE static std::uint64_t hash(const Key &key) noexcept {
        return spread_bits(std::uint64_t{number(key)} << 32 | hash_of(key));
    }
    VASK_ALWAYS_INLINE bool same(const Key &a, const Key &b) const noexcept {
        return number(a) == number(b) &&
               (offset(a) == offset(b) ||
                (hash_of(a) == hash_of(b) &&
                 std::strcmp(texts.at_offset(offset(a)), texts.at_offset(offset(b))) == 0));
    }

private:
    static VASK_ALWAYS_INLINE std::uint64_t text(const Key &key) noexcept {
        if constexpr (std::is_same_v<Key, wide_key>)
            return key.bits();
        else
            return key;
    }
    static VASK_ALWAYS_INLINE std::uint32_t offset(const Key &key) noexcept {
        return static_cast<std::uint32_t>(text(key));
    }
    static VASK_ALWAYS_INLINE std::uint32_t hash_of(const Key &key) noexcept {
        return static_cast<std::uint32_t>(text(key) >> 32);
    }
    static VASK_ALWAYS_INLINE std::uint32_t number([[maybe_unused]] const Key &key) noexcept {
        if constexpr (std::is_same_v<Key, wide_key>)
            return key.number();
        else
            return 0;
    }
};

} // namespace vask
