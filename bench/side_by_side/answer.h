// The summary of a result by which systems are compared.
#pragma once

#include "plan.h"

#include <nlohmann/json_fwd.hpp>

namespace side_by_side {

//! Groups are put into 16,411 bins by their keys: the numbers in the keys, 0 for a nil, as the
//! digits of a number to the base 128, the first key the lowest, modulo 16,411. The result has a
//! row for each bin in use: its number, its groups, and for each result column how many finite
//! values it has and their sum. The rows stand in order of the bins. Without keys all rows are in
//! bin 0.
nlohmann::json answer_of(const plan &asked, const plan_outcome &outcome,
                         const columns_by_name &columns);

} // namespace side_by_side
