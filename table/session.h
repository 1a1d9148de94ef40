// One call of the interface: settings of the kernel for its time, notes, progress, its end on
// request.
#pragma once

#include "table/plan.h"

#include <set>
#include <string>

namespace vask::table {

//! The operators that are linked to this library.
const operator_set &linked_operators();

/*
 * The number of partitions is one setting for the whole kernel. Calls that want the same number
 * overlap; others wait until those are done, in the order in which they came. A call from a
 * callback of another one waits for nobody; with another number it is refused, as it would wait for
 * itself.
 */
class partition_setting {
public:
    //! `meanwhile` is called now and then while the call waits, and may throw.
    partition_setting(int partitions, const std::function<void()> &meanwhile);
    ~partition_setting();
    partition_setting(const partition_setting &) = delete;
    partition_setting &operator=(const partition_setting &) = delete;
};

/*
 * Runs `work` for a query, under its number of partitions. Notes are told once each. Of a query
 * with a progress function and so many rows that a step may last, the work is done on another
 * thread and this one asks the function now and then; where it cancels, the work ends within its
 * step. Throws what the work throws, and table_error where it was cancelled.
 */
void run_call(const vask_query &asked, std::int64_t rows,
              const std::function<void(const query_context &)> &work);

} // namespace vask::table
