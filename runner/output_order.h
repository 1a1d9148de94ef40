// The order of a result's rows, and how many of them are shown.
#pragma once

#include "result_table.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vask::runner {

struct row_order {
    std::optional<std::string> by;   //!< the title of a column; none: as the rows stand
    bool by_first_aggregate = false; //!< where there is no title
    bool descending = false;
    std::optional<std::size_t> most_rows;

    bool is_asked_for() const { return by || by_first_aggregate || descending || most_rows; }
};

//! The column of that title. Throws user_error for one that there is not.
const result_column &column_called(const result_table &result, const std::string &title,
                                   std::string_view asked_by);

//! Puts the rows in the order of a column's values, rows with equal ones as they stood; missing
//! values come last either way, NaN before them. Throws user_error for a title that there is not.
void put_in_order(result_table &result, const row_order &order);

} // namespace vask::runner
