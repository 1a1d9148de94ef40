#include "refkernel/algebra/old_groups.h"

#include "kernel/column.h"
#include "refkernel/algebra/held_bats.h"
#include "refkernel/bats.h"
#include "rows/huge_pages.h"

#include <algorithm>
#include <limits>

namespace refkernel::algebra {
namespace {

constexpr std::uint32_t no_number = std::numeric_limits<std::uint32_t>::max();

//! The stored oids of a BAT's column from its first row on, or null.
const oid *stored_ids(const BATcol &column, const BAT &b) {
    return is_void(column) ? nullptr : elements<const oid>(column) + b.info->first;
}

} // namespace

std::uint64_t affordable_places(BUN rows) {
    constexpr std::uint64_t places_per_row = 4;
    constexpr std::uint64_t places_of_small_inputs = 1024;
    return places_per_row * rows + places_of_small_inputs;
}

row_parents::row_parents(BAT &extents, BAT &map, BAT &b) {
    require_row_head(b);
    require_row_head(map);
    require_row_head(extents);
    if (map.tail->type != TYPE_oid && !is_void(*map.tail))
        throw failure("group map of oids required");
    collect_ids(map, b);
}

void row_parents::collect_ids(BAT &map, const BAT &b) {
    const BUN rows = b.info->count;
    const vask::oid_reader map_ids(*map.tail, map);
    const bool aligned = heads_are_aligned(map, b);
    if (aligned && map_ids.stored != nullptr) {
        ids_ = stored_ids(*map.tail, map);
        return;
    }
    collected_ids_ = vask::large_block<oid>(rows);
    ids_ = collected_ids_.get();
    if (aligned) {
        for (BUN row = 0; row < rows; ++row)
            collected_ids_[row] = map_ids[map_ids.first + row];
        return;
    }
    const vask::oid_reader heads(*b.head, b);
    const head_lookup lookup(map, rows);
    for (BUN row = 0; row < rows; ++row) {
        const BUN found = lookup.find(heads[heads.first + row]);
        collected_ids_[row] = found == NO_BUN ? oid_nil : map_ids[found];
    }
}

old_groups::old_groups(const row_parents &parents, BAT &extents, BUN rows)
    : count_(extents.info->count), ids_(parents.ids()), first_of_extents_(extents.info->first) {
    number_ids(extents, rows);
}

void old_groups::number_ids(BAT &extents, BUN rows) {
    const vask::oid_reader ids(*extents.head, extents);
    const BUN first = extents.info->first;
    const BUN end = first + count_;
    oid greatest = 0;
    low_ = count_ == 0 ? 0 : std::numeric_limits<oid>::max();
    for (BUN i = first; i < end; ++i) {
        low_ = std::min(low_, ids[i]);
        greatest = std::max(greatest, ids[i]);
    }
    const std::uint64_t bound = std::uint64_t{greatest} - low_ + 2;
    if (bound > affordable_places(std::max(count_, rows))) {
        lookup_.emplace(extents, rows);
        return;
    }
    numbers_ = vask::large_block<std::uint32_t>(bound);
    last_ = static_cast<std::uint32_t>(bound - 1);
    std::fill_n(numbers_.get(), bound, no_number);
    // Of an id that stands twice the first counts, as in the chains of a hash.
    for (BUN i = count_; i-- > 0;)
        numbers_[ids[first + i] - low_] = i;
}

std::uint32_t old_groups::number_of(oid id) const {
    std::uint32_t number = no_number;
    if (!lookup_)
        number = numbers_[std::min<oid>(id - low_, last_)];
    else if (const BUN found = lookup_->find(id); found != NO_BUN)
        number = found - first_of_extents_;
    if (number != no_number)
        return number;
    if (id != oid_nil)
        throw failure("operation failed: the group map has a group that is not in the extents");
    return count_;
}

void old_groups::load_numbers(BUN row, BUN rows, std::uint32_t *numbers) const {
    bool all_known = !lookup_;
    if (!lookup_) {
        const oid *const ids = ids_ + row;
        const std::uint32_t *const table = numbers_.get();
        const std::uint32_t last = last_;
        for (BUN i = 0; i < rows; ++i) {
            numbers[i] = table[std::min(ids[i] - low_, last)];
            all_known &= numbers[i] != no_number;
        }
    }
    if (!all_known)
        for (BUN i = 0; i < rows; ++i)
            numbers[i] = number_of(ids_[row + i]);
}

} // namespace refkernel::algebra
