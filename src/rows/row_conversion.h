// Copying rows of a column into elements of another type, a block at a time.
//
// An operator over pairs and triples of types would need an instance for each; one that converts
// each column by itself, in blocks that stay in the cache, needs one for each source and target.
#pragma once

#include "kernel/column.h"
#include "kernel/element_types.h"
#include "rows/isa.h"
#include "vask/kernel/bat.h"

#include <bit>
#include <cstring>

namespace vask {

//! Rows at ascending positions.
struct row_selection {
    BUN first;
    BUN n;
    const BUN *positions; // null: first .. first + n - 1

    //! The rows at n positions.
    static row_selection of(const BUN *positions, BUN n) noexcept {
        const bool gaps = n != 0 && positions[n - 1] - positions[0] != n - 1;
        return {n != 0 ? positions[0] : 0, n, gaps ? positions : nullptr};
    }
};

//! Converts the selected rows of a column to `out`.
template <class R>
using row_converter = void (*)(const BATcol &column, row_selection rows, R *out);

//! Whether the elements of a column lie as an array of S would. They lie where the width of the
//! column's own type puts them, and an operator may read less of each.
template <class S>
bool is_array_of(const BATcol &column) noexcept {
    return column.shift == std::countr_zero(sizeof(S));
}

//! The element at a position, read as an S: of a wider one, what its first bytes say.
template <class S>
VASK_ALWAYS_INLINE S element_at(const BATcol &column, BUN p) noexcept {
    S element;
    std::memcpy(&element, static_cast<const char *>(column.base) + (std::size_t{p} << column.shift),
                sizeof element);
    return element;
}

//! The conversion of elements read as S, as by an assignment: integers widen or are cut, or become
//! the nearest float; floats are cut towards zero.
template <class S, class R>
void convert_rows(const BATcol &column, row_selection rows, R *out) {
    if (rows.positions != nullptr) {
        for (BUN i = 0; i < rows.n; ++i)
            out[i] = static_cast<R>(element_at<S>(column, rows.positions[i]));
    } else if (!is_array_of<S>(column)) {
        for (BUN i = 0; i < rows.n; ++i)
            out[i] = static_cast<R>(element_at<S>(column, rows.first + i));
    } else {
        const S *elements = rows_of<const S>(column) + rows.first;
        with_best_instruction_set([=]() __attribute__((always_inline)) {
            for (BUN i = 0; i < rows.n; ++i)
                out[i] = static_cast<R>(elements[i]);
        });
    }
}

//! The converter of elements of a storage code; null for one without a storage class.
template <class R>
row_converter<R> converter_from(int storage) noexcept {
    return visit_storage_class(
        storage, row_converter<R>{nullptr},
        []<class S>(std::type_identity<S>) { return row_converter<R>{convert_rows<S, R>}; });
}

} // namespace vask
