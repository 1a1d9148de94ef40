// The least and the greatest value of integers.
#ifndef REFKERNEL_ALGEBRA_VALUE_SPAN_H
#define REFKERNEL_ALGEBRA_VALUE_SPAN_H

#include "vask/refkernel/contract.h"

#include "rows/isa.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>

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
VASK_ALWAYS_INLINE value_span<T> scan_span(const T *values, BUN rows, std::size_t step, T nil) {
    const value_span<T> none;
    value_span<T> span;
    for (std::size_t row = 0; row < rows; row += step) {
        const T v = values[row];
        span.least = std::min(span.least, v == nil ? none.least : v);
        span.greatest = std::max(span.greatest, v == nil ? none.greatest : v);
    }
    return span;
}

template <class T>
value_span<T> span_of(const T *values, BUN rows, T nil) {
    return vask::with_best_instruction_set([=]() __attribute__((always_inline)) {
        return scan_span(values, rows, 1, nil);
    });
}

} // namespace refkernel::algebra

#endif
