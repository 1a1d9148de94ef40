// Printing a result.
#pragma once

#include "options.h"
#include "result_table.h"

#include <cstdio>
#include <string>

namespace vask::runner {

/*
 * Prints in one of the formats, numbers in the shortest form that reads back the same or, with
 * `digits`, that of the number rounded to so many significant digits:
 *   table     aligned columns, numbers with at most 15 digits; a missing value is shown as NA, and
 *             a text that could be taken for one, as an empty one could, stands in double quotes
 *   markdown  the same as a table of Markdown
 *   csv       titles, then the rows; a missing value is an empty field, an empty text is ""
 *   tsv       the same with tabs; tabs, line ends and backslashes in texts are \t, \n, \r and
 *             \\, and a missing value is an empty field
 *   json      an array of objects; a missing value is null, and since JSON has no such numbers NaN
 *             and the infinities are the texts "NaN", "Infinity" and "-Infinity"
 *   jsonl     the objects, one a line
 * Times of which all in a column are midnights are printed as dates.
 * What would be a control character to a terminal is shown as a question mark in tables, and as a
 * blank where it is white space. Throws std::runtime_error when writing fails.
 */
void print(const result_table &result, const output_style &style, std::FILE *file);

//! Appends the value as text, nothing for a missing one.
void append_text(std::string &out, const result_cell &cell);

} // namespace vask::runner
