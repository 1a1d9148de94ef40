#include "grouping/group_finish.h"

#include "kernel/frame.h"

namespace vask {

namespace {

//! False, and the BAT stays as it was, when the kernel cannot.
bool seal_in_place(BAT *&made) {
    BAT *sealed = seal(made);
    if (sealed != nullptr)
        made = sealed;
    return sealed != nullptr;
}

} // namespace

bool vask_group_finish(BAT *&grp, BAT *&ext, BAT *b) {
    BATsetcount(grp, b->info->count);
    // The nil mark stays as it is: a group id is the oid of a row and may be nil like any oid.
    grp->tail->sorted = 0;
    grp->tail->nonil = 0;
    ALIGNsetH(grp, b);
    if (!seal_in_place(grp))
        return false;

    BATkey(mirror_of(*ext), 0);
    if (ext->info->count == grp->info->count)
        BATkey(mirror_of(*grp), 1);
    BATkey(ext, 1);
    if (!seal_in_place(ext))
        return false;

    BBPkeepref(grp->bat_id);
    BBPkeepref(ext->bat_id);
    return true;
}

} // namespace vask
