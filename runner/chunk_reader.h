// From one chunk of a file to the values of its columns.
#pragma once

#include "cell_values.h"
#include "csv_parser.h"
#include "load_fault.h"
#include "record_chunks.h"
#include "row_filter.h"
#include "text_cells.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vask::runner {

//! How a column is read and where its values go.
struct column_target {
    bool wanted = false; //!< false: its cells are passed over
    column_type type = column_type::int_;
    bool forced = false;     //!< by the user: a cell of another type is a fault
    bool keep_zeros = false; //!< a number with a leading zero needs the type str
    bool is_key = false;     //!< it is of interest whether numbers are printed in this spelling
    //! Row 0 of the whole column, elements of the type's width. Not used for text.
    void *values = nullptr;
};

struct column_outcome {
    bool any_fits = false; //!< some cells are of the target's type
    //! The type that the others need; nothing if there are none. The values are not of use then.
    std::optional<column_type> misfits{};
    std::uint64_t missing = 0;
    time_spellings times; //!< of a column of dates or timestamps
    //! Of a key, the first number that is printed in another spelling.
    std::optional<std::string> respelled;
    text_cells texts; //!< of a text column
};

struct chunk_outcome {
    std::uint64_t records = 0; //!< that were kept
    std::vector<column_outcome> columns;
    std::optional<load_fault> fault; // with it the rest is not of use
};

//! How the text of all chunks is read.
struct reading_rules {
    const csv_dialect &dialect;
    const missing_words &missing;
    cell_format format{};
    ragged_records ragged = ragged_records::refused;
    //! Which rows are kept; null: all.
    const row_filter *filter = nullptr;
    std::string_view file_name{}; //!< as the filter may want it
};

//! Parses one chunk and stores the values of the rows that are kept from row `first_row` on. Chunks
//! can be read at the same time.
chunk_outcome read_chunk(std::string_view text, const record_chunk &chunk,
                         const reading_rules &rules, const std::vector<column_target> &targets,
                         std::uint64_t first_row);

} // namespace vask::runner
