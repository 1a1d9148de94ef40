// The values of a column as keys. Values are compared by their bits: nil is a value like any other,
// -0.0 and 0.0 are two, NaNs are one if their bits are the same. Texts are compared by what they
// read.
#ifndef REFKERNEL_ALGEBRA_COLUMN_VALUES_H
#define REFKERNEL_ALGEBRA_COLUMN_VALUES_H

#include "refkernel/algebra/held_bats.h"
#include "refkernel/algebra/value_span.h"
#include "refkernel/columns.h"
#include "rows/column_keys.h"
#include "vask/refkernel/contract.h"

#include <concepts>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>

namespace refkernel::algebra {

//! Throws `failure` for a tail that is neither void nor of elements of 1, 2, 4 or 8 bytes or texts.
inline void require_groupable_tail(const BAT &b) {
    const int width = b.tail->width;
    if (!is_void(*b.tail) && width != 1 && width != 2 && width != 4 && width != 8)
        throw failure("tail type cannot be grouped");
}

//! Calls `f(vask::number_keys<T>)` for a stored column that is not of texts. T has the width of the
//! elements and is a floating-point type if they are such numbers.
template <class F>
auto visit_numbers(const BATcol &column, F f) {
    const int storage = BATatoms[column.type].atom_storage;
    switch (column.width) {
        case 1:
            return f(vask::number_keys<bte>(column));
        case 2:
            return f(vask::number_keys<sht>(column));
        case 4:
            return storage == TYPE_flt ? f(vask::number_keys<flt>(column))
                                       : f(vask::number_keys<std::int32_t>(column));
        default:
            return storage == TYPE_dbl ? f(vask::number_keys<dbl>(column))
                                       : f(vask::number_keys<lng>(column));
    }
}

//! Whether equal texts of the column lie at one place, so that they can be told apart by it.
inline bool holds_each_text_once(const BATcol &column) {
    return column_of(&column).heap->holds_each_once();
}

//! The span of a BAT's integers, nils aside, if it is no more than `most`.
template <std::integral T>
std::optional<vask::key_span<typename vask::number_keys<T>::key_type>>
span_of_values(const BAT &b, std::uint64_t most) {
    using key_type = typename vask::number_keys<T>::key_type;
    // Not worth a look: an array of all values is small.
    if (sizeof(T) == 1)
        return {{0, std::numeric_limits<key_type>::max()}};
    // A look at this many rows across a large column tells most columns of a wide span apart
    // without reading them whole.
    constexpr BUN rows_of_first_look = 256;
    T nil;
    std::memcpy(&nil, BATatoms[b.tail->type].atom_null, sizeof nil);
    const T *values = elements<const T>(*b.tail) + b.info->first;
    const BUN rows = b.info->count;
    const auto too_wide = [most](const value_span<T> &span) {
        return !span.empty() && span.distance() > most;
    };
    if (rows > 64 * rows_of_first_look &&
        too_wide(scan_span(values, rows, rows / rows_of_first_look, nil)))
        return std::nullopt;
    const value_span<T> span = span_of<T>(values, rows, nil);
    if (too_wide(span))
        return std::nullopt;
    if (span.empty())
        return {{0, 0}};
    return {{vask::key_bits(span.least), static_cast<key_type>(span.distance())}};
}

} // namespace refkernel::algebra

#endif
