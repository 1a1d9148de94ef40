// The forms of exported operators, and what becomes of their exception strings.
#pragma once

#include <cstdint>

namespace vask::runner {

//! Stores a scalar of a whole column in the result slot.
using whole_column_operator = char *(void *result, const std::int32_t *column);
//! Stores a number of rows.
using count_operator = char *(std::int64_t *result, const std::int32_t *column);
//! Stores the number of a column of one result per group.
using grouped_operator = char *(std::int32_t *result, const std::int32_t *column,
                                const std::int32_t *map, const std::int32_t *extents);
//! Groups rows by a column: the numbers of extents and map.
using group_operator = char *(std::int32_t *extents, std::int32_t *map, const std::int32_t *column);
//! Refines a grouping by a further column.
using derive_operator = char *(std::int32_t *extents, std::int32_t *map,
                               const std::int32_t *old_extents, const std::int32_t *old_map,
                               const std::int32_t *column);

//! Takes over what an operator returned; an exception string becomes a std::runtime_error.
void check(char *exception_string);

} // namespace vask::runner
