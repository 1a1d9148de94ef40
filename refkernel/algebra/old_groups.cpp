#include "refkernel/algebra/old_groups.h"

#include "refkernel/algebra/held_bats.h"
#include "refkernel/algebra/value_groups.h"
#include "refkernel/bats.h"

#include <algorithm>
#include <array>
#include <limits>

namespace refkernel::algebra {
namespace {

constexpr std::uint32_t no_number = std::numeric_limits<std::uint32_t>::max();

} // namespace

old_groups::old_groups(BAT &extents, BAT &map, BAT &b)
    : extents_(extents), map_(map), b_(b), count_(extents.info->count) {
    require_row_head(b);
    require_row_head(map);
    require_row_head(extents);
    if (map.tail->type != TYPE_oid && !is_void(*map.tail))
        throw failure("group map of oids required");
    if (!heads_are_aligned(map, b))
        map_lookup_.emplace(map, b.info->count);
    number_ids();
    if (numbers_.data() == nullptr)
        extents_lookup_.emplace(extents, b.info->count);
}

void old_groups::number_ids() {
    const BATcol &head = *extents_.head;
    if (count_ == 0) {
        low_ = 0;
        numbers_ = work_array<std::uint32_t>::uninitialised(1);
        numbers_[0] = no_number;
        return;
    }
    if (is_dense(head) && head.seqbase != oid_nil)
        return;
    const row_ids ids = ids_of(*extents_.head, *extents_.info);
    oid least = ids[0];
    oid greatest = ids[0];
    for (BUN i = 0; i < count_; ++i) {
        least = std::min(least, ids[i]);
        greatest = std::max(greatest, ids[i]);
    }
    const std::uint64_t bound = std::uint64_t{greatest} - least + 2;
    if (bound > index_bound_worth(std::max(count_, b_.info->count)))
        return;
    low_ = least;
    numbers_ = work_array<std::uint32_t>::uninitialised(bound);
    std::fill_n(numbers_.data(), bound, no_number);
    // Of an id that stands twice the first counts, as in the chains of a hash.
    for (BUN i = count_; i-- > 0;)
        numbers_[ids[i] - least] = i;
}

const oid *old_groups::ids_of_rows(BUN row, unsigned rows, oid *scratch) const {
    const row_ids map_ids = ids_of(*map_.tail, *map_.info);
    if (!map_lookup_ && map_ids.stored != nullptr)
        return map_ids.stored + row;
    const row_ids heads = ids_of(*b_.head, *b_.info);
    for (unsigned i = 0; i < rows; ++i) {
        if (!map_lookup_) {
            scratch[i] = map_ids[row + i];
            continue;
        }
        const BUN found = map_lookup_->find(heads[row + i]);
        scratch[i] = found == NO_BUN ? oid_nil : map_ids[found - map_.info->first];
    }
    return scratch;
}

void old_groups::load(BUN row, unsigned rows, std::uint32_t *numbers) {
    std::array<oid, block_rows> scratch;
    const oid *const ids = ids_of_rows(row, rows, scratch.data());
    bool all_known = true;
    if (extents_lookup_) {
        for (unsigned i = 0; i < rows; ++i) {
            const BUN found = extents_lookup_->find(ids[i]);
            numbers[i] = found == NO_BUN ? no_number : found - extents_.info->first;
            all_known &= numbers[i] != no_number;
        }
    } else {
        const std::uint32_t *const table = numbers_.data();
        const oid low = low_;
        const auto last = static_cast<std::uint32_t>(numbers_.size() - 1);
        for (unsigned i = 0; i < rows; ++i) {
            numbers[i] = table[std::min(ids[i] - low, last)];
            all_known &= numbers[i] != no_number;
        }
    }
    if (!all_known)
        settle(ids, row, rows, numbers);
}

void old_groups::settle(const oid *ids, BUN row, unsigned rows, std::uint32_t *numbers) {
    for (unsigned i = 0; i < rows; ++i) {
        if (numbers[i] == no_number) {
            if (ids[i] != oid_nil) {
                throw failure("operation failed: the group map has a group that is not in the "
                              "extents");
            }
            numbers[i] = count_;
            first_outside_ = std::min(first_outside_.value_or(row + i), row + i);
        }
    }
}

bool old_groups::may_have_outside() const {
    const BATcol &ids = *map_.tail;
    if (map_lookup_)
        return true;
    if (ids.nonil || is_void(ids))
        return is_void(ids) && ids.seqbase == oid_nil;
    const oid *const begin = elements<const oid>(ids) + map_.info->first;
    return std::find(begin, begin + map_.info->count, oid_nil) != begin + map_.info->count;
}

} // namespace refkernel::algebra
