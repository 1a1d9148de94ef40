// The rows of a BAT as the devices of src/rows take them, on the calling thread alone.
#ifndef REFKERNEL_ALGEBRA_SERIAL_ROWS_H
#define REFKERNEL_ALGEBRA_SERIAL_ROWS_H

// First, because it exports the names of the contract that the others declare.
#include "vask/refkernel/contract.h"

#include "rows/column_keys.h"
#include "rows/gdk_vector.h"
#include "rows/group_rows.h"

#include <cstddef>
#include <functional>

namespace refkernel::algebra {

using vask::block_rows;
using vask::extents_rows;
using vask::oid_reader;

//! Called once, with the number of groups; gives where the rows of the extents go.
using extents_maker = std::function<extents_rows(BUN groups)>;

inline void run_one_after_another(std::size_t n, const std::function<void(std::size_t)> &task) {
    for (std::size_t i = 0; i < n; ++i)
        task(i);
}

//! The positions first .. first + count - 1, as one range.
class serial_rows {
public:
    serial_rows(BUN first, BUN count) { range_.push_back({first, first + count}); }

    vask::ranged_rows get() const noexcept { return {range_, run_one_after_another}; }

    //! Groups the rows: each gets the id of its group, which `heads` names, in its cell of the map,
    //! that of the first row in the first one. No row may lack a key. Throws std::bad_alloc.
    template <class Key, class Kind>
    void group(const vask::grouping_keys<Key, Kind> &keys, oid_reader heads, oid *map,
               const extents_maker &make_extents) const {
        vask::group_sink sink;
        sink.make_room = [&make_extents](BUN groups, extents_rows &extents) {
            extents = make_extents(groups);
            return true;
        };
        vask::group_rows({get(), heads, map - range_[0].begin}, keys, sink);
    }

private:
    vask::gdk_vector<vask::vask_row_range> range_;
};

} // namespace refkernel::algebra

#endif
