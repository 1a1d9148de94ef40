// Running a query on columns.
#pragma once

#include "table/answer.h"
#include "table/functions.h"
#include "table/operators.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vask::table {

struct asked_function {
    const function_rule *rule;
    std::vector<column_pointer> columns;
    std::optional<double> parameter; //!< there when the rule has one, and within its bounds
    std::string title;
};

struct query {
    std::vector<column_pointer> by;
    std::vector<asked_function> functions;
    unsigned flags = 0; //!< vask_flag
    //! Least and greatest of values with a NaN among them are what the operators give, instead of
    //! being refused.
    bool extremes_of_nan = false;
};

struct query_context {
    const operator_set &operators;
    teller tell;
    //! Given the share that is done; throws to cancel.
    std::function<void(double)> progress;
};

//! The columns of `by`, then one for each function; a row for each group. Throws table_error.
std::vector<result_column> run_query(std::int64_t rows, const query &asked,
                                     const query_context &context);

//! Checks the columns and the parameter of a function. Throws table_error.
asked_function bind_function(std::string_view name, std::vector<column_pointer> columns,
                             double parameter, std::string title);

//! What group_request a query's keys and flags come to.
group_request groups_of(const query &asked);

} // namespace vask::table
