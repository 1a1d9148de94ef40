#include "refkernel/algebra/value_groups.h"

#include "refkernel/algebra/column_keys.h"
#include "refkernel/columns.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace refkernel::algebra {
namespace {

// 32 bytes of table per row is what the hash table would take too, and of a table that is
// sparsely used the system hands out only the pages that are touched.
constexpr std::uint64_t entries_per_row = 4;
constexpr std::uint64_t entries_of_small_inputs = 1024;
// 32 MiB of entries. A larger table, used throughout, is slower than grouping in partitions: 27
// against 22 ns a row for 1e7 different values.
constexpr std::uint64_t most_entries = std::uint64_t{1} << 22;

void group_as_one(const grouping_task &task) {
    const oid id = task.ids[0];
    std::fill_n(task.map, task.rows, id);
    if (const extents_rows out = task.make_extents(1); out.ids != nullptr) {
        out.ids[0] = id;
        out.counts[0] = task.rows;
    }
}

// Equal values of an ascending column lie next to each other. Not so of floating-point numbers,
// which are equal by their bits here: 0.0 and -0.0 can take turns.
bool has_runs(const BATcol &column) {
    const int storage = BATatoms[column.type].atom_storage;
    return (column.sorted & ascending_bit) != 0 && storage != TYPE_flt && storage != TYPE_dbl;
}

} // namespace

std::uint64_t affordable_entries(BUN rows) {
    return entries_per_row * rows + entries_of_small_inputs;
}

std::uint64_t index_bound_worth(BUN rows) {
    return std::min(most_entries, affordable_entries(rows));
}

void group_unique_rows(const grouping_task &task) {
    std::iota(task.map, task.map + task.rows, oid{0});
    task.ids.name(task.map, task.rows);
    if (const extents_rows out = task.make_extents(task.rows); out.ids != nullptr) {
        std::copy_n(task.map, task.rows, out.ids);
        std::fill_n(out.counts, task.rows, wrd{1});
    }
}

bool group_values(const BATcol &column, const BATinfo &info, row_ids ids, oid *map,
                  const extents_maker &make_extents) {
    grouping_task task{info.count, ids, map, make_extents, {}};
    if (info.count == 0) {
        make_extents(0);
        return true;
    }
    if (is_void(column) && column.seqbase == oid_nil) {
        group_as_one(task);
        return true;
    }
    if (is_void(column) || column.key != 0) {
        group_unique_rows(task);
        return true;
    }
    if (has_runs(column)) {
        const column_keys keys = keys_of(column, info, 0);
        group_by_runs(task, keys.keys, keys.same_as_previous);
        return true;
    }
    column_keys keys = keys_of(column, info, index_bound_worth(info.count));
    task.resolve = std::move(keys.resolve);
    if (keys.has_range)
        group_by_index(task, static_cast<std::uint32_t>(keys.range.bound()), keys.indices);
    else
        group_by_hash(task, keys.keys);
    return false;
}

} // namespace refkernel::algebra
