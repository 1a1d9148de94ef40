// One call of the interface: settings of the kernel for its time, notes, progress.
#pragma once

#include "table/plan.h"

#include <set>
#include <string>

namespace vask::table {

//! The operators that are linked to this library.
const operator_set &linked_operators();

/*
 * The number of partitions is one setting for the whole kernel. Calls that want the same number
 * overlap; others wait until those are done. A call from a callback of another one with another
 * number is refused, as it would wait for itself.
 */
class partition_setting {
public:
    explicit partition_setting(int partitions);
    ~partition_setting();
    partition_setting(const partition_setting &) = delete;
    partition_setting &operator=(const partition_setting &) = delete;
};

//! Told once each.
teller notes_of(const vask_query &asked);

//! Calls the query's function, if it has one; throws table_error where that cancels.
std::function<void(double)> progress_of(const vask_query &asked);

} // namespace vask::table
