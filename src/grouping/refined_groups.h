// Splitting old groups by value, each by itself.
#pragma once

#include "grouping/distributed_rows.h"
#include "grouping/spin_lock.h"
#include "grouping/value_column.h"
#include "kernel/column.h"
#include "kernel/frame.h"
#include "kernel/open_addressing.h"
#include "kernel/table_keys.h"

#include <array>
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
class value_table {
public:
    using table_type = open_addressing_table<table_keys<T>, refined_group>;
    using stored_type = typename value_column<T>::stored_type;

    //! As new, but that the memory is kept.
    void clear() noexcept {
        groups_.clear();
        ++generation_;
    }

    VASK_ALWAYS_INLINE typename table_type::insertion insert(const value_column<T> &values,
                                                             stored_type stored) {
        if constexpr (std::same_as<T, str>)
            return insert_text(values, stored);
        else
            return groups_.insert(key_bits(values.value(stored)));
    }

    table_type &groups() noexcept { return groups_; }

private:
    // A text at a place that was just seen need not be hashed and compared once more.
    struct seen_text {
        stored_type place;
        std::uint32_t bucket;
        std::uint64_t generation;
    };
    static constexpr std::size_t seen_room = 256;

    typename table_type::insertion insert_text(const value_column<T> &values, stored_type stored) {
        seen_text &seen = seen_[stored % seen_room];
        if (seen.place == stored && seen.generation == generation_ && !groups_.full())
            return {seen.bucket, false};
        const std::uint32_t buckets = groups_.bucket_count();
        const auto result = groups_.insert(values.value(stored));
        if (groups_.bucket_count() != buckets)
            ++generation_; // all keys have moved
        seen = {stored, result.bucket, generation_};
        return result;
    }

    table_type groups_;
    std::uint64_t generation_ = 1;
    std::array<seen_text, std::same_as<T, str> ? seen_room : 0> seen_{};
};

//! Splits one old group by value. Its rows are replaced by the ids of their new groups, which are
//! appended to `ext` in the order of the table's buckets. False when that fails. The table is used
//! as one that is new, and its memory left to the next group.
template <class T>
bool vask_refine_group(value_table<T> &table, const vask_group_rows<T> &rows,
                       const value_column<T> &values, const oid_reader &heads, BAT &ext,
                       spin_then_sleep_lock &ext_lock) {
    table.clear();
    for (distributed_row<T> *row = rows.begin; row != rows.end; ++row) {
        const auto [bucket, is_new] = table.insert(values, row->value);
        refined_group &group = table.groups().value(bucket);
        if (is_new)
            group = {heads[row->position], 1};
        else
            ++group.count;
        row->position = group.first_oid;
    }

    // The kernel's append can move the memory of ext, so nothing of it may run beside another.
    const std::lock_guard guard(ext_lock);
    const auto &groups = table.groups();
    for (std::uint32_t bucket = 0; bucket < groups.bucket_count(); ++bucket)
        if (groups.in_use(bucket)) {
            const refined_group &group = groups.value(bucket);
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
