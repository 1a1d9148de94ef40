// Calling the operators for a query.
#pragma once

#include "explain.h"
#include "operator_library.h"
#include "query.h"
#include "result_table.h"
#include "table_loader.h"

namespace vask::runner {

//! Runs a checked query on loaded columns: one row of results, or one for each group with the
//! values that make up the group before. The result reads from `data`, which must outlive it, too.
//! Throws std::runtime_error when an operator reports a failure.
result_table execute(const query &asked, const table &data, const csv_header &header,
                     const operator_library &operators, const explain_log &explain);

} // namespace vask::runner
