// Order statistics per group. They cannot be merged from partial results, so all values of a group
// first come to stand in one array: row ranges find the groups of their rows and count them, the
// counts say where each range's values of each group go, and the ranges move them there. Then the
// functor runs on every group, again in parallel.

#include "statistics/order_statistics_frame.h"

#include "aggregates/grouped.h"
#include "kernel/gdk_vector.h"
#include "kernel/huge_pages.h"
#include "kernel/oid_lookup.h"
#include "kernel/slot_table.h"
#include "vask_ops.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <optional>
#include <span>
#include <utility>

namespace vask {

namespace {

//! Room for n elements that are written or read at random.
template <class T>
gdk_block<T> large_block(std::size_t n) {
    T *block = gdk_allocate<T>(n);
    advise_huge_pages(block, n * sizeof(T));
    return gdk_block<T>(block);
}

//! The values of all rows, group by group, each group's in the order of the rows. Group j is row j
//! of the extents. One block for all, as arrays of their own would cost an allocation and a page of
//! the address cache for every group (1e7 rows of 10,000 groups: half of the time).
template <class R>
class group_arrays {
public:
    explicit group_arrays(BUN groups) : bounds_(std::size_t{groups} + 1) {}

    std::size_t groups() const noexcept { return bounds_.size() - 1; }
    std::size_t size(std::size_t j) const noexcept { return bounds_[j + 1] - bounds_[j]; }
    std::span<R> operator[](std::size_t j) noexcept {
        return {values_.get() + bounds_[j], size(j)};
    }

    //! Makes room for `rows` values. `counts[i][j]` is the number of them that range i has for
    //! group j and becomes the position at which they begin in the array returned.
    R *make_room(BUN rows, gdk_vector<gdk_vector<BUN>> &counts) {
        BUN at = 0;
        for (std::size_t j = 0; j < groups(); ++j) {
            bounds_[j] = at;
            for (gdk_vector<BUN> &range : counts)
                at += std::exchange(range[j], at);
        }
        bounds_[groups()] = at;
        values_ = large_block<R>(rows);
        return values_.get();
    }

private:
    gdk_block<R> values_;
    gdk_vector<BUN> bounds_;
};

//! What the tasks of a stage report with. They only ever take success away.
class shared_status {
public:
    void fail() noexcept {
        std::atomic_ref<std::int32_t>(status_).store(0, std::memory_order_relaxed);
    }
    //! After the wait only.
    bool good() const noexcept { return status_ == 1; }

private:
    std::int32_t status_ = 1;
};

//! Where the row of the group map g stands that belongs to a row of b.
class map_rows {
public:
    //! `synced`: row i of g belongs to row i of b. Otherwise rows are found by their oids, and g's
    //! hash may be built.
    map_rows(BAT &b, BAT &g, bool synced)
        : heads_(*b.head, b), offset_(g.info->first - b.info->first) {
        if (!synced)
            lookup_.emplace(g);
    }

    VASK_ALWAYS_INLINE BUN find(BUN p) const noexcept {
        return lookup_ ? lookup_->find(heads_[p]) : p + offset_;
    }

private:
    oid_reader heads_;
    BUN offset_;
    std::optional<oid_lookup> lookup_;
};

//! Finds the groups of rows of b. Extents is what finds an oid in the extents.
template <class Extents>
struct group_finder {
    map_rows rows;
    oid_reader gids;
    Extents extents;
    BUN first;
    BUN end;

    //! The row of the extents, counted from 0, for the row of b at position p; NO_BUN if g does not
    //! hold the row or e does not hold the group.
    VASK_ALWAYS_INLINE BUN operator()(BUN p) const noexcept {
        const BUN row = rows.find(p);
        if (row == NO_BUN)
            return NO_BUN;
        const BUN slot = extents.find(gids[row]);
        return slot < end ? slot - first : NO_BUN;
    }
};

//! Stores the group of every row in r, behind `groups`, and counts the rows of each. False at a row
//! without a group.
template <class Extents>
bool count_groups(const group_finder<Extents> &finder, row_range r, BUN *groups,
                  gdk_vector<BUN> &counts) {
    BUN *count = counts.data();
    for (BUN p = r.begin; p < r.end; ++p) {
        const BUN group = finder(p);
        if (group == NO_BUN)
            return false;
        *groups++ = group;
        ++count[group];
    }
    return true;
}

//! What a task does first with its range. Hashes are built when the first row needs them, that of e
//! only if the row is in g, and whether or not `table` then spares its use: the kernel sees the
//! builds.
bool vask_scatter_range(BAT &b, BAT &g, BAT &e, bool synced, const slot_table *table, row_range r,
                        BUN *groups, gdk_vector<BUN> &counts) {
    const map_rows rows(b, g, synced);
    if (rows.find(r.begin) == NO_BUN)
        return false;
    const oid_lookup lookup(e);
    if (!lookup.built())
        return false;
    const oid_reader gids(*g.tail, g);
    const BUN first = e.info->first;
    const BUN end = end_position(e);
    if (table != nullptr)
        return count_groups(group_finder<slot_table>{rows, gids, *table, first, end}, r, groups,
                            counts);
    return count_groups(group_finder<oid_lookup>{rows, gids, lookup, first, end}, r, groups,
                        counts);
}

//! Moves the values of a range, the rows of which belong to `groups`, to the places kept for them.
template <class R, class S>
void move_values(const S *values, std::size_t n, const BUN *groups, BUN *next, R *moved) noexcept {
    for (std::size_t i = 0; i < n; ++i)
        moved[next[groups[i]]++] = static_cast<R>(values[i]);
}

//! Fills `arrays` with the values of b's rows. One range per thread, however few rows there are;
//! the kernel's partition settings are for work whose results can be merged. False on failure;
//! throws when out of memory.
template <class R, class S>
bool vask_scatter_groups(BAT *b, BAT *g, BAT *e, bool synced, group_arrays<R> &arrays) {
    const BUN count = b->info->count;
    if (count == 0)
        return true;
    const BUN nranges = std::min(count, static_cast<BUN>(GDKnr_threads));
    if (nranges == 0)
        return false;
    const gdk_block<BUN> groups = large_block<BUN>(count);
    gdk_vector<gdk_vector<BUN>> counts(nranges);
    const slot_table_owner table(*e, count);
    const partition_plan plan(*b, nranges);
    const BUN first = b->info->first;
    shared_status status;
    run_partitions(plan, [=, &groups, &counts, &status, slots = table.get(),
                          n = arrays.groups()](std::uint64_t i, row_range r) {
        try {
            counts[i] = gdk_vector<BUN>(n);
            if (!vask_scatter_range(*b, *g, *e, synced, slots, r, &groups[r.begin - first],
                                    counts[i]))
                status.fail();
        } catch (const std::exception &) {
            status.fail();
        }
    });
    if (!status.good())
        return false;
    R *moved = arrays.make_room(count, counts);
    const S *values = rows_of<const S>(*b->tail);
    run_partitions(plan, [=, &groups, &counts](std::uint64_t i, row_range r) {
        move_values(values + r.begin, r.end - r.begin, &groups[r.begin - first], counts[i].data(),
                    moved);
    });
    return true;
}

//! Runs the functor on the groups j0 .. j1 - 1 and stores the answers in `results`; an empty group
//! has the nil. False, at the first group that fails, if one does.
template <class R>
bool vask_group_chunk(R *results, group_arrays<R> &groups, std::size_t j0, std::size_t j1, bte type,
                      stat_functor<R> functor, const void *parameter, bte *has_nil) {
    const R nil = nil_of<R>(type);
    stat_flag flag = 0;
    bool good = true;
    for (std::size_t j = j0; j < j1 && good; ++j) {
        if (groups.size(j) == 0)
            results[j] = nil;
        else
            good = functor(&results[j], &flag, groups[j], type, parameter) == 1;
        if (good && results[j] == nil)
            std::atomic_ref<bte>(*has_nil).store(1, std::memory_order_relaxed);
    }
    drop_numeric_buffers_if(flag);
    return good;
}

//! Runs of groups with at least this many values in all make a task: many small groups share one, a
//! large group has one of its own.
constexpr std::size_t smallest_run = 8192;

//! The functor's answers for all groups, in the tail of the result r. False if one failed.
template <class R>
bool evaluate_groups(BAT *r, group_arrays<R> &groups, bte type, stat_functor<R> functor,
                     const void *parameter) {
    R *results = rows_of<R>(*r->tail);
    shared_status status;
    bte has_nil = 0;
    task_set tasks;
    for (std::size_t j = 0; j < groups.groups();) {
        const std::size_t j0 = j;
        for (std::size_t values = 0; j < groups.groups() && values < smallest_run; ++j)
            values += groups.size(j);
        tasks.spawn([=, &groups, &status, &has_nil] {
            if (!vask_group_chunk(results, groups, j0, j, type, functor, parameter, &has_nil))
                status.fail();
        });
    }
    tasks.wait();
    // The marks are bits of one word, so one thread sets them.
    if (has_nil != 0)
        mark_nil(*r->tail);
    return status.good();
}

//! The typed body: `*result` becomes a view of one answer per group under the head of e.
template <class R, class S>
int vask_stat_grouped_body(BAT **result, BAT *b, BAT *g, BAT *e, bte type, stat_functor<R> functor,
                           const void *parameter) {
    const bool synced = ALIGNsynced(g, b) != 0;
    // Nils are not skipped. Unlike a whole column, a group map without rows does not excuse the
    // missing mark.
    if (!b->tail->nonil)
        return 0;
    use_kernel_memory_in_numeric_runtime();
    BAT *r = nullptr;
    bool good = false;
    try {
        group_arrays<R> groups(e->info->count);
        if (!vask_scatter_groups<R, S>(b, g, e, synced, groups))
            return 0;
        r = make_grouped_result(TYPE_void, type, e);
        if (r == nullptr)
            return 0;
        BATaccess(r, 2, 0, 1);
        good = evaluate_groups(r, groups, type, functor, parameter);
        BATaccess(r, 2, 0, -1);
    } catch (const std::exception &) {
        good = false;
    }
    if (good) {
        *result = r;
        return 1;
    }
    if (r != nullptr)
        BBPreclaim(r);
    return 0;
}

template <class R>
char *vask_stat_grouped(std::int32_t *result, const std::int32_t *bid, const std::int32_t *gid,
                        const std::int32_t *eid, bte type, stat_functor<R> functor,
                        const void *parameter) {
    // The extents are fetched before the group map, other than in the grouped aggregates.
    return run_wrapper(order_statistics_place, input_bats(bid, eid, gid), [=](const auto &inputs) {
        BAT *b = inputs[0];
        BAT *e = inputs[1];
        BAT *g = inputs[2];
        BAT *view = nullptr;
        const char *text = with_gathered_class<R>(*b->tail, [&]<class S>(std::type_identity<S>) {
            return vask_stat_grouped_body<R, S>(&view, b, g, e, type, functor, parameter);
        });
        if (text == nullptr) {
            view = seal(view);
            *result = view->bat_id;
            BBPkeepref(view->bat_id);
        }
        return text;
    });
}

} // namespace

} // namespace vask

using namespace vask; // the exports only forward

char *vask_grp_median(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    return vask_stat_grouped<dbl>(result, bid, gid, eid, TYPE_dbl, vask_median_functor, nullptr);
}

char *vask_grp_quartile(int32_t *result, const int32_t *bid, const int32_t *quartile,
                        const int32_t *gid, const int32_t *eid) {
    bte q;
    char *exception = nullptr;
    if (!quartile_param(&q, quartile, &exception))
        return exception;
    return vask_stat_grouped<dbl>(result, bid, gid, eid, TYPE_dbl, vask_quartile_functor, &q);
}

char *vask_grp_percentile(int32_t *result, const int32_t *bid, const int32_t *share,
                          const int32_t *gid, const int32_t *eid) {
    dbl p;
    char *exception = nullptr;
    if (!percentile_param(&p, share, &exception))
        return exception;
    return vask_stat_grouped<dbl>(result, bid, gid, eid, TYPE_dbl, vask_percentile_functor, &p);
}

char *vask_grp_largest(int32_t *result, const int32_t *bid, const int32_t *rank, const int32_t *gid,
                       const int32_t *eid) {
    return with_value_class(bid, [=]<class T>(std::type_identity<T>, bte type) {
        lng k;
        char *exception = nullptr;
        if (!largest_param(&k, rank, &exception))
            return exception;
        return vask_stat_grouped<T>(result, bid, gid, eid, type, vask_largest_functor<T>, &k);
    });
}

char *vask_grp_mode(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    return with_value_class(bid, [=]<class T>(std::type_identity<T>, bte type) {
        return vask_stat_grouped<T>(result, bid, gid, eid, type, vask_mode_functor<T>, nullptr);
    });
}
