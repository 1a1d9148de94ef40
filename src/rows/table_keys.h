// Keys of the tables with open addressing: bit patterns.
#pragma once

#include "rows/isa.h"
#include "rows/key_hash.h"

#include <concepts>
#include <cstdint>

namespace vask {

//! Numbers by their bits, so -0.0 is not 0.0 and a NaN is equal to itself.
template <std::unsigned_integral Bits>
struct bit_pattern_keys {
    using key_type = Bits;

    VASK_ALWAYS_INLINE static std::uint32_t hash(Bits key) noexcept {
        if constexpr (sizeof(Bits) == 8)
            return static_cast<std::uint32_t>(key >> 33 ^ key ^ key << 11);
        else
            return key;
    }

    VASK_ALWAYS_INLINE static bool equal(Bits a, Bits b) noexcept { return a == b; }
};

//! The same for values of a column, whose low bits may tell nothing. Keys of one and two bytes need
//! no mixing: they spread over any table as they are.
template <std::unsigned_integral Bits>
struct spread_bit_pattern_keys : bit_pattern_keys<Bits> {
    VASK_ALWAYS_INLINE static std::uint32_t hash(Bits key) noexcept {
        const std::uint32_t hash = bit_pattern_keys<Bits>::hash(key);
        return sizeof(Bits) < sizeof(std::uint32_t) ? hash : spread_hash(hash);
    }
};

} // namespace vask
