#include "rows/slot_table.h"

#include "vask/embed.h"

#include <algorithm>
#include <numeric>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

using vask::slot_table_owner;

//! n ids that lie `distance` apart.
std::vector<oid> even_ids(oid n, oid distance) {
    std::vector<oid> ids(n);
    for (oid i = 0; i < n; ++i)
        ids[i] = 7 + i * distance;
    return ids;
}

// A lookup by hash touches what the groups need. A table must not touch many times that, unless
// there are rows enough to pay for it.
TEST(SlotTable, IsMadeWhereItsPagesAreWorthTheRows) {
    constexpr BUN rows = 4'000'000;
    std::vector<oid> shuffled = even_ids(40'000, 790);
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(3));
    std::vector<oid> with_one_far = even_ids(40'000, 3);
    with_one_far.push_back(30'000'000);
    std::vector<oid> repeated = even_ids(100, 10);
    repeated[70] = repeated[3];
    const struct {
        const char *name;
        std::vector<oid> ids;
        std::uint64_t tasks;
        bool made;
    } cases[] = {
        {"spread over eight times the rows", even_ids(40'000, 790), 1, false},
        {"the same in no order", shuffled, 1, false},
        {"few, spread as far", even_ids(100, 300'000), 1, true},
        {"most of them close together", with_one_far, 1, true},
        {"spread over the rows", even_ids(40'000, 99), 1, true},
        {"of which each task has few", even_ids(40'000, 99), 16, false},
        {"so many that they fill their pages", even_ids(1'000'000, 8), 16, true},
        {"close together for many tasks", even_ids(40'000, 2), 16, true},
        {"further apart than any grouping's", even_ids(3, 500'000'000), 1, false},
        {"one of them twice", repeated, 1, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const refkernel::bat extents = refkernel::make_column(
            std::vector<wrd>(c.ids.size(), 1),
            {.type = TYPE_wrd, .stored_head = true, .head_oids = c.ids, .first = 5});
        const slot_table_owner owner(*extents.record(), rows, c.tasks);
        ASSERT_EQ(owner.get() != nullptr, c.made);
        if (!c.made)
            continue;
        for (BUN slot = 0; slot < c.ids.size(); ++slot)
            ASSERT_EQ(owner.get()->find(c.ids[slot]), 5 + slot);
        for (const oid unknown : {oid{6}, oid{8}, c.ids.back() + 1, oid_nil, ~oid{0}})
            EXPECT_GE(owner.get()->find(unknown), 5 + c.ids.size()) << unknown;
    }
}

} // namespace
