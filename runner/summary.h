// What vask summary and vask schema tell of a file's columns.
#pragma once

#include "csv_header.h"
#include "explain.h"
#include "options.h"
#include "result_table.h"
#include "table_loader.h"

#include "table/operators.h"

namespace vask::runner {

//! A row for each column, whose values are all loaded: type, counts, order statistics, moments,
//! mode, and how numbers and times lie between the least and the greatest one: as a line of bars
//! or, in formats for programs, as counts. What does not go with a column's type is missing.
result_table summarize(const loaded_table &data, const csv_header &header, output_format format,
                       const table::operator_set &operators, const explain_log &explain);

//! A row for each column: its number, name, type, missing values and first value.
result_table schema_of(const loaded_table &data, const csv_header &header,
                       const table::operator_set &operators, const explain_log &explain);

} // namespace vask::runner
