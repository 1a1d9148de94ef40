// What tables of states are made of.
#pragma once

#include "table/plan.h"
#include "table/result_rows.h"
#include "table/states.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vask::table {

//! A column of a state: the function that makes it of the rows, and the one that merges it, empty
//! for those that are merged together.
struct state_part {
    std::string_view name;
    std::string_view made_by;
    std::string_view merged_by;
};

std::vector<state_part> parts_of(const function_rule &rule, kind of);

//! Whether a state is the different values of a key, in rows of their own.
bool is_by_value(const function_rule &rule);

//! Throws table_error for a function without a state of fixed size.
void require_state(const function_rule &rule, const std::string &title);

//! The name of a part's column, of the function's number in the query.
std::string part_name(std::size_t function, std::string_view part, const value_type &of);

//! The numbers of so many rows.
std::vector<std::int64_t> all_rows(std::int64_t rows);

//! Values of a function by key, in rows of their own.
struct value_rows {
    std::size_t function;
    std::vector<result_column> columns; //!< keys, then the value, then how many there are
    std::vector<std::int64_t> rows;     //!< those that count
};

//! Different values by key with their numbers of rows, which `counted` gives. `by` are the keys.
value_rows values_by_key(std::size_t function, std::int64_t rows, std::vector<column_pointer> by,
                         const column_pointer &value, asked_function counted, unsigned flags,
                         const query_context &context);

//! Keys and states, in rows of their own and of values.
struct state_rows {
    std::vector<result_column> keys;
    std::vector<result_column> states;
    std::vector<value_rows> values;
    std::int64_t rows = 0;
};

//! The table of them. `types` are those of the functions' columns.
std::vector<result_column> stack(state_rows all, const std::vector<value_type> &types);

} // namespace vask::table
