// From a type code to a C++ type: the one place where the operators turn the one into the other.
#pragma once

#include "vask/kernel/bat.h"

#include <cstdint>
#include <type_traits>

namespace vask {

//! Calls `f(std::type_identity<T>{})` with the arithmetic type that `code` names, wrd and lng both
//! as 64-bit integers, and gives its result; `otherwise` for any other code. A family that
//! dispatches on the column's own type passes that, one that accepts user atoms passes
//! storage_of() it.
template <class R, class F>
R visit_arithmetic_type(int code, R otherwise, F f) {
    switch (code) {
        case TYPE_bte:
            return f(std::type_identity<bte>{});
        case TYPE_sht:
            return f(std::type_identity<sht>{});
        case TYPE_int:
            return f(std::type_identity<std::int32_t>{});
        case TYPE_wrd:
        case TYPE_lng:
            return f(std::type_identity<lng>{});
        case TYPE_flt:
            return f(std::type_identity<flt>{});
        case TYPE_dbl:
            return f(std::type_identity<dbl>{});
        default:
            return otherwise;
    }
}

//! Whether a type is one of numbers. Flags, oids and user atoms are not.
inline bool is_arithmetic_type(int code) {
    return visit_arithmetic_type(code, false, [](auto) { return true; });
}

//! Numbers, or flags and bytes, which are stored as numbers.
inline bool is_stored_as_number(int code) {
    return is_arithmetic_type(code) || code == TYPE_bit || code == TYPE_byte;
}

//! Calls `f` like visit_arithmetic_type for the six storage classes of grouping, distinct counting,
//! statistics and union: all one-byte types run as bte, and wrd has no class of its own (the kernel
//! stores it as lng).
template <class R, class F>
R visit_storage_class(int storage, R otherwise, F f) {
    switch (storage) {
        case TYPE_bit:
        case TYPE_byte:
            return f(std::type_identity<bte>{});
        case TYPE_wrd:
            return otherwise;
        default:
            return visit_arithmetic_type(storage, otherwise, f);
    }
}

inline bool has_storage_class(int storage) {
    return visit_storage_class(storage, false, [](auto) { return true; });
}

//! A text: the address of its first byte in the column's heap.
using str = const char *;

//! The same for grouping and distinct counting, which take texts besides.
template <class R, class F>
R visit_keyed_class(int storage, R otherwise, F f) {
    if (storage == TYPE_str)
        return f(std::type_identity<str>{});
    return visit_storage_class(storage, otherwise, f);
}

inline bool has_keyed_class(int storage) {
    return visit_keyed_class(storage, false, [](auto) { return true; });
}

} // namespace vask
