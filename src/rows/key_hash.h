// Numbers as keys.
#pragma once

#include "kernel/element_types.h"
#include "rows/isa.h"
#include "vask/kernel/bat.h"

#include <bit>
#include <concepts>
#include <type_traits>

namespace vask {

template <class T>
concept number = std::is_arithmetic_v<T>;

//! The bits of a number: its key wherever -0.0 is not 0.0 and a NaN is like itself.
template <number T>
VASK_ALWAYS_INLINE auto key_bits(T value) noexcept {
    if constexpr (sizeof(T) == 8)
        return std::bit_cast<std::uint64_t>(value);
    else if constexpr (sizeof(T) == 4)
        return std::bit_cast<std::uint32_t>(value);
    else
        return static_cast<std::make_unsigned_t<T>>(value);
}

} // namespace vask
