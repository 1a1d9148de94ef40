// What the operators answer with: for a column of Ts, the type of the answer, which values are also
// gathered in; and its type code, by that of the column. One table for the operators and their
// tests.
#pragma once

#include "kernel/column.h"
#include "vask/kernel/bat.h"

#include <concepts>
#include <type_traits>

namespace vask {

//! Integers widen to 64 bits and wrap there; floats keep their own precision all the way.
template <class T>
struct sum_result {
    using type = std::conditional_t<std::integral<T>, lng, T>;
    static constexpr int code(int column) noexcept {
        return column == TYPE_bte || column == TYPE_sht || column == TYPE_int ? int{TYPE_lng}
                                                                              : column;
    }
};

//! The storage's type, and not a user atom's own.
template <class T>
struct extreme_result {
    using type = T;
    static int code(int column) noexcept { return BATatoms[column].atom_storage; }
};

template <class T>
struct count_result {
    using type = wrd;
    static constexpr int code(int) noexcept { return TYPE_wrd; }
};

//! Of moments, of quantiles and of statistics of two columns.
template <class T>
struct statistic_result {
    using type = dbl;
    static constexpr int code(int) noexcept { return TYPE_dbl; }
};

} // namespace vask
