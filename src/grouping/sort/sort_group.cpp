#include "grouping/sort/sort_group.h"

#include "grouping/bunfastins.h"
#include "grouping/extents_room.h"
#include "grouping/map_heads.h"
#include "grouping/sort/sort_bat.h"
#include "grouping/sort/sorted_runs.h"
#include "kernel/column.h"
#include "kernel/element_types.h"
#include "kernel/shared_mark.h"
#include "rows/column_keys.h"
#include "rows/group_by_buckets.h"

#include <cstddef>
#include <cstring>
#include <utility>

namespace vask {

namespace {

//! The extents of the tasks: the caller's for the first one, for the others BATs that the tasks
//! make.
class task_extents {
public:
    task_extents(BAT *ext, std::size_t tasks) : slots_(tasks) { slots_[0].ext = ext; }

    BAT *&operator[](std::size_t i) noexcept { return slots_[i].ext; }
    BAT &whole() noexcept { return *slots_[0].ext; }
    std::size_t size() const noexcept { return slots_.size(); }

    //! The rows behind those of the caller's extents.
    BUN rows_to_join() const noexcept {
        BUN rows = 0;
        for (std::size_t i = 1; i < slots_.size(); ++i)
            rows += slots_[i].ext == nullptr ? 0 : slots_[i].ext->info->count;
        return rows;
    }

    //! Appends the other tasks' rows to the caller's extents and gives their BATs back. A slot is
    //! empty when a long run left fewer ranges than threads. Without `copying` the rows are
    //! counted, and what they hold is still to be written. False when the kernel has no room.
    bool join(bool copying) {
        BAT &ext = whole();
        if (BATextend(&ext, ext.info->count + rows_to_join()) == nullptr)
            return false;
        for (std::size_t i = 1; i < slots_.size(); ++i) {
            if (slots_[i].ext == nullptr)
                continue;
            const BAT &part = *slots_[i].ext;
            const BUN n = part.info->count;
            if (copying) {
                append_rows<oid>(*ext.head, end_position(ext), *part.head, part.info->first, n);
                append_rows<wrd>(*ext.tail, end_position(ext), *part.tail, part.info->first, n);
            }
            BATsetcount(&ext, ext.info->count + n);
            reclaim(i);
        }
        return true;
    }

    //! Gives back every BAT that a task made.
    void reclaim() {
        for (std::size_t i = 1; i < slots_.size(); ++i)
            reclaim(i);
    }

private:
    template <class T>
    static void append_rows(const BATcol &to, BUN end, const BATcol &from, BUN begin, BUN n) {
        if (n != 0)
            std::memcpy(rows_of<T>(to) + end, rows_of<const T>(from) + begin, n * sizeof(T));
    }

    void reclaim(std::size_t i) {
        if (slots_[i].ext != nullptr)
            BBPreclaim(std::exchange(slots_[i].ext, nullptr));
    }

    struct slot {
        BAT *ext;
    };
    gdk_vector<slot> slots_;
};

template <class T>
bool has_nan(const BAT &b, const gdk_vector<vask_row_range> &ranges) {
    shared_mark found;
    if constexpr (std::floating_point<T>)
        run_ranges(ranges, [values = rows_of<const T>(*b.tail), &found](std::size_t, auto range) {
            const bool any = with_best_instruction_set(
                [ from = values + range.begin, n = range.size() ]() __attribute__((always_inline)) {
                    bool nan = false;
                    for (std::size_t i = 0; i < n; ++i)
                        nan |= from[i] != from[i];
                    return nan;
                });
            if (any)
                found.set();
        });
    return found.is_set();
}

//! Numbers as comparisons see them: -0.0 is 0.0. There is no NaN.
template <class T>
key_loader<value_bits<T>> load_numbers(const T *values) {
    return [=](BUN row, BUN n, std::uint32_t *, value_bits<T> *keys, bool) {
        for (std::size_t i = 0; i < n; ++i) {
            if constexpr (std::floating_point<T>)
                keys[i] = key_bits((values + row)[i] + T(0));
            else
                keys[i] = key_bits((values + row)[i]);
        }
        return true;
    };
}

//! Brings the rows of equal values together by buckets. What each task finds is counted in its
//! extents; the rows of all are written once they are joined, in ascending order of id.
template <class T>
bool group_by_hash(task_extents &exts, BAT &grp, const BAT &b,
                   const gdk_vector<vask_row_range> &ranges) {
    // A dense head that runs across the nil has a row without a place.
    if (oid_nil - b.head->seqbase < b.info->count)
        return false;
    const grouping_rows rows{{ranges, run_as_tasks}, oid_reader(*b.head, b), map_cells(grp, b)};
    group_sink sink;
    sink.begin = [&exts](std::size_t task, BUN n) {
        if (exts[task] == nullptr)
            exts[task] = BATnew(TYPE_oid, TYPE_wrd, n);
        return exts[task] != nullptr;
    };
    sink.take = [&exts](std::size_t task, const new_group *groups, std::size_t n) {
        return append_groups(*exts[task], groups, n);
    };
    sink.make_room = [&exts](BUN, extents_rows &to) {
        BAT &ext = exts.whole();
        const BUN first = ext.info->first;
        if (!exts.join(false))
            return false;
        to = {rows_of<oid>(*ext.head) + first, rows_of<wrd>(*ext.tail) + first};
        return true;
    };
    if (group_by_buckets(rows, bit_keys<value_bits<T>>(), load_numbers(rows_of<const T>(*b.tail)),
                         sink) != grouping_outcome::done)
        return false;
    copy_heads(b, grp, ranges);
    return true;
}

//! Groups the runs of a copy that is in order of value.
template <class T>
bool group_by_runs(task_extents &exts, BAT &grp, BAT &copy) {
    vask_sort_bat<T, BUNviewTailComparator>(&copy);
    shared_mark failed;
    const auto ranges = vask_split_at_runs<T>(copy, static_cast<std::uint32_t>(exts.size()));
    run_ranges(ranges, [&](std::size_t i, vask_row_range range) {
        if (!vask_group_runs<T>(copy, range, exts[i], grp))
            failed.set();
    });
    return !failed.is_set() && exts.join(true);
}

//! Groups the copy's rows. False on a failure, after which `exts` can hold BATs.
template <class T>
bool group_copy(task_extents &exts, BAT &grp, BAT &copy, const BAT &b) {
    const auto ranges = vask_row_ranges(b, vask_range_count(b));
    if (has_nan<T>(b, ranges)) {
        record_bat_too_large();
        return false;
    }
    // A column in order is sorted by the one pass that finds it so.
    return is_ascending(*b.tail) || ranges.empty() ? group_by_runs<T>(exts, grp, copy)
                                                   : group_by_hash<T>(exts, grp, b, ranges);
}

} // namespace

int vask_sort_group(BAT *ext, BAT *grp, BAT *b) {
    const int storage = storage_of(*b->tail);
    // A kernel without threads has no range for the rows to be in.
    if (GDKnr_threads < 1 || !has_storage_class(storage))
        return 0;
    task_extents exts(ext, static_cast<std::size_t>(GDKnr_threads));
    BAT *copy = BATcopy(b, TYPE_oid, b->tail->type, 1);
    if (copy == nullptr)
        return 0;
    const bool grouped = BATmaterialize(copy) != nullptr &&
                         visit_storage_class(storage, false, [&]<class T>(std::type_identity<T>) {
                             return group_copy<T>(exts, *grp, *copy, *b);
                         });
    BBPreclaim(copy);
    if (!grouped) {
        exts.reclaim();
        return 0;
    }
    vask_sort_bat<wrd, BUNviewHeadComparator>(ext);
    ext->head->sorted = SORTED_ASCENDING;
    ext->tail->sorted = 0;
    return 1;
}

} // namespace vask
