// --contained-in: which values of a column occur in a column of another file.
#pragma once

#include "explain.h"
#include "operator_library.h"
#include "table_loader.h"

#include <string>

namespace vask::runner {

//! A column of whole numbers as the request names it.
struct named_column {
    const table_column &column;
    std::string name; //!< for messages: its file and its name
};

/*
 * For each row of `left` 1 if its value occurs in `right`, else 0, as a column of type bte: one
 * that can be summed and grouped by. A missing value occurs nowhere. Both columns are of whole
 * numbers; the operator compares 32 bits, so values beyond that may stand in one of them alone.
 * Throws user_error for other types. `looked_up` is the left column as --types names it.
 */
table_column contained_in(const named_column &left, const named_column &right,
                          const std::string &looked_up, const operator_library &operators,
                          const explain_log &explain);

} // namespace vask::runner
