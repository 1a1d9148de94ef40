// Whether what a request asks of its columns fits what was loaded.
#pragma once

#include "query.h"

#include <string_view>

namespace vask::runner {

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
