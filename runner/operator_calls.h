// The forms of exported operators, and what becomes of their exception strings.
#pragma once

#include "operator_library.h"

#include <cstdint>
#include <span>
#include <string>

namespace vask::runner {

//! Groups rows by a column: the numbers of extents and map.
using group_operator = char *(std::int32_t *extents, std::int32_t *map, const std::int32_t *column);
//! Refines a grouping by a further column.
using derive_operator = char *(std::int32_t *extents, std::int32_t *map,
                               const std::int32_t *old_extents, const std::int32_t *old_map,
                               const std::int32_t *column);

//! Takes over what an operator returned; an exception string becomes a std::runtime_error.
void check(char *exception_string);

//! Calls an operator that takes a result slot and one to four numbers of BATs, and checks what it
//! returns. The slot has room for what the operator stores: a value, or the number of a new BAT.
void call_operator(const operator_library &operators, const std::string &name, void *result,
                   std::span<const std::int32_t *const> bats);

} // namespace vask::runner
