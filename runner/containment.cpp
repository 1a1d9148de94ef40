#include "containment.h"

#include "table_columns.h"
#include "user_error.h"

#include "table/containment.h"

#include <utility>
#include <vector>

#include <fmt/format.h>

namespace vask::runner {

table_column contained_in(const named_column &left, const named_column &right,
                          const std::string &looked_up) {
    const bool left_text = left.column.type == column_type::str;
    const bool right_text = right.column.type == column_type::str;
    const bool left_time = is_time_type(left.column.type);
    const bool right_time = is_time_type(right.column.type);
    if (left_text != right_text || left_time != right_time)
        fail("--contained-in: {} is {}, and {} is {}, which do not compare{}", left.name,
             name_of(left.column.type), right.name, name_of(right.column.type),
             (left_time && right_text) || (right_time && left_text)
                 ? fmt::format(": a cell of one is no date. Give --types '{}:str' to have texts "
                               "compared",
                               looked_up)
             : left_text != right_text
                 ? fmt::format(". Numbers with leading zeros count as text: if they are numbers, "
                               "give --types '{}:int', which goes for them in both files",
                               looked_up)
                 : "");
    const table::result_column found = contained(*as_table_column(left.name, left.column),
                                                 *as_table_column(right.name, right.column));
    std::vector<bte> values(static_cast<std::size_t>(found.rows));
    const auto *const bits = static_cast<const std::uint8_t *>(found.values);
    for (std::size_t row = 0; row < values.size(); ++row)
        values[row] = static_cast<bte>((bits[row >> 3] >> (row & 7)) & 1);
    table_column result;
    result.type = column_type::bte;
    result.values = refkernel::make_column(std::move(values), {.tail = {.nonil = true}});
    return result;
}

} // namespace vask::runner
