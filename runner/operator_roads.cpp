#include "operator_roads.h"

#include "kernel/frame.h"

#include <algorithm>

#include <fmt/format.h>

namespace vask::runner {

using refkernel::instrumentation::call_counter;
using refkernel::instrumentation::operation;

std::string counted(std::uint64_t number, std::string_view what) {
    return fmt::format("{} {}{}", number, what, number == 1 ? "" : "s");
}

std::string partitions_of(BUN rows) {
    return counted(partition_count(rows), "partition");
}

std::string ranges_of(BUN rows) {
    return counted(std::min(rows, static_cast<BUN>(GDKnr_threads)), "range");
}

std::string road_of_count_distinct(const call_counter &seen, BUN rows, BUN groups) {
    constexpr BUN most_groups = 1'000'000;
    if (seen.calls(operation::grp_derive) == 0)
        return fmt::format("{} (parallel road: many values in a sample)", ranges_of(rows));
    return groups > most_groups
               ? fmt::format("1 range (serial road: more than {} groups)", most_groups)
               : "1 range (serial road: few values in a sample)";
}

std::string road_of_group(const call_counter &seen, const BAT &column) {
    const BUN rows = column.info->count;
    const bool sampled = seen.calls(operation::bat_sample) > 0;
    const std::string sample =
        fmt::format("a sample of {} rows has {{}} {} different values",
                    GDKgroup_algo_select_sample_size, GDKgroup_algo_select_uniqueness_thresh);
    // The parallel roads make their results themselves; only sorting copies the column first.
    if (seen.calls(operation::bat_new) == 0) {
        if (rows <= GDKgroup_algo_select_vask_size)
            return fmt::format("serial road: {} rows are no more than {}", rows,
                               GDKgroup_algo_select_vask_size);
        return sampled                 ? "serial road: the rows are not numbered without gaps"
               : column.tail->key != 0 ? "serial road: the values are marked as unique"
                                       : "serial road: one thread";
    }
    if (seen.calls(operation::bat_copy) > 0)
        return "sort road: " + fmt::format(fmt::runtime(sample), "more than");
    if (!sampled)
        return fmt::format("hash road: text, more than {} rows", GDKgroup_algo_select_vask_size);
    return "hash road: " + fmt::format(fmt::runtime(sample), "no more than");
}

std::string row_ranges_of(const call_counter &seen, BUN rows) {
    // A parallel road makes the results itself; a serial one leaves them to the kernel.
    const bool parallel = seen.calls(operation::bat_new) > 0;
    return counted(parallel ? std::min(rows, static_cast<BUN>(GDKnr_threads)) : 1, "partition");
}

std::string road_of_derive(const call_counter &seen, BUN rows, BUN old_groups) {
    const std::string sizes = fmt::format("{} groups before on {} rows", old_groups, rows);
    if (seen.calls(operation::grp_derive) > 0)
        return fmt::format("serial road: {}, {}", sizes,
                           counted(static_cast<std::uint64_t>(GDKnr_threads), "thread"));
    // Buckets alone append to the extents from several tasks, through the kernel.
    if (seen.calls(operation::bun_fastins) > 0)
        return fmt::format("buckets road: {} and many values in a sample", sizes);
    return fmt::format("pairs road: {} and few values in a sample", sizes);
}

} // namespace vask::runner
