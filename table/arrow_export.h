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
    std::string metadata; //!< of the schema, as Arrow encodes it; empty: none
};

//! A stream of one batch, which shares the table's memory.
void export_stream(std::shared_ptr<const result_table> table, ArrowArrayStream &out);

//! Key and value as Arrow encodes a schema's metadata.
std::string encode_metadata(std::string_view key, std::string_view value);

} // namespace vask::table
