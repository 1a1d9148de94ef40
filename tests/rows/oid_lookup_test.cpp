#include "rows/oid_lookup.h"

#include "support/grouped_reference.h"

#include <algorithm>

#include <gtest/gtest.h>

namespace {

using refkernel::bat;

TEST(OidLookup, FindsTheFirstOfEqualOidsByArithmeticAndByHash) {
    for (const support::grouped_shape &shape : support::grouped_shapes()) {
        const support::grouped_inputs inputs(shape);
        // The head of a view is searched in its own rows and answers with its own positions.
        const BUN from = shape.groups / 3;
        const bat view = refkernel::view_rows(inputs.extents, from, shape.groups - from);
        const vask::oid_lookup lookup(*view.record());
        const auto first = inputs.ids().begin() + from;
        for (const oid v : inputs.ids()) {
            const auto found = std::find(first, inputs.ids().end(), v);
            ASSERT_EQ(lookup.find(v), found == inputs.ids().end()
                                          ? NO_BUN
                                          : static_cast<BUN>(found - inputs.ids().begin()))
                << shape << ", oid " << v;
        }
        for (const oid v : {oid_nil, oid{1}, oid{999}, 1000 + shape.groups}) {
            if (std::find(first, inputs.ids().end(), v) == inputs.ids().end()) {
                ASSERT_EQ(lookup.find(v), NO_BUN) << shape << ", oid " << v;
            }
        }
    }
    // All nil: the arithmetic would answer, the rows do not.
    const bat nils = refkernel::make_void_column(4, 0, {.seqbase = oid_nil});
    EXPECT_EQ(vask::oid_lookup(*nils.record()).find(oid_nil + 1), NO_BUN);
    // Up to the greatest oid, and on: what lies behind it is not the first oids again.
    constexpr oid last = 0xffffffff;
    for (const BUN rows : {16U, 100U}) {
        const bat end = refkernel::make_void_column(rows, 0, {.seqbase = last - 15});
        const vask::oid_lookup lookup(*end.record());
        EXPECT_EQ(lookup.find(last), 15U);
        EXPECT_EQ(lookup.find(last - 16), NO_BUN);
        for (const oid v : {oid{0}, oid{83}, oid{84}})
            EXPECT_EQ(lookup.find(v), NO_BUN) << rows << " rows, oid " << v;
    }
}

} // namespace
