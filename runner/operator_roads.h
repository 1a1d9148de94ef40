// How operators went about their rows, for --explain. Which road one took is seen from outside, by
// what it asked of the kernel.
#pragma once

#include "vask/kernel/bat.h"

#include "vask/refkernel/instrumentation.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace vask::runner {

//! So many of something, in words.
std::string counted(std::uint64_t number, std::string_view what);

//! How many partitions the aggregates cut so many rows into.
std::string partitions_of(BUN rows);

//! How many ranges an operator cuts so many rows into that has a range for each thread.
std::string ranges_of(BUN rows);

//! The road of a call of AggrX3_countDistinct whose calls of the kernel `seen` counted, on rows in
//! so many groups.
std::string road_of_count_distinct(const refkernel::instrumentation::call_counter &seen, BUN rows,
                                   BUN groups);

//! Tells the road and why after a call of VASKgroup on a column, during which `seen` counted.
std::string road_of_group(const refkernel::instrumentation::call_counter &seen, const BAT &column);

//! Into how many partitions a grouping operator, during which `seen` counted, cut so many rows, in
//! words.
std::string row_ranges_of(const refkernel::instrumentation::call_counter &seen, BUN rows);

//! The road of a call of VASKderive on a column of `rows` rows in `old_groups` groups.
std::string road_of_derive(const refkernel::instrumentation::call_counter &seen, BUN rows,
                           BUN old_groups);

} // namespace vask::runner
