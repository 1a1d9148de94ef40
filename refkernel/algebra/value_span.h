// The least and the greatest value of integers.
#ifndef REFKERNEL_ALGEBRA_VALUE_SPAN_H
#define REFKERNEL_ALGEBRA_VALUE_SPAN_H

#include "vask/refkernel/contract.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>

namespace refkernel::algebra {

//! The least and the greatest value that is not the nil; least above greatest if there is none.
template <class T>
struct value_span {
    T least = std::numeric_limits<T>::max();
    T greatest = std::numeric_limits<T>::lowest();

    bool empty() const { return least > greatest; }
    std::uint64_t distance() const {
        return static_cast<std::uint64_t>(greatest) - static_cast<std::uint64_t>(least);
    }
};

//! The span of the rows 0, step, 2 * step, ... below `rows`. The plain selections in the loop are
//! what the compiler turns into vector code, for a step of 1.
template <class T>
value_span<T> span_of(const T *values, BUN rows, std::size_t step, std::optional<T> nil) {
    value_span<T> span;
    if (nil) {
        const value_span<T> none;
        for (std::size_t row = 0; row < rows; row += step) {
            const T v = values[row];
            span.least = std::min(span.least, v == *nil ? none.least : v);
            span.greatest = std::max(span.greatest, v == *nil ? none.greatest : v);
        }
    } else {
        for (std::size_t row = 0; row < rows; row += step) {
            span.least = std::min(span.least, values[row]);
            span.greatest = std::max(span.greatest, values[row]);
        }
    }
    return span;
}

} // namespace refkernel::algebra

#endif
