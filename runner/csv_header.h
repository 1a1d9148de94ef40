// The names of the columns, and where the data begin.
#pragma once

#include "csv_parser.h"
#include "source_text.h"

#include <cstddef>
#include <string>
#include <vector>

namespace vask::runner {

struct csv_header {
    std::vector<std::string> names;
    std::size_t data_begin = 0; // place of the first byte behind the header's line
    std::size_t line = 1;       // of the header

    //! Whether the user gave the names, and the file has no line for them.
    bool is_given() const noexcept { return data_begin == 0; }
};

struct header_rules {
    //! Names given by the user; when there are any, the file has no header line.
    std::vector<std::string> names;
    //! Takes the first line as the header even if all its fields are numbers.
    bool numeric_names = false;
};

//! Reads the header. A column without a name is called columnN by its place; several columns can
//! have one name. Throws user_error for an empty file and for a first line that looks like data.
csv_header read_header(const source_text &source, const csv_dialect &dialect,
                       const header_rules &rules);

} // namespace vask::runner
