// The rows of a column and the groups they belong to, for the operators in which a row finds its
// place in the map by its oid where the heads are not aligned, and a row without a group is a
// failure.
#pragma once

#include "kernel/frame.h"
#include "rows/oid_lookup.h"
#include "rows/row_ranges.h"
#include "rows/slot_table.h"

#include <atomic>
#include <exception>
#include <optional>

namespace vask {

//! A mark that the tasks of a stage can only set.
class shared_mark {
public:
    void set() noexcept { std::atomic_ref<std::int32_t>(set_).store(1, std::memory_order_relaxed); }
    //! After the wait only.
    bool is_set() const noexcept { return set_ != 0; }

private:
    std::int32_t set_ = 0;
};

//! The values b, the group map g and the extents e. `synced`: row i of g belongs to row i of b.
//! Otherwise rows are found by their oids, and g's hash may be built.
struct grouped_rows {
    BAT *b;
    BAT *g;
    BAT *e;
    bool synced;
};

//! Where the row of the group map stands that belongs to a row of the values.
class row_finder {
public:
    explicit row_finder(const grouped_rows &in)
        : heads_(*in.b->head, *in.b),
          offset_(in.g->info->first - in.b->info->first),
          end_(end_position(*in.g)) {
        if (!in.synced)
            lookup_.emplace(*in.g);
    }

    //! NO_BUN if the map does not hold the row. Rows in step are not looked for: it is the caller
    //! who stays in the map.
    VASK_ALWAYS_INLINE BUN find(BUN p) const noexcept {
        return lookup_ ? lookup_->find(heads_[p]) : p + offset_;
    }

    //! Whether the map holds the row; one in step may lie beyond its end.
    bool holds(BUN p) const noexcept {
        const BUN row = find(p);
        return lookup_ ? row != NO_BUN : row < end_;
    }

private:
    oid_reader heads_;
    BUN offset_;
    BUN end_;
    std::optional<oid_lookup> lookup_;
};

//! Finds the groups of rows. Extents is what finds an oid in the extents.
template <class Extents>
struct group_finder {
    row_finder rows;
    oid_reader gids;
    Extents extents;
    BUN first;
    BUN end;

    //! The row of the extents, counted from 0, for the row of the values at position p; NO_BUN if
    //! the map does not hold the row or the extents do not hold the group.
    VASK_ALWAYS_INLINE BUN operator()(BUN p) const noexcept {
        const BUN row = rows.find(p);
        if (row == NO_BUN)
            return NO_BUN;
        const BUN slot = extents.find(gids[row]);
        return slot < end ? slot - first : NO_BUN;
    }
};

//! Calls `visit(finder)` for a range with at least one row, and gives what it gives: false at a row
//! without a group. Hashes are built when the first row needs them, that of the extents only if the
//! row is in the map, and whether or not `table` then spares its use: the kernel sees the builds.
template <class Visit>
bool with_group_finder(const grouped_rows &in, const slot_table *table, vask_row_range r,
                       Visit visit) {
    const row_finder rows(in);
    if (!rows.holds(r.begin))
        return false;
    const oid_lookup lookup(*in.e);
    // The map can be shorter than the values, whatever the kernel says of their heads.
    if (!lookup.built() || !rows.holds(r.end - 1))
        return false;
    const oid_reader gids(*in.g->tail, *in.g);
    const BUN first = in.e->info->first;
    const BUN end = end_position(*in.e);
    if (table != nullptr)
        return visit(group_finder<slot_table>{rows, gids, *table, first, end});
    return visit(group_finder<oid_lookup>{rows, gids, lookup, first, end});
}

//! Calls `visit(i, range, finder)` in a task for every range of a plan of one range or more. False
//! when a call gives false or throws.
template <class Visit>
bool visit_grouped_rows(const grouped_rows &in, const partition_plan &plan, const Visit &visit) {
    const slot_table_owner table(*in.e, in.b->info->count, plan.nparts);
    shared_mark failed;
    run_partitions(
        plan, [&in, &visit, &failed, slots = table.get()](std::uint64_t i, vask_row_range r) {
            try {
                const bool good = with_group_finder(
                    in, slots, r, [&](const auto &finder) { return visit(i, r, finder); });
                if (!good)
                    failed.set();
            } catch (const std::exception &) {
                failed.set();
            }
        });
    return !failed.is_set();
}

} // namespace vask
