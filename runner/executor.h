// Running a query on loaded columns.
#pragma once

#include "explain.h"
#include "query.h"
#include "result_table.h"

#include "table/operators.h"

namespace vask::runner {

//! A row for each group in order, or one row for the whole columns. Throws user_error for what the
//! data do not allow.
result_table execute(const query &asked, const loaded_table &data, const csv_header &header,
                     const table::operator_set &operators, const explain_log &explain);

} // namespace vask::runner
