#include "statistics/moments.h"

#include "aggregates/whole_column.h"
#include "kernel/element_types.h"
#include "vask/ops.h"

#include <array>

namespace vask {

namespace {

char *vask_1_arg_statistical_func(dbl *result, const std::int32_t *bid, stat_kind kind) {
    return run_wrapper(
        "vask_1_arg_statistical_func", input_bats(bid), [=](const auto &inputs) -> const char * {
            BAT *b = inputs[0];
            if (!is_admitted(*b->tail))
                return failure::unsupported_tail;
            if (b->info->count == 0) {
                *result = dbl_nil();
                return nullptr;
            }
            const std::uint64_t nparts = partition_count(b->info->count);
            return visit_moment(kind, failure::operation_failed, [&](auto moment) {
                return visit_storage_class(
                    storage_of(*b->tail), failure::operation_failed,
                    [&]<class T>(std::type_identity<T>) {
                        reduce_columns<typename decltype(moment)::aggregate, column_rows<T>>(
                            std::array{b}, nparts,
                            [=](const auto &total) { *result = moment(total); });
                        return static_cast<const char *>(nullptr);
                    });
            });
        });
}

} // namespace

} // namespace vask

char *vask_stdev(double *result, const int32_t *bid) {
    return vask::vask_1_arg_statistical_func(result, bid, vask::stat_kind::stdev);
}
char *vask_stdevp(double *result, const int32_t *bid) {
    return vask::vask_1_arg_statistical_func(result, bid, vask::stat_kind::stdevp);
}
char *vask_variance(double *result, const int32_t *bid) {
    return vask::vask_1_arg_statistical_func(result, bid, vask::stat_kind::variance);
}
char *vask_variancep(double *result, const int32_t *bid) {
    return vask::vask_1_arg_statistical_func(result, bid, vask::stat_kind::variancep);
}
char *vask_skews(double *result, const int32_t *bid) {
    return vask::vask_1_arg_statistical_func(result, bid, vask::stat_kind::skews);
}
char *vask_skewp(double *result, const int32_t *bid) {
    return vask::vask_1_arg_statistical_func(result, bid, vask::stat_kind::skewp);
}
