// One of the paths of grouping on one column, checked against the plain groups.
#pragma once

#include "grouping/plain_groups.h"
#include "support/leak_guard.h"

#include <algorithm>
#include <vector>

#include <gtest/gtest.h>

namespace support {

//! Whether a path, run on the column, gives these groups with their map under the column's head,
//! and the given mark for its ids.
template <class Path>
void expect_path(Path path, const refkernel::bat &b, const plain_groups &expected,
                 const std::vector<oid> &oids, int ids_sorted) {
    const leak_guard leaks;
    group_results made(b);
    ASSERT_EQ(path(made.ext.record(), made.grp.record(), b.record()), 1);
    EXPECT_EQ(difference(read_groups(*made.grp.record(), *made.ext.record(), b.count()), expected),
              "");
    if (b->head->type != TYPE_void) {
        const oid *map_heads = static_cast<const oid *>(made.grp->head->base);
        EXPECT_TRUE(std::equal(oids.begin(), oids.end(), map_heads));
    }
    EXPECT_EQ(made.ext->head->sorted, ids_sorted);
    EXPECT_EQ(made.ext->tail->sorted, 0);
    EXPECT_EQ(made.grp.count(), 0U) << "the count is the caller's";
}

} // namespace support
