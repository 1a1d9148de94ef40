#include "grouping/group_finish.h"

#include "kernel/frame.h"

namespace vask {

void vask_group_finish(BAT *&grp, BAT *&ext, BAT *b) {
    BATsetcount(grp, b->info->count);
    // The nil mark stays as it is: a group id is the oid of a row and may be nil like any oid.
    grp->tail->sorted = 0;
    grp->tail->nonil = 0;
    ALIGNsetH(grp, b);
    grp = seal(grp);

    BATkey(mirror_of(*ext), 0);
    if (ext->info->count == grp->info->count)
        BATkey(mirror_of(*grp), 1);
    BATkey(ext, 1);
    ext = seal(ext);

    BBPkeepref(grp->bat_id);
    BBPkeepref(ext->bat_id);
}

} // namespace vask
