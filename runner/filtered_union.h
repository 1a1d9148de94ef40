// vask union: the values of two columns in the rows where neither is missing.
#pragma once

#include "explain.h"
#include "input_file.h"
#include "result_table.h"

#include "table/operators.h"

namespace vask::runner {

/*
 * The values of the first column, then those of the second, each with the number of its row (the
 * first row of data is 1) and the name of its column, from the rows in which both have a value. The
 * values have the wider of both types. Throws user_error for columns that are not of numbers or
 * truth values. The result reads the file's header.
 */
result_table filtered_union(input_file &file, const options &request,
                            const table::operator_set &operators, const explain_log &explain);

} // namespace vask::runner
