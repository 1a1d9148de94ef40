// What a query gives, as the output formats see it.
#pragma once

#include "cell_values.h"

#include "vask/embed.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vask::runner {

//! A value; monostate is a missing one.
using result_cell =
    std::variant<std::monostate, std::int64_t, float, double, truth, timestamp, std::string_view>;

//! In which way times are to be printed.
struct time_spelling {
    time_style style;
    date_format dates;
};

struct result_column {
    std::string title; //!< of an aggregate, as it was written
    bool is_text = false;
    //! The cell of a row. Text lives as long as the table's columns.
    std::function<result_cell(std::size_t row)> cell;
    //! Of keys that are times: as they were read. Else as dates where all are midnights.
    std::optional<time_spelling> spelling{};
    bool is_mixed = false; //!< its cells can be of several kinds; else they are of one, or missing
};

struct result_table {
    std::vector<result_column> columns;
    std::size_t rows = 0;
    std::vector<refkernel::bat> held; //!< what cells are read from
};

} // namespace vask::runner
