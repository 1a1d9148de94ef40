#include "grouping/buckets/buckets_derive.h"
#include "grouping/derive/derive_select.h"
#include "grouping/group_finish.h"
#include "grouping/pairs/pairs_derive.h"
#include "kernel/frame.h"
#include "vask/ops.h"

namespace vask {

namespace {

constexpr const char *place = "group.vask_derive";

struct derive_inputs {
    BAT *b;
    BAT *map;
    BAT *histo;

    void access(int load) const {
        for (BAT *input : {b, map, histo})
            BATaccess(input, 3, 0, load);
    }

    void release() const {
        for (const BAT *input : {b, map, histo})
            BBPreleaseref(input->bat_id);
    }
};

//! Makes the refined grouping; null or a failure text. The BATs made so far are the caller's to
//! give back after a failure.
const char *refine(vask_derive_strategy path, const derive_inputs &in, BAT *&grp, BAT *&ext) {
    tell_ranges(*in.b);
    // Another call on the same extents may be building it in a task.
    if (published(in.histo->head->hash) == nullptr && BAThash(in.histo, 0) == nullptr)
        return "operation failed preparing hash";
    grp = BATnew(in.b->head->type, TYPE_oid, in.b->info->count);
    if (grp == nullptr)
        return "could not allocate space for grp BAT";
    // Room for two new groups per old one to start with.
    ext = BATnew(TYPE_oid, TYPE_wrd, 2 * in.histo->info->count);
    if (ext == nullptr)
        return "could not allocate space for ext BAT";
    const bool synced = ALIGNsynced(in.map, in.b) != 0;
    const auto derive = path == VASK_DERIVE_PAIRS ? vask_pairs_derive : vask_buckets_derive;
    return derive(grp, ext, in.b, in.map, in.histo, synced) == 1 ? nullptr
                                                                 : failure::operation_failed;
}

//! Fetches the column, then the map, then the histogram, and checks the column's head before the
//! others are looked at. Null or a failure text, after which no reference is held.
const char *fetch(derive_inputs &in, std::int32_t bid, std::int32_t mapid, std::int32_t histoid) {
    in.b = vask_descriptor(bid);
    if (in.b == nullptr)
        return failure::object_not_found;
    if (in.b->head->type != TYPE_oid && in.b->head->type != TYPE_void) {
        BBPreleaseref(in.b->bat_id);
        return "Explicit type required(v)oid head required\n";
    }
    in.map = vask_descriptor(mapid);
    if (in.map == nullptr) {
        BBPreleaseref(in.b->bat_id);
        return failure::object_not_found;
    }
    in.histo = vask_descriptor(histoid);
    if (in.histo == nullptr) {
        BBPreleaseref(in.b->bat_id);
        BBPreleaseref(in.map->bat_id);
        return failure::object_not_found;
    }
    return nullptr;
}

void give_back(BAT *made) {
    if (made != nullptr)
        BBPreclaim(made);
}

} // namespace

} // namespace vask

char *VASKderive(int32_t *rethisto, int32_t *retbid, const int32_t *ct_histoid,
                 const int32_t *ct_mapid, const int32_t *bid) {
    using namespace vask;
    const lng start = GDKusec();
    // A plan may store the results where the inputs' numbers stood.
    const std::int32_t histo_id = *ct_histoid;
    const std::int32_t map_id = *ct_mapid;
    const std::int32_t b_id = *bid;
    if (GDKdebug & DEBUG_GROUP_TIMING)
        THRprintf(THRgetdata(0), "# VASKderive ( ct_histoid=%d, ct_mapid=%d, bid=%d )\n", histo_id,
                  map_id, b_id);

    derive_inputs in{};
    if (const char *text = fetch(in, b_id, map_id, histo_id))
        return make_exception(place, text);
    // Intended: only a refinement that succeeds here closes what this opens. The serial path and
    // the failures leave the hints standing.
    in.access(1);
    const vask_derive_strategy path = vask_derive_select(in.b, in.map, in.histo);
    if (path == VASK_DERIVE_SERIAL || path == VASK_DERIVE_FAILED) {
        in.release();
        return path == VASK_DERIVE_SERIAL ? GRPderive(rethisto, retbid, ct_histoid, ct_mapid, bid)
                                          : make_exception(place, "dispatcher failed");
    }

    BAT *grp = nullptr;
    BAT *ext = nullptr;
    const char *text = refine(path, in, grp, ext);
    if (text == nullptr) {
        in.access(-1);
        if (!vask_group_finish(grp, ext, in.b))
            text = failure::operation_failed;
    }
    if (text != nullptr) {
        in.release();
        give_back(grp);
        give_back(ext);
        return make_exception(place, text);
    }
    *rethisto = ext->bat_id;
    *retbid = grp->bat_id;
    in.release();

    const lng elapsed = GDKusec() - start;
    if (GDKdebug & DEBUG_GROUP_TIMING)
        THRprintf(THRgetdata(0),
                  "# VASKderive ( ct_histoid=%d, ct_mapid=%d, bid=%d ) -> "
                  "( rethisto=%d , retbid=%d ) {%d.%06d s}\n",
                  histo_id, map_id, b_id, *rethisto, *retbid, static_cast<int>(elapsed / 1'000'000),
                  static_cast<int>(elapsed % 1'000'000));
    return nullptr;
}
