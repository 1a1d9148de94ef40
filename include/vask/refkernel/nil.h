// The reserved value of each element type that stands for "no value".
#ifndef VASK_REFKERNEL_NIL_H
#define VASK_REFKERNEL_NIL_H

#include "vask/refkernel/contract.h"

#include <concepts>
#include <limits>

namespace refkernel {

/*
 * The nil of a fixed-width type: the least value of a signed integer, the
 * lowest finite value of a floating-point type, and for oid the number whose 32
 * bits are those of the int nil, since oids are handled as int by some operators.
 *
 * A NaN would not do: it equals nothing, itself included, and so no operator
 * could ever find it.
 */
template <class T>
requires std::integral<T> || std::floating_point<T>
constexpr T nil_of() {
    return std::numeric_limits<T>::lowest();
}

template <>
constexpr oid nil_of<oid>() {
    return 0x80000000;
}

//! Whether a value is the one that stands for "no value".
template <class T>
requires std::integral<T> || std::floating_point<T>
constexpr bool is_nil(T value) {
    return value == nil_of<T>();
}

} // namespace refkernel

#endif
