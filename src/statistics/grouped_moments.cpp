#include "statistics/grouped_statistic.h"
#include "statistics/moments.h"
#include "statistics/statistic.h"
#include "vask/ops.h"

namespace vask {

namespace {

char *vask_grp_1_arg_statistical_func(std::int32_t *result, const std::int32_t *bid,
                                      const std::int32_t *gid, const std::int32_t *eid,
                                      stat_kind kind) {
    return run_wrapper(
        "vask_grp_1_arg_statistical_func", input_bats(bid, gid, eid),
        [=](const auto &inputs) -> const char * {
            BAT *b = inputs[0];
            if (!is_admitted(*b->tail))
                return failure::unsupported_tail;
            const std::uint64_t nparts = partition_count(b->info->count);
            const grouped_inputs<1> columns{{b}, inputs[1], inputs[2]};
            BAT *view = nullptr;
            const int done = visit_moment(kind, 0, [&](auto moment) {
                return visit_storage_class(
                    storage_of(*b->tail), 0, [&]<class T>(std::type_identity<T>) {
                        using rows = column_rows<T>;
                        return grouped_statistic_body<typename decltype(moment)::aggregate, rows,
                                                      rows>(&view, columns, nparts, moment);
                    });
            });
            if (done != 1)
                return failure::operation_failed;
            // Other than the order statistics', this result is not sealed: it stays as it was made.
            hand_over(result, *view);
            return nullptr;
        });
}

} // namespace

} // namespace vask

char *vask_grp_stdev(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    return vask::vask_grp_1_arg_statistical_func(result, bid, gid, eid, vask::stat_kind::stdev);
}
char *vask_grp_stdevp(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    return vask::vask_grp_1_arg_statistical_func(result, bid, gid, eid, vask::stat_kind::stdevp);
}
char *vask_grp_variance(int32_t *result, const int32_t *bid, const int32_t *gid,
                        const int32_t *eid) {
    return vask::vask_grp_1_arg_statistical_func(result, bid, gid, eid, vask::stat_kind::variance);
}
char *vask_grp_variancep(int32_t *result, const int32_t *bid, const int32_t *gid,
                         const int32_t *eid) {
    return vask::vask_grp_1_arg_statistical_func(result, bid, gid, eid, vask::stat_kind::variancep);
}
char *vask_grp_skews(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    return vask::vask_grp_1_arg_statistical_func(result, bid, gid, eid, vask::stat_kind::skews);
}
char *vask_grp_skewp(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    return vask::vask_grp_1_arg_statistical_func(result, bid, gid, eid, vask::stat_kind::skewp);
}
