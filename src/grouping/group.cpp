#include "grouping/group_finish.h"
#include "grouping/group_select.h"
#include "grouping/hash/hash_group.h"
#include "grouping/sort/sort_group.h"
#include "kernel/frame.h"
#include "vask/ops.h"

namespace vask {

namespace {

constexpr const char *place = "group.vask_new";

// Rows that the extents have room for at first; they grow as groups turn up.
constexpr BUN initial_groups = 4096;

//! Groups b on one of the parallel paths and stores the results' numbers.
char *group_in_parallel(vask_group_strategy path, std::int32_t *rethisto, std::int32_t *retbid,
                        BAT *b) {
    tell_ranges(*b);
    const int head_type = b->head->type;
    BAT *grp = BATnew(head_type, TYPE_oid, b->info->count);
    if (grp == nullptr) {
        BBPreleaseref(b->bat_id);
        return make_exception(place, "could not allocate space for grp BAT");
    }
    BAT *ext = BATnew(TYPE_oid, TYPE_wrd, initial_groups);
    if (ext == nullptr) {
        BBPreleaseref(b->bat_id);
        BBPreclaim(grp);
        return make_exception(place, "could not allocate space for ext BAT");
    }
    // Intended: this failure, alone under a name of its own, releases nothing, neither b's
    // reference nor the two new BATs.
    if (head_type != TYPE_oid && head_type != TYPE_void)
        return make_exception("group.VASKgroup", "Explicit type required(v)oid head required\n");

    const int done =
        path == VASK_GROUP_SORT ? vask_sort_group(ext, grp, b) : vask_hash_group(ext, grp, b);
    if (done == 0 || !vask_group_finish(grp, ext, b)) {
        BBPreleaseref(b->bat_id);
        BBPreclaim(grp);
        BBPreclaim(ext);
        return make_exception(place, failure::operation_failed);
    }
    *rethisto = ext->bat_id;
    *retbid = grp->bat_id;
    BBPreleaseref(b->bat_id);
    return nullptr;
}

} // namespace

} // namespace vask

char *VASKgroup(int32_t *rethisto, int32_t *retbid, const int32_t *bid) {
    using namespace vask;
    const lng start = GDKusec();
    const std::int32_t b_id = *bid; // a plan may store a result where this number stood
    if (GDKdebug & DEBUG_GROUP_TIMING)
        THRprintf(THRgetdata(0), "# VASKgroup ( bid=%d )\n", b_id);

    BAT *b = vask_descriptor(b_id);
    if (b == nullptr)
        return make_exception(place, failure::object_not_found);
    const vask_group_strategy path = vask_group_select(b);
    if (path == VASK_GROUP_FAILED) {
        BBPreleaseref(b->bat_id);
        return make_exception(place, "operation failed to sample BAT");
    }
    if (path == VASK_GROUP_SERIAL) {
        BBPreleaseref(b->bat_id);
        return GRPgroup(rethisto, retbid, bid);
    }
    if (char *exception = group_in_parallel(path, rethisto, retbid, b))
        return exception;

    const lng elapsed = GDKusec() - start;
    if (GDKdebug & DEBUG_GROUP_TIMING)
        THRprintf(THRgetdata(0),
                  "# VASKgroup ( bid=%d ) -> ( rethisto=%d , retbid=%d ) {%d.%06d s}\n", b_id,
                  *rethisto, *retbid, static_cast<int>(elapsed / 1'000'000),
                  static_cast<int>(elapsed % 1'000'000));
    return nullptr;
}
