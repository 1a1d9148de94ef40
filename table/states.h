// States of aggregates on parts of the rows, and what they come to together.
#pragma once

#include "table/arrow_import.h"
#include "table/plan.h"

#include "vask/vask.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vask::table {

struct states_part {
    column_list columns;
    std::int64_t rows;
};

//! The states of a query's functions by key. Throws table_error for a function without a state of
//! fixed size.
std::vector<result_column> partial_states(std::int64_t rows, const query &asked,
                                          const query_context &context);

//! Brings the states of parts together, in their order: to states again, or to the query's result.
std::vector<result_column> merge_states(const std::vector<states_part> &parts,
                                        const vask_query &asked, bool finish,
                                        const query_context &context);

//! Of a table of states: what it is and in which version.
std::string states_metadata();

} // namespace vask::table
