// Printing a result.
#pragma once

#include "options.h"
#include "result_table.h"

#include <cstdio>
#include <string>

namespace vask::runner {

/*
 * Prints in one of the formats, numbers in the shortest form that reads back the same:
 *   table  aligned columns; a missing value is shown as NA
 *   csv    titles, then the rows; a missing value is an empty field
 *   json   an array of objects; a missing value is null, and since JSON has no such numbers NaN
 *          and the infinities are the texts "NaN", "Infinity" and "-Infinity"
 * Throws user_error when writing fails.
 */
void print(const result_table &result, output_format format, std::FILE *file);

//! Appends the value as text, nothing for a missing one.
void append_text(std::string &out, const result_cell &cell);

} // namespace vask::runner
