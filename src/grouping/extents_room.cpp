#include "grouping/extents_room.h"

#include "grouping/bunfastins.h"
#include "kernel/column.h"

#include <algorithm>

namespace vask {

namespace {

bool is_plain(int type) noexcept {
    return BATatoms[type].atom_put == nullptr && BATatoms[type].atom_fix == nullptr;
}

void count_rows(BAT &ext, BUN n) noexcept {
    ext.head->free += n * sizeof(oid);
    ext.tail->free += n * sizeof(wrd);
    ext.info->count += n;
}

} // namespace

extents_room::extents_room(BAT &ext) noexcept
    : ext_(&ext), plain_(is_plain(TYPE_oid) && is_plain(TYPE_wrd)) {}

bool extents_room::make(BUN groups, extents_rows &rows) {
    if (!plain_) {
        ids_ = gdk_vector<oid>(groups);
        counts_ = gdk_vector<wrd>(groups);
        rows = {ids_.data(), counts_.data()};
        return true;
    }
    const BUN begin = end_position(*ext_);
    for (BUN left = groups; left != 0;) {
        const BUN position = end_position(*ext_);
        const BUN end = std::min(ext_->info->capacity, last_position);
        if (position < end) {
            const BUN n = std::min(left, end - position);
            count_rows(*ext_, n);
            left -= n;
        } else if (!vask_make_room(*ext_)) {
            return false;
        }
    }
    rows = {rows_of<oid>(*ext_->head) + begin, rows_of<wrd>(*ext_->tail) + begin};
    return true;
}

bool extents_room::finish() {
    for (std::size_t i = 0; i < ids_.size(); ++i)
        if (!vask_bunfastins(*ext_, &ids_[i], &counts_[i]))
            return false;
    return true;
}

bool append_groups(BAT &ext, const new_group *groups, std::size_t n) {
    extents_room room(ext);
    extents_rows rows;
    if (!room.make(static_cast<BUN>(n), rows))
        return false;
    for (std::size_t i = 0; i < n; ++i) {
        rows.ids[i] = groups[i].id;
        rows.counts[i] = groups[i].count;
    }
    return room.finish();
}

group_sink sink_into(extents_room &room) {
    group_sink sink;
    sink.make_room = [&room](BUN groups, extents_rows &rows) { return room.make(groups, rows); };
    return sink;
}

} // namespace vask
