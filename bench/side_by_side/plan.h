// A plan: grouping by some columns, and the operators that run on the groups or on whole columns.
#pragma once

#include "table/operators.h"
#include "vask/embed.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace side_by_side {

using columns_by_name = std::map<std::string, refkernel::bat>;

//! What an operator writes its answer to.
enum class slot_form { column, int_, lng, dbl };

struct operator_call {
    std::string name; //!< of the operator; "mean", or "rows" for the numbers of the groups' rows
    std::vector<std::string> columns;
    std::optional<std::int64_t> parameter; //!< handed over as a column of one row
    slot_form slot = slot_form::column;
    bool squared = false;
};

struct plan {
    std::vector<std::string> keys; //!< none: whole columns
    std::vector<operator_call> calls;
};

plan read_plan(const nlohmann::json &text);

//! A scalar, empty for a nil, or a column.
using plan_result = std::variant<std::optional<double>, refkernel::bat>;

struct plan_outcome {
    double milliseconds = 0; //!< from the first call to the last result
    std::vector<std::pair<std::string, double>> calls;
    refkernel::bat extents; //!< an empty handle without keys
    refkernel::bat map;
    std::vector<plan_result> results;
};

//! Runs a plan as a kernel would: one call after the other, what is not needed any more dropped.
//! Throws user_error for an operator that the library does not have, std::runtime_error for one
//! that fails.
plan_outcome run_plan(const plan &asked, const columns_by_name &columns,
                      const vask::table::operator_set &operators);

} // namespace side_by_side
