// Which road a grouping took, for --explain: seen from outside, by what it asked of the kernel.
#pragma once

#include "kernel/bat.h"

#include "refkernel/instrumentation.h"

#include <string>

namespace vask::runner {

//! Tells the road and why after a call of VASKgroup on a column, which `seen` watched.
std::string road_of_group(const refkernel::instrumentation::watch &seen, const BAT &column);

//! Into how many partitions a grouping operator that `seen` watched cut so many rows, in words.
std::string row_ranges_of(const refkernel::instrumentation::watch &seen, BUN rows);

//! The road of a call of VASKderive on a column of `rows` rows in `old_groups` groups.
std::string road_of_derive(const refkernel::instrumentation::watch &seen, BUN rows, BUN old_groups);

} // namespace vask::runner
