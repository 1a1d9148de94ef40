// From the types of columns to C++ types.
#pragma once

#include "table/value_type.h"

#include <cstdint>
#include <type_traits>

namespace vask::table {

//! Calls `f(std::type_identity<T>{})` with the type of the elements of a plain array. Not for
//! booleans, decimals, texts and nulls.
template <class F>
decltype(auto) visit_elements(kind of, F f) {
    switch (of) {
        case kind::int8:
            return f(std::type_identity<std::int8_t>{});
        case kind::uint8:
            return f(std::type_identity<std::uint8_t>{});
        case kind::int16:
            return f(std::type_identity<std::int16_t>{});
        case kind::uint16:
            return f(std::type_identity<std::uint16_t>{});
        case kind::int32:
        case kind::date32:
        case kind::time32:
            return f(std::type_identity<std::int32_t>{});
        case kind::uint32:
            return f(std::type_identity<std::uint32_t>{});
        case kind::uint64:
            return f(std::type_identity<std::uint64_t>{});
        case kind::float32:
            return f(std::type_identity<float>{});
        case kind::float64:
            return f(std::type_identity<double>{});
        default:
            return f(std::type_identity<std::int64_t>{});
    }
}

} // namespace vask::table
