// Keys of a refinement: which numbers stand for the old groups, and what of the values is told
// apart.
#pragma once

#include "grouping/table/custom_mask.h"
#include "rows/group_of_row.h"
#include "rows/pair_keys.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vask {

//! Old groups by their ids.
struct groups_by_id {
    const grouped_rows *old;

    bool number(BUN row, BUN n, BUN *numbers) const {
        const oid *ids = map_rows(*old).ids(row, n, numbers);
        if (ids != nullptr && ids != numbers)
            std::copy_n(ids, n, numbers);
        return ids != nullptr;
    }
};

//! Old groups by their rows in the old extents.
struct groups_by_row {
    const grouped_rows *old;
    const slot_table *table; // of the old extents, or null

    BUN count() const noexcept { return old->extents->info->count; }

    bool number(BUN row, BUN n, BUN *numbers) const {
        map_rows map(*old);
        return table != nullptr
                   ? number_rows(map, *table, *old->extents, row, n, numbers)
                   : number_rows(map, oid_lookup(*old->extents), *old->extents, row, n, numbers);
    }
};

//! Numbers as comparisons see them: -0.0 is 0.0, and a NaN is like no other, for which its row
//! stands where the old group would.
template <std::floating_point T, class Groups>
auto load_derived_by_number(const Groups &groups, const number_keys<T> &values) {
    using key_type = numbered_key<value_bits<T>>;
    return key_loader<key_type>(
        [=](BUN row, BUN n, std::uint32_t *numbers, key_type *out, bool again) {
            if (!again && !groups.number(row, n, numbers))
                return false;
            for (std::size_t i = 0; i < n; ++i) {
                const T value = (values.rows + row)[i];
                const bool nan = std::isnan(value);
                const T same = nan ? std::numeric_limits<T>::quiet_NaN() : value + T(0);
                out[i] = key_beside<value_bits<T>>(nan ? row + static_cast<BUN>(i) : numbers[i],
                                                   key_bits(same));
            }
            return true;
        });
}

//! Pairs by index, of a column of integers, whose values are scanned.
template <std::integral T>
index_source index_of_integers(const groups_by_row &groups, const BAT &b,
                               const grouping_rows &rows) {
    return index_of_pairs(groups, number_keys<T>(*b.tail), span_of(scan_values<T>(b)), rows);
}

} // namespace vask
