// Bars of text that show numbers.
#pragma once

#include "result_table.h"

#include <cstddef>
#include <span>
#include <string>

namespace vask::runner {

//! Adds a column of bars, as long as a column's values are large; those of negative values go to
//! the left of the others. Missing values and NaN have none. Throws user_error for a title that
//! there is not, and for a column that has no numbers.
void add_bars(result_table &result, const std::string &title);

//! A character for each of the counts, as high as it is large against the greatest one; a blank
//! for nothing.
std::string skyline(std::span<const std::uint64_t> counts);

} // namespace vask::runner
