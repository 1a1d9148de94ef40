#include "distinct/row_slots.h"

namespace vask {

row_slots::map_cursor::map_cursor(const BAT &g) noexcept
    : head_(*g.head, g),
      dense_(is_dense(*g.head) && g.head->seqbase != oid_nil),
      position_(g.info->first),
      first_(g.info->first),
      end_(end_position(g)) {}

VASK_ALWAYS_INLINE bool row_slots::map_cursor::move_to(oid h) noexcept {
    if (dense_) {
        position_ = first_ - head_.seqbase + h;
        // A head near the greatest oid does not begin anew at 0.
        return h >= head_.seqbase && h - head_.seqbase < end_ - first_;
    }
    while (position_ < end_ && head_[position_] < h)
        ++position_;
    return position_ < end_ && head_[position_] == h;
}

bool row_slots::map_cursor::move_to_run(oid h, BUN n) noexcept {
    return dense_ && move_to(h) && n <= end_ - position_;
}

row_slots::row_slots(const grouped_values &inputs, const slot_table *table)
    : heads_(*inputs.b->head, *inputs.b),
      gids_(*inputs.g->tail, *inputs.g),
      map_(*inputs.g),
      lookup_(*inputs.groups),
      table_(table),
      first_group_(inputs.groups->info->first),
      group_count_(inputs.groups->info->count) {}

bool row_slots::find(BUN row, BUN n, BUN *slots) noexcept {
    return table_ != nullptr ? find_by(*table_, row, n, slots) : find_by(lookup_, row, n, slots);
}

template <class Lookup>
bool row_slots::find_by(const Lookup &groups, BUN row, BUN n, BUN *slots) noexcept {
    // Of a group that is not there the lookup gives a number that is no slot.
    const auto slot_of = [=, first = first_group_](oid gid) {
        return vask_group_slot(groups, gid) - first;
    };
    const BUN count = group_count_;
    const bool heads_in_sequence = heads_.stored == nullptr && heads_.seqbase != oid_nil;
    if (heads_in_sequence && gids_.stored != nullptr && map_.move_to_run(heads_[row], n)) {
        const oid *gids = gids_.stored + map_.position();
        bool known = true;
        for (BUN i = 0; i < n; ++i) {
            slots[i] = slot_of(gids[i]);
            known &= slots[i] < count;
        }
        return known;
    }
    for (BUN i = 0; i < n; ++i) {
        slots[i] = no_slot;
        if (!map_.move_to(heads_[row + i]))
            continue;
        slots[i] = slot_of(gids_[map_.position()]);
        if (slots[i] >= count)
            return false;
    }
    return true;
}

} // namespace vask
