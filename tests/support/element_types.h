// From type codes to C++ types.
#pragma once

#include "kernel/element_types.h"
#include "vask/kernel/bat.h"

#include <cstdint>

namespace support {

//! Runs `body(T())` with the C++ type in which the elements of a type are stored.
template <class Body>
auto with_element_of(int type, Body body) {
    switch (BATatoms[type].atom_storage) {
        case TYPE_sht:
            return body(std::int16_t());
        case TYPE_int:
            return body(std::int32_t());
        case TYPE_lng:
            return body(std::int64_t());
        case TYPE_flt:
            return body(float());
        case TYPE_dbl:
            return body(double());
        default:
            return body(std::int8_t());
    }
}

//! Calls `f.operator()<T>(type)` for each arithmetic type code with the type of its elements.
template <class F>
void for_each_arithmetic_type(F f) {
    [&]<class... Types>(vask::type_list<Types...>) {
        (f.template operator()<typename Types::element>(Types::code), ...);
    }(vask::arithmetic_types{});
}

//! Runs `body(T())` for the storage classes of numbers.
template <class Body>
void for_each_number_type(Body body) {
    for_each_arithmetic_type([&]<class T>(int type) {
        if (type != TYPE_wrd) // stored as lng
            body(T());
    });
}

} // namespace support
