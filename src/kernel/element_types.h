// The list of element types, and from a type code to a C++ type: the one place where the operators
// turn the one into the other.
#pragma once

#include "vask/kernel/bat.h"

#include <cstdint>
#include <type_traits>

namespace vask {

template <int type_code, class T>
struct arithmetic_type {
    static constexpr int code = type_code;
    using element = T;
};

template <class... Types>
struct type_list {};

//! The types of numbers, each once: wrd and lng are both 64-bit integers.
using arithmetic_types = type_list<arithmetic_type<TYPE_bte, bte>, arithmetic_type<TYPE_sht, sht>,
                                   arithmetic_type<TYPE_int, std::int32_t>,
                                   arithmetic_type<TYPE_wrd, lng>, arithmetic_type<TYPE_lng, lng>,
                                   arithmetic_type<TYPE_flt, flt>, arithmetic_type<TYPE_dbl, dbl>>;

//! Calls `f(std::type_identity<T>{})` with the arithmetic type that `code` names and gives its
//! result; `otherwise` for any other code. A family that dispatches on the column's own type passes
//! that, one that accepts user atoms passes storage_of() it.
template <class R, class F>
R visit_arithmetic_type(int code, R otherwise, F f) {
    R result = otherwise;
    [&]<class... Types>(type_list<Types...>) {
        static_cast<void>(((code == Types::code &&
                            (result = f(std::type_identity<typename Types::element>{}), true)) ||
                           ...));
    }(arithmetic_types{});
    return result;
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
