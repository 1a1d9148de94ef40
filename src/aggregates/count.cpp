#include "aggregates/count.h"

#include "aggregates/grouped.h"
#include "aggregates/whole_column.h"
#include "kernel/element_types.h"
#include "vask/ops.h"

namespace vask {

namespace {

//! Calls `f(std::type_identity<Rows>{})` with the row source for a storage code; gives 0 if there
//! is none. oid has a storage code of its own only in a kernel that does not store it as int.
template <class F>
int visit_rows(int storage, F f) {
    if (storage == TYPE_str)
        return f(std::type_identity<text_rows>{});
    return visit_arithmetic_type(storage, 0, [=]<class T>(std::type_identity<T>) {
        return f(std::type_identity<column_rows<T>>{});
    });
}

int vask_count_column(wrd *result, BAT *b) {
    const BUN rows = b->info->count;
    const int storage = storage_of(*b->tail);
    // An empty column has a count whatever its type.
    if (rows == 0 || storage == TYPE_void) {
        store_result(result, wrd{b->tail->seqbase == oid_nil ? 0 : rows});
        return 1;
    }
    return visit_rows(storage, [=]<class Rows>(std::type_identity<Rows>) {
        return store_reduced<count, Rows>(result, b, partition_count(rows));
    });
}

int vask_grp_count_body(BAT **place, BAT *b, BAT *g, BAT *e, std::uint64_t nparts) {
    const auto into = [=]<class Rows>(std::type_identity<Rows>) {
        return aggregate_into<count, Rows>(place, b, g, e, nparts);
    };
    const int storage = storage_of(*b->tail);
    switch (storage) {
        case TYPE_void:
            // A result of the right shape, whose values are what the kernel left in a new column:
            // nothing is counted, and this is intended.
            *place = make_grouped_result(e->head->type, count::result::code(storage), e);
            return *place != nullptr;
        case TYPE_oid:
            return into(std::type_identity<column_rows<oid>>{});
        default:
            return visit_rows(storage, into);
    }
}

char *vask_grp_count_wrapper(std::int32_t *result, const std::int32_t *bid, const std::int32_t *gid,
                             const std::int32_t *eid) {
    return run_grouped_wrapper("vask_grp_count_wrapper", result, bid, gid, eid,
                               vask_grp_count_body);
}

} // namespace

} // namespace vask

char *vask_count(int64_t *result, const int32_t *bid) {
    using namespace vask;
    return run_wrapper("vask_count_wrapper", input_bats(bid), [=](const auto &inputs) {
        return vask_count_column(result, inputs[0]) == 1 ? nullptr : failure::operation_failed;
    });
}

char *vask_count_asterisk(int64_t *result, const int32_t *bid) {
    BAT *b = vask::vask_descriptor(*bid);
    if (b == nullptr)
        return vask::make_exception("vask_count_asterisk", nullptr);
    *result = b->info->count;
    BBPreleaseref(b->bat_id);
    return nullptr;
}

char *vask_grp_count(int32_t *result, const int32_t *bid, const int32_t *gid, const int32_t *eid) {
    return vask::vask_grp_count_wrapper(result, bid, gid, eid);
}

// Nil rows are not counted here either: the name stands for the same operator, and plans rely on
// it.
char *vask_grp_count_asterisk(int32_t *result, const int32_t *bid, const int32_t *gid,
                              const int32_t *eid) {
    return vask::vask_grp_count_wrapper(result, bid, gid, eid);
}
