// The order of a result's rows, and how many of them are shown.
#pragma once

#include "result_table.h"

#include <cstddef>
#include <optional>
#include <string>

namespace vask::runner {

struct row_order {
    std::optional<std::string> by; //!< the title of a column; none: as the rows stand
    bool descending = false;
    std::optional<std::size_t> most_rows;

    bool is_asked_for() const { return by || descending || most_rows; }
};

//! Puts the rows in the order of a column's values, rows with equal ones as they stood; missing
//! values come last either way, NaN before them. Throws user_error for a title that there is not.
void put_in_order(result_table &result, const row_order &order);

} // namespace vask::runner
