// Splitting old groups by value, each by itself.
#pragma once

#include "grouping/distributed_rows.h"
#include "grouping/spin_lock.h"
#include "grouping/table_keys.h"
#include "grouping/value_column.h"
#include "kernel/column.h"
#include "kernel/frame.h"
#include "kernel/open_addressing.h"

#include <atomic>
#include <concepts>
#include <mutex>

namespace vask {

// Rows that make a task: old groups can be tiny.
inline constexpr BUN batch_rows = 8192;

struct refined_group {
    oid first_oid;
    lng count;
};

//! The new groups of one old group, by value.
template <class T>
using value_table = open_addressing_table<table_keys<T>, refined_group>;

template <class T>
VASK_ALWAYS_INLINE auto table_key(T value) noexcept {
    if constexpr (std::same_as<T, str>)
        return value;
    else
        return key_bits(value);
}

//! Splits one old group by value. Its rows are replaced by the ids of their new groups, which are
//! appended to `ext` in the order of the table's buckets. False when that fails. The table is used
//! as one that is new, and its memory left to the next group.
template <class T>
bool vask_refine_group(value_table<T> &table, const vask_group_rows<T> &rows,
                       const value_column<T> &values, const oid_reader &heads, BAT &ext,
                       spin_then_sleep_lock &ext_lock) {
    table.clear();
    for (distributed_row<T> *row = rows.begin; row != rows.end; ++row) {
        const auto [bucket, is_new] = table.insert(table_key(values.value(row->value)));
        refined_group &group = table.value(bucket);
        if (is_new)
            group = {heads[row->position], 1};
        else
            ++group.count;
        row->position = group.first_oid;
    }

    // The kernel's append can move the memory of ext, so nothing of it may run beside another.
    const std::lock_guard guard(ext_lock);
    for (std::uint32_t bucket = 0; bucket < table.bucket_count(); ++bucket)
        if (table.in_use(bucket)) {
            const refined_group &group = table.value(bucket);
            if (BUNfastins(&ext, &group.first_oid, &group.count) == nullptr)
                return false;
        }
    return true;
}

//! Splits every old group, in tasks of batches of groups.
template <class T>
bool refine_groups(const row_distribution &distribution, distributed_row<T> *rows, const BAT &b,
                   BAT &ext) {
    const value_column<T> values(*b.tail);
    const oid_reader heads(*b.head, b);
    bte failed = 0;
    spin_then_sleep_lock ext_lock;
    task_set tasks;
    for (BUN end = 0; end < distribution.groups();) {
        const BUN begin = end;
        do
            ++end;
        while (end < distribution.groups() &&
               distribution.end_of(end - 1) - distribution.begin_of(begin) < batch_rows);
        tasks.spawn([=, &distribution, &ext, &failed, &ext_lock] {
            value_table<T> table;
            for (BUN group = begin; group < end; ++group) {
                const vask_group_rows<T> group_rows{rows + distribution.begin_of(group),
                                                    rows + distribution.end_of(group)};
                if (!vask_refine_group<T>(table, group_rows, values, heads, ext, ext_lock)) {
                    std::atomic_ref(failed).store(1, std::memory_order_relaxed);
                    return;
                }
            }
        });
    }
    tasks.wait();
    return failed == 0;
}

} // namespace vask
