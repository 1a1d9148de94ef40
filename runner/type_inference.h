// A first guess at the types of the columns.
#pragma once

#include "cell_values.h"
#include "csv_parser.h"
#include "load_fault.h"
#include "record_chunks.h"

#include <optional>
#include <string_view>
#include <vector>

namespace vask::runner {

//! For each column the type inferred from the cells of a few records from the start of several
//! chunks. A guess to start from: cells that were not looked at can need a wider type. Nothing for
//! a column without a value among them. Faults of the text are passed over here.
std::vector<std::optional<column_type>>
guess_types(std::string_view text, const std::vector<record_chunk> &chunks,
            const csv_dialect &dialect, const missing_words &missing, bool keep_zeros,
            const cell_format &format, ragged_records ragged, std::size_t columns);

} // namespace vask::runner
