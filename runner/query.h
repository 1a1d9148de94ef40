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

//! The place of a column in the file. Throws user_error where there is none of that name, with the
//! names there are, and where there are several, with their places.
std::size_t find_column(const csv_header &header, const source_text &source,
                        const std::string &name, std::string_view asked_by);

//! Resolves the names of a request. Throws user_error for an unknown column or aggregate.
query bind_query(const options &request, const csv_header &header, const source_text &source);

//! Loaded columns, and what messages about them need.
struct loaded_columns {
    const loaded_table &data;
    const load_request &request;
    const csv_header &header;
    const source_text &source;
};

//! Checks the type of a column for what is called `name` and was written as `title`. Throws
//! user_error, with the cell that made a column text when its type was inferred.
void require_type(type_set accepted, std::string_view name, std::string_view title,
                  std::size_t column, const loaded_columns &loaded);

//! Leaves out the aggregates of patterns' columns whose types they do not take. Throws user_error
//! where nothing is left of the request.
void leave_out_unfit(query &asked, const loaded_columns &loaded);

//! Checks that every aggregate can work on its columns: on their types, and on their missing
//! values, of which notes tell. Throws user_error.
void check_columns(const query &asked, const loaded_columns &loaded);

} // namespace vask::runner
