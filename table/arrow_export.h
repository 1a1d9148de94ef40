// Columns of a result as an Arrow stream.
#pragma once

#include "table/answer.h"

#include "vask/vask.h"

#include <memory>
#include <string>
#include <vector>

namespace vask::table {

struct result_table {
    std::vector<result_column> columns;
    std::int64_t rows = 0;
};

//! A stream of one batch, which shares the table's memory.
void export_stream(std::shared_ptr<const result_table> table, ArrowArrayStream &out);

} // namespace vask::table
