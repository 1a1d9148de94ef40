#include "grouping/sort/sort_group.h"

#include "grouping/bunfastins.h"
#include "grouping/sort/map_order.h"
#include "grouping/sort/rough_order.h"
#include "grouping/sort/sort_bat.h"
#include "grouping/sort/sorted_runs.h"
#include "kernel/column.h"
#include "rows/gdk_vector.h"
#include "rows/range_tasks.h"

#include <atomic>
#include <cstddef>
#include <cstring>
#include <utility>

namespace vask {

namespace {

//! The extents of the ranges: the caller's for the first one, for the others BATs that their tasks
//! make.
class range_extents {
public:
    range_extents(BAT *ext, std::size_t ranges) : slots_(ranges) { slots_[0].ext = ext; }

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

    //! Gives back every BAT that a task made.
    void reclaim() {
        for (std::size_t i = 1; i < slots_.size(); ++i)
            reclaim(i);
    }

    //! A slot is empty when a long run left fewer ranges than threads.
    void reclaim(std::size_t i) {
        if (slots_[i].ext != nullptr)
            BBPreclaim(std::exchange(slots_[i].ext, nullptr));
    }

private:
    struct slot {
        BAT *ext;
    };
    gdk_vector<slot> slots_;
};

const oid *ids_of(const BAT &ext) noexcept {
    return rows_of<const oid>(*ext.head) + ext.info->first;
}
const wrd *counts_of(const BAT &ext) noexcept {
    return rows_of<const wrd>(*ext.tail) + ext.info->first;
}

//! Appends the other ranges' rows to the caller's extents, which have room for them, and gives
//! those BATs back. Where that pays the rows go to where they belong in the order of ids; else they
//! go behind one another. Without the values `copy` has memory to spare for the former: its head.
void join(range_extents &exts, BAT &copy, const BAT &grp) {
    BAT &ext = exts.whole();
    const BUN rows = copy.info->count;
    const BUN first = copy.info->first;
    const bool by_map = map_order::pays(ext.info->count + exts.rows_to_join(), rows);
    const map_order order(rows_of<const oid>(*grp.tail) + first, rows, copy.head->seqbase,
                          rows_of<BUN>(*copy.head) + first);
    if (by_map)
        order.note(ids_of(ext), counts_of(ext), ext.info->count);
    for (std::size_t i = 1; i < exts.size(); ++i) {
        if (exts[i] == nullptr)
            continue;
        const BAT &part = *exts[i];
        const BUN n = part.info->count;
        const BUN end = end_position(ext);
        if (by_map) {
            order.note(ids_of(part), counts_of(part), n);
        } else if (n != 0) {
            std::memcpy(rows_of<oid>(*ext.head) + end, ids_of(part), n * sizeof(oid));
            std::memcpy(rows_of<wrd>(*ext.tail) + end, counts_of(part), n * sizeof(wrd));
        }
        BATsetcount(&ext, ext.info->count + n);
        exts.reclaim(i);
    }
    if (by_map)
        order.write(rows_of<oid>(*ext.head) + ext.info->first,
                    rows_of<wrd>(*ext.tail) + ext.info->first);
}

//! Sorts the copy by value and groups its runs. False on a failure, after which `exts` can hold
//! BATs.
template <class T>
bool group_copy(range_extents &exts, BAT &grp, BAT &copy, const BAT &b) {
    const auto input_ranges = vask_row_ranges(b, vask_range_count(b));
    const value_span<T> span = span_of_column<T>(b, input_ranges);
    if (span.has_nan) {
        record_bat_too_large();
        return false;
    }
    // A column in order is sorted by the one pass that finds it so.
    if (b.info->count >= smallest_rough_order && !is_ascending(*b.tail))
        fill_in_rough_order<T>(b, copy, input_ranges, span);
    vask_sort_bat<T, BUNviewTailComparator>(&copy);

    bte failed = 0;
    const auto ranges = vask_split_at_runs<T>(copy, static_cast<std::uint32_t>(exts.size()));
    run_ranges(ranges, [&](std::size_t i, vask_row_range range) {
        if (!vask_group_runs<T>(copy, range, exts[i], grp))
            std::atomic_ref(failed).store(1, std::memory_order_relaxed);
    });
    return failed == 0;
}

} // namespace

template <class T>
int vask_sort_group(BAT *ext, BAT *grp, BAT *b) {
    // A kernel without threads has no range for the rows to be in.
    if (GDKnr_threads < 1)
        return 0;
    range_extents exts(ext, static_cast<std::size_t>(GDKnr_threads));
    BAT *copy = BATcopy(b, TYPE_oid, b->tail->type, 1);
    if (copy == nullptr)
        return 0;
    if (BATmaterialize(copy) == nullptr || !group_copy<T>(exts, *grp, *copy, *b) ||
        BATextend(ext, ext->info->count + exts.rows_to_join()) == nullptr) {
        BBPreclaim(copy);
        exts.reclaim();
        return 0;
    }
    join(exts, *copy, *grp);
    BBPreclaim(copy);
    vask_sort_bat<wrd, BUNviewHeadComparator>(ext);
    ext->head->sorted = SORTED_ASCENDING;
    ext->tail->sorted = 0;
    return 1;
}

template int vask_sort_group<bte>(BAT *, BAT *, BAT *);
template int vask_sort_group<sht>(BAT *, BAT *, BAT *);
template int vask_sort_group<std::int32_t>(BAT *, BAT *, BAT *);
template int vask_sort_group<lng>(BAT *, BAT *, BAT *);
template int vask_sort_group<flt>(BAT *, BAT *, BAT *);
template int vask_sort_group<dbl>(BAT *, BAT *, BAT *);

} // namespace vask
