// The groups that the rows of a BAT already belong to.
#ifndef REFKERNEL_ALGEBRA_OLD_GROUPS_H
#define REFKERNEL_ALGEBRA_OLD_GROUPS_H

#include "refkernel/algebra/head_lookup.h"
#include "refkernel/algebra/row_groups.h"
#include "refkernel/algebra/work_array.h"
#include "refkernel/contract.h"

#include <cstdint>
#include <optional>

namespace refkernel::algebra {

/*
 * Numbers a row of b by the group it has in an earlier grouping: the row of `map` with the same
 * head oid has the group's id in its tail, and the number is where the extents have that id in
 * their head, counted from 0.
 *
 * A row that the map does not have, or to which it gives the nil, is in no group and has the
 * number count(). An id that the extents lack is a failure.
 */
class old_groups {
public:
    //! Throws `failure` for heads and tails that are no oids, and std::bad_alloc. The BATs must
    //! stay as they are while this is in use.
    old_groups(BAT &extents, BAT &map, BAT &b);

    //! The number of groups.
    std::uint32_t count() const noexcept { return count_; }

    //! Writes the numbers of the rows row .. row + rows - 1 of b, at most block_rows. Throws
    //! `failure` for an id that the extents lack.
    void load(BUN row, unsigned rows, std::uint32_t *numbers);

    //! The least row loaded so far that is in no group, if there is one.
    std::optional<BUN> first_outside() const noexcept { return first_outside_; }

    //! Whether a row can be found to be in no group at all. Reads the map if its marks do not tell.
    bool may_have_outside() const;

private:
    const oid *ids_of_rows(BUN row, unsigned rows, oid *scratch) const;
    void number_ids();
    void settle(const oid *ids, BUN row, unsigned rows, std::uint32_t *numbers);

    const BAT &extents_;
    const BAT &map_;
    const BAT &b_;
    std::uint32_t count_;
    std::optional<head_lookup> map_lookup_;     // none: row i belongs to row i
    std::optional<head_lookup> extents_lookup_; // none: numbered by the table
    // Numbers by id; the last place is for ids outside of the range.
    work_array<std::uint32_t> numbers_;
    std::uint32_t low_ = 0;
    std::optional<BUN> first_outside_;
};

} // namespace refkernel::algebra

#endif
