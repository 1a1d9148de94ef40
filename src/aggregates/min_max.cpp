#include "aggregates/min_max.h"

#include "aggregates/grouped.h"
#include "aggregates/whole_column.h"
#include "kernel/element_types.h"
#include "vask/ops.h"

namespace vask {

namespace {

//! Calls `f.operator()<which, T>()` for the selector and the type that a storage code stands for;
//! gives 0 if it has none.
template <class F>
int visit_extreme(extreme which, int storage, F f) {
    return visit_arithmetic_type(storage, 0, [=]<class T>(std::type_identity<T>) {
        return which == extreme::min ? f.template operator()<extreme::min, T>()
                                     : f.template operator()<extreme::max, T>();
    });
}

//! The storage decides, so that user atoms run as what they are stored as, by raw value. Their own
//! nil marks the rows without a value; a result without one gets the nil of the storage type.
int vask_min_max_column(void *result, BAT *b, extreme which) {
    const int storage = storage_of(*b->tail);
    const BUN count = b->info->count;
    if (storage == TYPE_void) {
        const oid seqbase = b->tail->seqbase;
        if (count == 0)
            store_result(result, nil_of<oid>(TYPE_void));
        else if (seqbase == oid_nil)
            store_result(result, oid_nil);
        else
            store_result(result, which == extreme::min ? seqbase : seqbase + count - 1);
        return 1;
    }
    return visit_extreme(which, storage, [=]<extreme w, class T>() {
        if (count != 0)
            return store_reduced<min_max<w, T>, column_rows<T>>(result, b, partition_count(count));
        store_result(result, nil_of<T>(storage));
        return 1;
    });
}

char *vask_min_max_wrapper(void *result, const std::int32_t *bid, extreme which) {
    return run_wrapper("vask_min_max_wrapper", input_bats(bid), [=](const auto &inputs) {
        return vask_min_max_column(result, inputs[0], which) == 1 ? nullptr
                                                                  : failure::operation_failed;
    });
}

//! The result has the type of the storage, not the user atom's own, and a void column has no
//! shortcut here.
char *vask_grp_min_max_wrapper(std::int32_t *result, const std::int32_t *bid,
                               const std::int32_t *gid, const std::int32_t *eid, extreme which) {
    return run_grouped_wrapper(
        "vask_grp_min_max_wrapper", result, bid, gid, eid,
        [=](BAT **place, BAT *b, BAT *g, BAT *e, std::uint64_t nparts) {
            return visit_extreme(which, storage_of(*b->tail), [=]<extreme w, class T>() {
                return aggregate_into<min_max<w, T>, column_rows<T>>(place, b, g, e, nparts);
            });
        });
}

} // namespace

} // namespace vask

char *vask_min_bte(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::min);
}
char *vask_min_sht(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::min);
}
char *vask_min_int(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::min);
}
char *vask_min_oid(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::min);
}
char *vask_min_wrd(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::min);
}
char *vask_min_lng(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::min);
}
char *vask_min_flt(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::min);
}
char *vask_min_dbl(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::min);
}
char *vask_min_timestamp(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::min);
}
char *vask_max_bte(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::max);
}
char *vask_max_sht(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::max);
}
char *vask_max_int(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::max);
}
char *vask_max_oid(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::max);
}
char *vask_max_wrd(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::max);
}
char *vask_max_lng(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::max);
}
char *vask_max_flt(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::max);
}
char *vask_max_dbl(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::max);
}
char *vask_max_timestamp(void *result, const int32_t *bid) {
    return vask::vask_min_max_wrapper(result, bid, vask::extreme::max);
}
char *vask_grp_min(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    return vask::vask_grp_min_max_wrapper(result, bid, gid, eid, vask::extreme::min);
}
char *vask_grp_max(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    return vask::vask_grp_min_max_wrapper(result, bid, gid, eid, vask::extreme::max);
}
