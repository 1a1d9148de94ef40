// Groups of rows with equal values in some columns.
#pragma once

#include "csv_header.h"
#include "explain.h"
#include "operator_library.h"
#include "table_loader.h"

#include "vask/embed.h"

#include <cstddef>
#include <vector>

namespace vask::runner {

struct row_groups {
    refkernel::bat map;     //!< for each row, the id of its group
    refkernel::bat extents; //!< ids of the groups in the head, numbers of rows in the tail
    //! By row of the extents, the number of a row of the group, its first one: that is what a
    //! group's id is, as rows count from 0.
    std::vector<oid> first_rows;
    //! The order in which the groups are shown, as rows of the extents.
    std::vector<BUN> order;
};

//! All rows as one group, which is there even without rows.
row_groups one_group(BUN rows);

//! Groups the rows of a table by at least one column; missing values make up a group of their own.
//! The order is that of the groups' first rows, or, if `sorted`, ascending by the columns in turn
//! with missing values last, NaN before them. Explains the road that each step took.
row_groups group_rows(const std::vector<std::size_t> &columns, bool sorted, const table &data,
                      const csv_header &header, const operator_library &operators,
                      const explain_log &explain);

} // namespace vask::runner
