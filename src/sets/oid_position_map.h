// From a row index to the rows of a column that hold it.
#pragma once

#include "rows/open_addressing.h"
#include "rows/table_keys.h"
#include "vask/kernel/bat.h"

namespace vask {

//! One row; the rows of one value form a list, the last row first.
struct position_node {
    position_node *next;
    std::uint64_t position;
};

//! What the map holds of a value: its rows, and whether a probe has found it already.
struct position_bucket {
    position_node *rows;
    std::uint8_t seen;
};

//! Hashed by the value itself: row indexes are dense more often than not, and then no two meet.
using oid_position_map = open_addressing_table<bit_pattern_keys<std::uint32_t>, position_bucket>;

} // namespace vask
