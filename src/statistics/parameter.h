// Parameters of statistics: the value in the first row of a BAT.
#pragma once

#include "vask/kernel/bat.h"

#include <cstdint>

namespace vask {

//! The place that the parameter readers, and all order statistics, name in their exceptions.
inline constexpr const char *order_statistics_place = "statistics.func";

//! The readers fetch the parameter BAT `bid`, store its type code in `*type` and its value,
//! converted to their own type, in `*result`. Accepted are the numeric types bte, sht, int, wrd,
//! lng, flt and dbl. A float given where an integer is asked for has to be whole to within 1e-7.
//! They give null, or an exception string when there is no such BAT, its type is refused, its first
//! row cannot be fetched, or the value is nil, not whole or does not fit; `*result` is then a nil.
//! Called on the entering thread.
char *vask_read_bte_param(bte *result, bte *type, const std::int32_t *bid);
char *vask_read_lng_param(lng *result, bte *type, const std::int32_t *bid);
char *vask_read_dbl_param(dbl *result, bte *type, const std::int32_t *bid);

// The parameters as the operators accept them. False when one is refused, with the operator's own
// exception string, which says what it wants. A reader's string only counts as a refusal and is
// released.

//! The number of a quartile, 0 to 4.
bool quartile_param(bte *result, const std::int32_t *bid, char **exception);
//! A share from 0 to 1.
bool percentile_param(dbl *result, const std::int32_t *bid, char **exception);
//! A rank from 1 on.
bool largest_param(lng *result, const std::int32_t *bid, char **exception);

//! Calls `f(value)` with a parameter that one of these accepts; else gives their exception.
template <class T, class F>
char *with_param(bool (*read)(T *, const std::int32_t *, char **), const std::int32_t *bid, F f) {
    T value;
    char *exception = nullptr;
    return read(&value, bid, &exception) ? f(value) : exception;
}

} // namespace vask
