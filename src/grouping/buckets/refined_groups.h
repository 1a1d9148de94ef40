// Splitting old groups by value, each by itself.
#pragma once

#include "grouping/buckets/distributed_rows.h"
#include "grouping/buckets/spin_lock.h"
#include "kernel/column.h"
#include "kernel/frame.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <limits>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <tbb/enumerable_thread_specific.h>

namespace vask {

// Rows that make a task: old groups can be tiny.
inline constexpr BUN batch_rows = 8192;

//! A new group.
struct refined_group {
    oid id;
    BUN count;
    BUN leader; // its first row, counted among those of the old group
};

//! Splits old groups, one at a time, with one table for all: open addressing with linear probing,
//! at most half full, and cleared for a group no further than the group can fill it. Memory comes
//! from the process heap; bad_alloc when there is none.
template <class Keys>
class group_splitter {
public:
    using key_type = typename Keys::key_type;

    //! The groups that splitting gave since they were last cleared.
    std::vector<refined_group> &groups() noexcept { return groups_; }

    //! Splits an old group, which has rows. A row is replaced by the id of its new group, and the
    //! key of the group's first row by the group's count. New groups come in the order of first
    //! rows.
    void split(const Keys &keys, const oid_reader &heads, const vask_group_rows<key_type> &rows) {
        const std::size_t before = groups_.size();
        const auto n = static_cast<std::size_t>(rows.end - rows.begin);
        if (n == 1) {
            groups_.push_back({heads[rows.begin->position], 1, 0});
        } else {
            resize(std::bit_ceil(std::min(2 * n, first_slots)));
            std::size_t done = 0;
            while (done < n) {
                done = slots_used_ < cached_slots ? insert<false>(keys, heads, rows, done, before)
                                                  : insert<true>(keys, heads, rows, done, before);
                if (done < n)
                    grow(keys, std::bit_ceil(2 * n));
            }
        }
        for (std::size_t i = before; i < groups_.size(); ++i) {
            distributed_row<key_type> &leader = rows.begin[groups_[i].leader];
            leader.position = groups_[i].id;
            leader.set_key(groups_[i].count);
        }
    }

private:
    static constexpr BUN no_group = std::numeric_limits<BUN>::max();
    // 32 KB, or 64 of wide keys: what is to be cleared for a group of few values.
    static constexpr std::size_t first_slots = 4096;
    static constexpr std::size_t growth = 8;
    // From this many on the slots leave the second-level cache and are fetched ahead of their use.
    static constexpr std::size_t cached_slots = std::size_t{1} << 16;
    static constexpr std::size_t fetched_ahead = 16;

    struct slot {
        key_type key;
        BUN group; // among all of groups_
    };

    std::size_t place_of(const Keys &keys, key_type key) const noexcept {
        // Multiplicative hashing by 2^64 / golden ratio.
        return keys.hash(key) * 0x9e3779b97f4a7c15U >> shift_;
    }

    //! Adds rows from `done` on; ends behind the last, or when the table is full. Gives the number
    //! of rows that are in.
    template <bool Prefetch>
    std::size_t insert(const Keys &keys, const oid_reader &heads,
                       const vask_group_rows<key_type> &rows, std::size_t done,
                       std::size_t before) {
        slot *slots = slots_.slots.get();
        const std::size_t mask = slots_used_ - 1;
        const std::size_t most = before + slots_used_ / 2;
        const auto n = static_cast<std::size_t>(rows.end - rows.begin);
        for (std::size_t i = done; i < n; ++i) {
            distributed_row<key_type> &row = rows.begin[i];
            if constexpr (Prefetch)
                if (i + fetched_ahead < n)
                    __builtin_prefetch(slots + place_of(keys, (&row)[fetched_ahead].key()));
            const key_type key = row.key();
            std::size_t place = place_of(keys, key);
            while (slots[place].group != no_group && !keys.same(slots[place].key, key))
                place = (place + 1) & mask;
            if (slots[place].group == no_group) {
                if (groups_.size() == most)
                    return i;
                slots[place] = {key, static_cast<BUN>(groups_.size())};
                groups_.push_back({heads[row.position], 0, static_cast<BUN>(i)});
            }
            refined_group &group = groups_[slots[place].group];
            ++group.count;
            row.position = group.id;
        }
        return n;
    }

    struct slot_array {
        std::unique_ptr<slot[]> slots;
        std::size_t capacity = 0;

        void make_room(std::size_t n) {
            if (n <= capacity)
                return;
            slots.reset();
            capacity = 0;
            slots = std::make_unique_for_overwrite<slot[]>(n);
            capacity = n;
        }
    };

    //! An empty table of so many slots, a power of two.
    void resize(std::size_t n) {
        slots_.make_room(n);
        slots_used_ = n;
        shift_ = 64 - static_cast<int>(std::bit_width(n - 1));
        std::for_each_n(slots_.slots.get(), n, [](slot &s) { s.group = no_group; });
    }

    void grow(const Keys &keys, std::size_t most) {
        const std::size_t n = std::min(growth * slots_used_, most);
        const std::size_t old_used = slots_used_;
        std::swap(slots_, old_slots_);
        resize(n);
        const slot *old = old_slots_.slots.get();
        slot *slots = slots_.slots.get();
        for (std::size_t i = 0; i < old_used; ++i) {
            if (old[i].group == no_group)
                continue;
            std::size_t place = place_of(keys, old[i].key);
            while (slots[place].group != no_group)
                place = (place + 1) & (n - 1);
            slots[place] = old[i];
        }
    }

    std::vector<refined_group> groups_;
    slot_array slots_;
    slot_array old_slots_; // of a table that grows; kept, as both are, for the groups to come
    std::size_t slots_used_ = 0;
    int shift_ = 0;
};

//! Splits every old group, in tasks of batches of groups, and appends the new ones to `ext`, those
//! of an old group side by side. `begun` gets how many groups begin in each range of the
//! distribution. False when an append fails.
template <class Keys>
bool refine_groups(const row_distribution &distribution, const Keys &keys,
                   distributed_row<typename Keys::key_type> *rows, const BAT &b, BAT &ext,
                   gdk_vector<BUN> &begun) {
    struct worker {
        group_splitter<Keys> splitter;
        gdk_vector<BUN> begun;
    };
    const oid_reader heads(*b.head, b);
    const bool ordered = ids_follow_rows(b);
    const std::size_t ranges = distribution.ranges();
    tbb::enumerable_thread_specific<worker> workers([ranges] {
        return worker{{}, gdk_vector<BUN>(ranges)};
    });
    bte failed = 0;
    spin_then_sleep_lock ext_lock;
    task_set tasks;
    for (BUN end = 0; end < distribution.groups();) {
        const BUN begin = end;
        do
            ++end;
        while (end < distribution.groups() &&
               distribution.end_of(end - 1) - distribution.begin_of(begin) < batch_rows);
        tasks.spawn([=, &distribution, &keys, &workers, &ext, &failed, &ext_lock] {
            worker &mine = workers.local();
            std::vector<refined_group> &groups = mine.splitter.groups();
            groups.clear();
            for (BUN group = begin; group < end; ++group) {
                const vask_group_rows<typename Keys::key_type> group_rows{
                    rows + distribution.begin_of(group), rows + distribution.end_of(group)};
                if (group_rows.begin == group_rows.end)
                    continue;
                const std::size_t before = groups.size();
                mine.splitter.split(keys, heads, group_rows);
                if (ordered)
                    distribution.count_begun(groups.data() + before, groups.data() + groups.size(),
                                             mine.begun);
            }
            // The kernel's append can move the memory of ext, so nothing of it may run beside
            // another.
            const std::lock_guard guard(ext_lock);
            if (!append_refined(ext, groups))
                std::atomic_ref(failed).store(1, std::memory_order_relaxed);
        });
    }
    tasks.wait();
    for (const worker &each : workers)
        for (std::size_t i = 0; i < ranges; ++i)
            begun[i] += each.begun[i];
    return failed == 0;
}

} // namespace vask
