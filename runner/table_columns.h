// Loaded columns as columns of a table that queries run on.
#pragma once

#include "table_loader.h"

#include "table/column.h"

#include <memory>
#include <string>

namespace vask::runner {

//! The table library's type for a column's.
table::value_type value_type_of(column_type type);

//! The column with its values where they are. `loaded` must outlive it.
std::shared_ptr<const table::column> as_table_column(std::string name, const table_column &loaded);

} // namespace vask::runner
