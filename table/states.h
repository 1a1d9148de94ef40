// States of aggregates on parts of the rows, and what they come to together.
#pragma once

#include "table/arrow_import.h"
#include "table/plan.h"

#include "vask/vask.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vask::table {

/*
 * A table of states has the columns of the keys, a column called as `states_version`, and the
 * columns of each function's state, called "vask.N.PART:FORMAT" after the function's number in the
 * query, from 0, and the Arrow format of the column that it was asked of. A row has states of one
 * key where `states_version` is 0; where it is N + 1, it has one of the different values of
 * function N by key. Columns that a row does not speak of are null.
 *
 *     functions                          parts
 *     size, count, count_nulls           count
 *     sum, mean of whole numbers         high, low (of a sum of 128 bits: sum = high * 2^32 + low)
 *     sum, mean of floats                sum
 *     mean                               count besides
 *     weighted_mean                      products, weights
 *     min, max, first, last, any         value
 *     range                              least, greatest
 *     stdev, variance, skews and theirs  count, centre, mean (less the centre), m2, m3 (sums of
 *                                        powers of the distances from the mean)
 *     covars, correl and theirs          n_xy, centre_x, centre_y, mean_x, mean_y, m2_x, m2_y, c_xy
 *     count_distinct, mode               value, count: of different values, in rows of their own
 *     all with VASK_KEEP_NULLS           nulls besides
 */
inline constexpr const char *states_version = "vask.states.1";

//! The states of a query's functions by key. Throws table_error for a function without a state of
//! fixed size.
std::vector<result_column> partial_states(std::int64_t rows, const query &asked,
                                          const query_context &context);

struct states_part {
    column_list columns;
    std::int64_t rows;
};

//! A function of the query whose states are merged.
struct merged_function {
    const function_rule *rule;
    std::string title;
};

struct merge_request {
    std::vector<states_part> parts;
    std::vector<std::string> by;
    std::vector<merged_function> functions;
    unsigned flags;
    bool finish; //!< the query's result, not states again
};

//! Brings the states of parts together, in their order.
std::vector<result_column> merge_states(const merge_request &asked, const query_context &context);

} // namespace vask::table
