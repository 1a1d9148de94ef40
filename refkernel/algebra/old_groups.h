// The groups that the rows of a BAT already belong to.
#ifndef REFKERNEL_ALGEBRA_OLD_GROUPS_H
#define REFKERNEL_ALGEBRA_OLD_GROUPS_H

#include "refkernel/algebra/head_lookup.h"
#include "rows/gdk_vector.h"
#include "vask/refkernel/contract.h"

#include <cstdint>
#include <optional>

namespace refkernel::algebra {

//! Most places that a table of ids can have where there are so many rows.
std::uint64_t affordable_places(BUN rows);

/*
 * The group of each row of b in an earlier grouping, by id: the row of `map` with the same head oid
 * has the group's id in its tail. A row that the map does not have, or to which it gives the nil,
 * is in no group.
 */
class row_parents {
public:
    //! Throws `failure` for heads and tails that are no oids, and std::bad_alloc. The BATs must
    //! stay as they are while this is in use.
    row_parents(BAT &extents, BAT &map, BAT &b);

    //! The ids of the rows' groups, by row of b; the nil for no group.
    const oid *ids() const noexcept { return ids_; }

private:
    void collect_ids(BAT &map, const BAT &b);

    const oid *ids_ = nullptr;
    vask::gdk_block<oid> collected_ids_; // unless the tail of the map serves as it is
};

/*
 * The same by number: a group's number is where the extents have its id in their head, counted from
 * 0. An id that the extents lack is a failure.
 */
class old_groups {
public:
    //! Throws as above. `parents` and the extents must stay as they are while this is in use.
    old_groups(const row_parents &parents, BAT &extents, BUN rows);

    //! The number of groups, and of no group.
    std::uint32_t count() const noexcept { return count_; }

    //! The ids of the rows' groups, as above.
    const oid *ids() const noexcept { return ids_; }

    //! Writes the numbers of the rows row .. row + rows - 1 of b. Throws `failure` for an id that
    //! the extents lack.
    void load_numbers(BUN row, BUN rows, std::uint32_t *numbers) const;

    //! The number of one group; throws as above.
    std::uint32_t number_of(oid id) const;

    //! Whether the nil names a group, as it does in a column under a head of nils.
    bool has_nil() const { return number_of(oid_nil) != count_; }

private:
    void number_ids(BAT &extents, BUN rows);

    std::uint32_t count_;
    const oid *ids_;
    // Numbers by id, counted from the lowest; the last place is for all others.
    vask::gdk_block<std::uint32_t> numbers_;
    oid low_ = 0;
    std::uint32_t last_ = 0;
    std::optional<head_lookup> lookup_; // where a table would be too large
    BUN first_of_extents_;
};

} // namespace refkernel::algebra

#endif
