// Reading a kernel's column as result cells.
#pragma once

#include "cell_values.h"
#include "result_table.h"
#include "table_loader.h"

#include "table/answer.h"

#include "vask/embed.h"

#include <functional>

namespace vask::runner {

//! The value of a type that lies at `value`, not of str; a nil reads as a missing one.
result_cell cell_at(const void *value, column_type type);

//! Gives the cell of a row, from 0 on, of a column whose values are to be shown as `type`: its own
//! type or, for values of a user atom in a result, the type that they came from; not for str. The
//! column must outlive the function.
std::function<result_cell(std::size_t)> cells_of(const refkernel::bat &column, column_type type);

//! The same for a column that was loaded.
std::function<result_cell(std::size_t)> cells_of(const table_column &column);

//! The same for a column of a query's result, whose memory the function keeps.
std::function<result_cell(std::size_t)> cells_of(table::result_column column);

} // namespace vask::runner
