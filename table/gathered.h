// The values of each group side by side, for what no operator works out.
#pragma once

#include "table/groups.h"
#include "table/kernel_column.h"
#include "table/parallel.h"

#include "statistics/values_by_group.h"

#include <cstddef>
#include <span>
#include <utility>

namespace vask::table {

//! Rows with a value. Of the whole there is no map.
struct present_rows {
    refkernel::bat values;
    refkernel::bat map;
};

//! Values stored as S, by group as Ts.
template <class T, class S>
class gathered_values {
public:
    gathered_values(const present_rows &rows, const groups &by)
        : values_(gathered(rows, by, rows.map ? bat::share(rows.map.id()) : whole_map(rows))) {}

    //! Calls `work(group, values)` for every group, in tasks. It may put the values in another
    //! order.
    template <class Work>
    void for_each(const Work &work) {
        for_each_number(values_.runs(), [&](std::size_t i) {
            (void)values_.visit_run(i, [&](BUN group, std::span<T> own) {
                work(static_cast<std::size_t>(group), own);
                return true;
            });
        });
    }

private:
    using bat = refkernel::bat;

    // One group, with the number 0.
    static bat whole_map(const present_rows &rows) {
        bat map =
            refkernel::make_column(std::vector<oid>(rows.values.count()), {.look_for_nils = false});
        ALIGNsetH(map.record(), rows.values.record());
        return map;
    }

    static values_by_group<T> gathered(const present_rows &rows, const groups &by, const bat &map) {
        BAT *const values = rows.values.record();
        const grouped_rows in{values, map.record(), by.extents().record(),
                              ALIGNsynced(map.record(), values) != 0 ? map_order::in_step
                                                                     : map_order::by_head};
        auto found =
            values_by_group<T>::template vask_scatter_groups<S>(in, vask_range_count(*values));
        if (!found)
            throw std::logic_error("a row of a query is in none of its groups");
        return std::move(*found);
    }

    values_by_group<T> values_;
};

} // namespace vask::table
