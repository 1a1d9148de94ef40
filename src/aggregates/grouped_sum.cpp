#include "aggregates/grouped.h"
#include "aggregates/sum.h"
#include "kernel/element_types.h"
#include "vask_ops.h"

char *vask_grp_sum(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    using namespace vask;
    return run_grouped_wrapper(
        "vask_grp_sum_wrapper", result, bid, gid, eid,
        [](BAT **place, BAT *b, BAT *g, BAT *e, std::uint64_t nparts) {
            const int type = b->tail->type;
            return visit_arithmetic_type(type, 0, [=]<class T>(std::type_identity<T>) {
                return aggregate_into<sum<T>, column_rows<T>>(place, b, g, e, nparts,
                                                              sum_result_type(type));
            });
        });
}
