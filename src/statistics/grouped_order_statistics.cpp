// Order statistics per group. They cannot be merged from partial results, so all values of a group
// are first brought together; then the functor runs on every group, again in parallel. The largest
// few can be kept while the rows go by.

#include "statistics/order_statistics_frame.h"

#include "aggregates/grouped.h"
#include "kernel/shared_mark.h"
#include "statistics/largest_per_group.h"
#include "statistics/values_by_group.h"
#include "vask/ops.h"

#include <concepts>
#include <exception>
#include <optional>
#include <span>

namespace vask {

namespace {

//! Marks the result as one with nils if `has_nil` is set. The marks of a column are bits of one
//! word, so one thread sets them, after the wait.
void mark_nils(BAT &r, const shared_mark &has_nil) {
    if (has_nil.is_set())
        mark_nil(*r.tail);
}

//! A statistic that wants all values of a group together: the functor's answer for each.
template <class R>
class functor_per_group {
public:
    explicit functor_per_group(stat_functor<R> functor) : functor_(std::move(functor)) {}

    template <class S>
    bool gather(const grouped_rows &in, BUN nranges) {
        values_ = values_by_group<R>::template vask_scatter_groups<S>(in, nranges);
        return values_.has_value();
    }

    //! Puts the answers for all groups into the tail of the result r; an empty group has the nil.
    //! False if the functor failed.
    bool evaluate(BAT *r, bte type) {
        R *results = rows_of<R>(*r->tail);
        shared_mark failed;
        shared_mark has_nil;
        task_set tasks;
        for (std::size_t i = 0; i < values_->runs(); ++i)
            tasks.spawn([=, this, &failed, &has_nil] {
                try {
                    if (!vask_group_chunk(results, i, type, has_nil))
                        failed.set();
                } catch (const std::exception &) {
                    failed.set();
                }
            });
        tasks.wait();
        mark_nils(*r, has_nil);
        return !failed.is_set();
    }

private:
    //! Runs the functor on the groups of run i. False, at the first group that fails, if one does.
    bool vask_group_chunk(R *results, std::size_t i, bte type, shared_mark &has_nil) {
        const R nil = nil_of<R>(type);
        stat_flag flag = 0;
        const stat_functor<R> functor = functor_;
        const bool good = values_->visit_run(i, [&](BUN j, std::span<R> values) {
            if (values.empty())
                results[j] = nil;
            else if (functor(&results[j], &flag, values, type) != 1)
                return false;
            if (results[j] == nil)
                has_nil.set();
            return true;
        });
        drop_numeric_buffers_if(flag);
        return good;
    }

    stat_functor<R> functor_;
    std::optional<values_by_group<R>> values_;
};

//! The largest, which needs all values together only for a rank far from the top.
template <class T>
class rank_per_group {
public:
    explicit rank_per_group(lng k) : k_(k), among_all_(vask_largest_functor<T>(k)) {}

    template <class S>
    bool gather(const grouped_rows &in, BUN nranges) {
        if constexpr (std::same_as<S, T>) {
            using outcome = typename largest_per_group<T>::outcome;
            if (largest_per_group<T>::is_worthwhile(k_, in.extents->info->count, nranges,
                                                    in.b->info->count)) {
                const outcome found =
                    kept_.emplace().gather(in, static_cast<std::size_t>(k_), nranges);
                if (found != outcome::met_filler)
                    return found == outcome::done;
                kept_.reset();
            }
        }
        return among_all_.template gather<S>(in, nranges);
    }

    bool evaluate(BAT *r, bte type) {
        if (!kept_)
            return among_all_.evaluate(r, type);
        const T nil = nil_of<T>(type);
        shared_mark has_nil;
        run_row_loop(r->info->count,
                     [&, nil, results = rows_of<T>(*r->tail)](vask_row_range groups) {
                         bool any_nil = false;
                         for (BUN j = groups.begin; j < groups.end; ++j) {
                             results[j] = kept_->answer(j, nil);
                             any_nil |= results[j] == nil;
                         }
                         if (any_nil)
                             has_nil.set();
                     });
        mark_nils(*r, has_nil);
        return true;
    }

private:
    lng k_;
    std::optional<largest_per_group<T>> kept_;
    functor_per_group<T> among_all_;
};

//! The typed body: `*result` becomes a view of one answer per group under the head of e.
template <class S, class Statistic>
int vask_stat_grouped_body(BAT **result, BAT *b, BAT *g, BAT *e, bte type, Statistic &statistic) {
    const grouped_rows in{b, g, e,
                          ALIGNsynced(g, b) != 0 ? map_order::in_step : map_order::by_head};
    // Nils are not skipped. Unlike a whole column, a group map without rows does not excuse the
    // missing mark.
    if (!b->tail->nonil)
        return 0;
    tell_ranges(*b);
    use_kernel_memory_in_numeric_runtime();
    BAT *r = nullptr;
    bool good = false;
    try {
        if (!statistic.template gather<S>(in, vask_range_count(*b)))
            return 0;
        r = make_grouped_result(TYPE_void, type, e);
        if (r == nullptr)
            return 0;
        BATaccess(r, 2, 0, 1);
        good = statistic.evaluate(r, type);
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

//! The wrapper for a statistic that answers with Rs.
template <class R, class Statistic>
char *vask_stat_grouped(std::int32_t *result, const std::int32_t *bid, const std::int32_t *gid,
                        const std::int32_t *eid, bte type, Statistic statistic) {
    // The extents are fetched before the group map, other than in the grouped aggregates.
    return run_wrapper(order_statistics_place, input_bats(bid, eid, gid), [&](const auto &inputs) {
        BAT *b = inputs[0];
        BAT *e = inputs[1];
        BAT *g = inputs[2];
        BAT *view = nullptr;
        const char *text = with_gathered_class<R>(*b->tail, [&]<class S>(std::type_identity<S>) {
            return vask_stat_grouped_body<S>(&view, b, g, e, type, statistic);
        });
        if (text == nullptr && !hand_over_sealed(result, view))
            text = failure::operation_failed;
        return text;
    });
}

} // namespace

} // namespace vask

using namespace vask; // the exports only forward

char *vask_grp_median(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    return vask_stat_grouped<dbl>(result, bid, gid, eid, TYPE_dbl,
                                  functor_per_group<dbl>(vask_median_functor()));
}

char *vask_grp_quartile(int32_t *result, const int32_t *bid, const int32_t *quartile,
                        const int32_t *gid, const int32_t *eid) {
    return with_param(quartile_param, quartile, [=](bte q) {
        return vask_stat_grouped<dbl>(result, bid, gid, eid, TYPE_dbl,
                                      functor_per_group<dbl>(vask_quartile_functor(q)));
    });
}

char *vask_grp_percentile(int32_t *result, const int32_t *bid, const int32_t *share,
                          const int32_t *gid, const int32_t *eid) {
    return with_param(percentile_param, share, [=](dbl p) {
        return vask_stat_grouped<dbl>(result, bid, gid, eid, TYPE_dbl,
                                      functor_per_group<dbl>(vask_percentile_functor(p)));
    });
}

char *vask_grp_largest(int32_t *result, const int32_t *bid, const int32_t *rank, const int32_t *gid,
                       const int32_t *eid) {
    return with_stat_class(bid, [=]<class T>(std::type_identity<T>, bte type) {
        return with_param(largest_param, rank, [=](lng k) {
            return vask_stat_grouped<T>(result, bid, gid, eid, type, rank_per_group<T>(k));
        });
    });
}

char *vask_grp_mode(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    return with_stat_class(bid, [=]<class T>(std::type_identity<T>, bte type) {
        return vask_stat_grouped<T>(result, bid, gid, eid, type,
                                    functor_per_group<T>(vask_mode_functor<T>()));
    });
}
