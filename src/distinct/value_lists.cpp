#include "distinct/value_lists.h"

#include "kernel/column.h"
#include "kernel/frame.h"
#include "kernel/oid_lookup.h"
#include "kernel/row_ranges.h"
#include "kernel/slot_table.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <type_traits>

namespace vask {

namespace {

//! Reads b's tail as what its lists hold.
template <class T>
struct list_values {
    const T *rows;

    explicit list_values(const BATcol &column) noexcept : rows(rows_of<const T>(column)) {}
    VASK_ALWAYS_INLINE T operator[](BUN p) const noexcept { return rows[p]; }
};

template <>
struct list_values<const char *> : text_reader {
    using text_reader::text_reader;
};

//! Twice the room, or 2 from nothing. False when there is no memory.
template <class T>
bool make_room(vask_value_list<T> &list) {
    const std::uint64_t room = list.room == 0 ? 2 : 2 * list.room;
    void *block = GDKrealloc(list.values, room * sizeof(T));
    if (block == nullptr)
        return false;
    list.values = static_cast<T *>(block);
    list.room = room;
    return true;
}

//! Finds the rows of the map by head oids that come in ascending order.
class map_cursor {
public:
    explicit map_cursor(const BAT &g) noexcept
        : head_(*g.head, g),
          dense_(is_dense(*g.head) && g.head->seqbase != oid_nil),
          position_(g.info->first),
          first_(g.info->first),
          end_(end_position(g)) {}

    //! Whether the map has a row with this head; position() is then that row's.
    VASK_ALWAYS_INLINE bool move_to(oid h) noexcept {
        if (dense_) {
            position_ = first_ - head_.seqbase + h;
            return h - head_.seqbase < end_ - first_;
        }
        while (position_ < end_ && head_[position_] < h)
            ++position_;
        return position_ < end_ && head_[position_] == h;
    }

    BUN position() const noexcept { return position_; }

private:
    oid_reader head_;
    bool dense_;
    BUN position_;
    BUN first_;
    BUN end_;
};

//! Appends the values of a range of b's rows to the task's own lists.
template <class T, class Lookup>
bool append_rows(const grouped_values &inputs, const Lookup &groups, row_range range,
                 vask_value_list<T> *lists) {
    const BAT &b = *inputs.b;
    const BUN group_count = inputs.groups->info->count;
    const BUN first_group = inputs.groups->info->first;
    const oid_reader heads(*b.head, b);
    const oid_reader gids(*inputs.g->tail, *inputs.g);
    const list_values<T> values(*b.tail);
    map_cursor map(*inputs.g);
    for (BUN p = range.begin; p < range.end; ++p) {
        if (!map.move_to(heads[p]))
            continue;
        // Of a group that is not there the lookup gives a number that is no slot.
        const BUN slot = vask_group_slot(groups, gids[map.position()]) - first_group;
        if (slot >= group_count)
            return false;
        vask_value_list<T> &list = lists[slot];
        if (list.size == list.room && !make_room(list)) [[unlikely]]
            return false;
        list.values[list.size++] = values[p];
    }
    return true;
}

//! A task's rows; what the strategy asked of the heads is asked again, as the lists rely on it.
template <class T>
bool scatter_range(const grouped_values &inputs, const slot_table *table, row_range range,
                   vask_value_list<T> *lists) {
    if (!is_ascending(*inputs.b->head) || !is_ascending(*inputs.g->head))
        return false;
    const oid_lookup lookup(*inputs.groups);
    return table != nullptr ? append_rows(inputs, *table, range, lists)
                            : append_rows(inputs, lookup, range, lists);
}

//! The lists of all partitions: an array of one zeroed block per partition.
template <class T>
class partition_lists {
public:
    partition_lists(std::size_t partitions, BUN groups)
        : blocks_(zeroed_array<vask_value_list<T> *>(partitions)),
          partitions_(partitions),
          groups_(groups) {}
    partition_lists(const partition_lists &) = delete;
    partition_lists &operator=(const partition_lists &) = delete;

    ~partition_lists() {
        if (blocks_ == nullptr)
            return;
        for (std::size_t part = 0; part < partitions_; ++part) {
            if (blocks_[part] == nullptr)
                continue;
            for (BUN j = 0; j < groups_; ++j)
                if (blocks_[part][j].values != nullptr)
                    GDKfree(blocks_[part][j].values);
            GDKfree(blocks_[part]);
        }
        GDKfree(blocks_);
    }

    bool allocated() const noexcept { return blocks_ != nullptr; }

    //! The lists of one partition, all empty; null when there is no memory.
    vask_value_list<T> *allocate(std::size_t part) {
        return blocks_[part] = zeroed_array<vask_value_list<T>>(groups_);
    }

    //! Joins the lists of group j in the order of the partitions.
    bool join(BUN j, vask_value_list<T> &list) const {
        std::uint64_t size = 0;
        for (std::size_t part = 0; part < partitions_; ++part)
            size += blocks_[part][j].size;
        list = {static_cast<T *>(GDKmalloc(size * sizeof(T))), size, size};
        if (list.values == nullptr) {
            list.size = list.room = 0;
            return size == 0;
        }
        T *to = list.values;
        for (std::size_t part = 0; part < partitions_; ++part) {
            const vask_value_list<T> &from = blocks_[part][j];
            if (from.size != 0)
                std::memcpy(static_cast<void *>(to), from.values, from.size * sizeof(T));
            to += from.size;
        }
        return true;
    }

private:
    vask_value_list<T> **blocks_;
    std::size_t partitions_;
    BUN groups_;
};

} // namespace

template <class T>
bool gather_value_lists(const grouped_values &inputs, vask_value_list<T> *lists) {
    const BUN rows = inputs.b->info->count;
    const BUN groups = inputs.groups->info->count;
    if (GDKnr_threads == 0)
        return false;
    // One partition per thread, whatever its size, and none of an empty column.
    const std::uint64_t nparts = vask_range_count(*inputs.b);
    const partition_plan plan(*inputs.b, std::max<std::uint64_t>(nparts, 1));
    partition_lists<T> parts(nparts, groups);
    if (!parts.allocated())
        return false;

    BATaccess(inputs.b, 3, 0, 1);
    const slot_table_owner table(*inputs.groups, rows);
    bte ok = 1;
    {
        task_set tasks;
        for (std::uint64_t part = 0; part < nparts; ++part) {
            vask_value_list<T> *own = parts.allocate(part);
            if (own == nullptr) {
                ok = 0;
                tasks.cancel();
                break;
            }
            tasks.spawn([=, &ok, slots = table.get(), range = plan.partition(part)] {
                // Tasks may clear it at the same time: all of them store the same 0.
                if (!scatter_range(inputs, slots, range, own))
                    std::atomic_ref(ok).store(0, std::memory_order_relaxed);
            });
        }
        // After a cancellation too: the lists are in use until the last task has ended.
        tasks.wait();
    }
    for (BUN j = 0; ok != 0 && j < groups; ++j)
        if (!parts.join(j, lists[j]))
            ok = 0;
    BATaccess(inputs.b, 3, 0, -1);
    return ok != 0;
}

template bool gather_value_lists(const grouped_values &, vask_value_list<std::uint8_t> *);
template bool gather_value_lists(const grouped_values &, vask_value_list<std::uint16_t> *);
template bool gather_value_lists(const grouped_values &, vask_value_list<std::uint32_t> *);
template bool gather_value_lists(const grouped_values &, vask_value_list<std::uint64_t> *);
template bool gather_value_lists(const grouped_values &, vask_value_list<const char *> *);

} // namespace vask
