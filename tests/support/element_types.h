// From type codes to C++ types.
#pragma once

#include "vask/kernel/bat.h"

#include <cstdint>
#include <initializer_list>

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

//! Runs `body(T())` for the storage classes of numbers.
template <class Body>
void for_each_number_type(Body body) {
    for (const int type : {TYPE_bte, TYPE_sht, TYPE_int, TYPE_lng, TYPE_flt, TYPE_dbl})
        with_element_of(type, body);
}

} // namespace support
