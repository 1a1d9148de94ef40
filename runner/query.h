// A request with its names resolved: which columns it needs, and what is computed of them.
#pragma once

#include "aggregates.h"
#include "csv_header.h"
#include "options.h"
#include "table_loader.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vask::runner {

struct bound_aggregate {
    std::string title; //!< of its result: as it was written, or what stands behind "as"
    std::string name;  //!< of the aggregate, as it was written
    const table::function_rule *rule;
    std::vector<std::size_t> columns; //!< its arguments, by their place in the file
    std::optional<double> parameter;  //!< there when the rule has one, and within its bounds
    //! Of the columns that a pattern names: left out where the aggregate does not take the type.
    bool by_pattern = false;
};

struct query {
    std::vector<std::size_t> group_by; //!< columns by their place in the file
    bool sorted = false;               //!< groups by their columns, not by first row
    bool strict = false;               //!< order statistics refuse columns with missing values
    bool drop_missing = false;         //!< else they leave these out; with it, nobody is told
    std::vector<bound_aggregate> aggregates;

    //! Which of the file's columns are needed.
    std::vector<bool> needed_columns(std::size_t columns) const;
};

//! Adds a column that is not there yet.
void add_once(std::vector<std::size_t> &columns, std::size_t column);

//! The place of a column in the file. Throws user_error where there is none of that name, with the
//! names there are, and where there are several, with their places.
std::size_t find_column(const csv_header &header, const source_text &source,
                        const std::string &name, std::string_view asked_by);

//! Resolves the names of a request. Throws user_error for an unknown column or aggregate.
query bind_query(const options &request, const csv_header &header, const source_text &source);

} // namespace vask::runner
