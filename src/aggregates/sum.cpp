#include "aggregates/sum.h"

#include "aggregates/grouped.h"
#include "aggregates/whole_column.h"
#include "kernel/element_types.h"
#include "vask/ops.h"

namespace vask {

namespace {

//! The type of the column decides, never the exported name: a plan may call any of the seven names
//! on any column. User atoms have no sum, so the dispatch is on the type and not on its storage.
char *vask_sum_wrapper(void *result, const std::int32_t *bid) {
    return run_wrapper("vask_sum_wrapper", input_bats(bid), [=](const auto &inputs) {
        BAT *b = inputs[0];
        const int type = b->tail->type;
        const int done = visit_arithmetic_type(type, 0, [=]<class T>(std::type_identity<T>) {
            using of = sum_result<T>;
            if (b->info->count != 0)
                return store_reduced<sum<T>, column_rows<T>>(result, b,
                                                             partition_count(b->info->count));
            store_result(result, nil_of<typename of::type>(of::code(type)));
            return 1;
        });
        return done == 1 ? nullptr : failure::operation_failed;
    });
}

} // namespace

} // namespace vask

char *vask_sum_bte(void *result, const int32_t *bid) {
    return vask::vask_sum_wrapper(result, bid);
}
char *vask_sum_sht(void *result, const int32_t *bid) {
    return vask::vask_sum_wrapper(result, bid);
}
char *vask_sum_int(void *result, const int32_t *bid) {
    return vask::vask_sum_wrapper(result, bid);
}
char *vask_sum_wrd(void *result, const int32_t *bid) {
    return vask::vask_sum_wrapper(result, bid);
}
char *vask_sum_lng(void *result, const int32_t *bid) {
    return vask::vask_sum_wrapper(result, bid);
}
char *vask_sum_flt(void *result, const int32_t *bid) {
    return vask::vask_sum_wrapper(result, bid);
}
char *vask_sum_dbl(void *result, const int32_t *bid) {
    return vask::vask_sum_wrapper(result, bid);
}

char *vask_grp_sum(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    using namespace vask;
    return run_grouped_wrapper(
        "vask_grp_sum_wrapper", result, bid, gid, eid,
        [](BAT **place, BAT *b, BAT *g, BAT *e, std::uint64_t nparts) {
            return visit_arithmetic_type(b->tail->type, 0, [=]<class T>(std::type_identity<T>) {
                return aggregate_into<sum<T>, column_rows<T>>(place, b, g, e, nparts);
            });
        });
}
