// Views and alignment.
#include "tests/refkernel/leak_checked.h"
#include "vask/refkernel/instrumentation.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace refkernel;

using Views = leak_checked;

TEST_F(Views, ShareHeadAndTailMemoryWhereverTheirSourcesBegin) {
    for (const BUN head_first : {0U, 3U}) {
        for (const BUN tail_first : {0U, 5U}) {
            for (const bool stored : {false, true}) {
                column_options options{.stored_head = stored, .seqbase = 20, .first = head_first};
                bat a = make_column<std::int8_t>(std::vector<std::int8_t>{1, 2, 3}, options);
                options = {};
                options.first = tail_first;
                options.type = TYPE_wrd;
                bat b = make_column<std::int64_t>(std::vector<std::int64_t>{7, 8, 9}, options);
                const bat view = bat::adopt(VIEWcreate(a.record(), b.record()));
                EXPECT_EQ(view.count(), 3U);
                EXPECT_EQ(view->tail->type, TYPE_wrd);
                EXPECT_EQ(view->head->type, stored ? TYPE_oid : TYPE_void);
                EXPECT_EQ(view->state->access, ACCESS_READ);
                view.mutable_values<std::int64_t>()[2] = 99;
                EXPECT_EQ(b.values<std::int64_t>()[2], 99) << "writes reach the source";
                view->tail->nil = 1;
                EXPECT_FALSE(b->tail->nil) << "the marks are the view's own";
                a.reset();
                b.reset();
                EXPECT_EQ(view.head_oid(0), 20U);
                EXPECT_EQ(view.head_oid(2), 22U);
                EXPECT_EQ(view.values<std::int64_t>()[0], 7);

                const bat heads = bat::adopt(VIEWcombine(view.record()));
                for (BUN i = 0; i < 3; ++i) {
                    EXPECT_EQ(heads.head_oid(i), 20 + i);
                    EXPECT_EQ(heads.tail_oid(i), 20 + i);
                }
            }
        }
    }
}

TEST_F(Views, ASliceKeepsThePositionsOfItsRows) {
    const column_options options{.tail = {.sorted = true, .key = true, .dense = true},
                                 .seqbase = 10};
    const bat whole = make_column<oid>(std::vector<oid>{5, 6, 7, 8, 9}, options);
    whole->tail->seqbase = 5;
    ASSERT_NE(BAThash(whole.record(), 0), nullptr);
    const bat part = view_rows(view_rows(whole, 1, 4), 1, 2);
    EXPECT_EQ(part->info->first, 2U);
    EXPECT_EQ(part->tail->base, whole->tail->base);
    EXPECT_EQ(part.values<oid>()[0], 7U);
    EXPECT_EQ(part.head_oid(0), 12U);
    EXPECT_EQ(part->tail->seqbase, 7U) << "still dense, from its own first row on";
    EXPECT_EQ(part->head->hash, nullptr);
    EXPECT_EQ(part->tail->free, 4 * sizeof(oid));
}

TEST_F(Views, AnAppendToTheSourceDoesNotMoveTheView) {
    const bat source = make_column<std::int32_t>(std::vector{1, 2, 3}, {.writable = true});
    const bat view = bat::adopt(VIEWcreate(source.record(), source.record()));
    const void *memory = view->tail->base;
    for (oid next = 3; next < 1000; ++next) {
        const std::int32_t value = -1;
        ASSERT_NE(BUNfastins(source.record(), &next, &value), nullptr);
    }
    EXPECT_EQ(view->tail->base, memory);
    EXPECT_EQ(view.count(), 3U);
    EXPECT_EQ(view.values<std::int32_t>()[2], 3);
    EXPECT_EQ(source.values<std::int32_t>()[2], 3);
}

// The owner cannot know of a view that is dropped elsewhere, so nothing orders the two.
TEST_F(Views, AnAppendToTheSourceIsSafeWhoeverDropsTheLastViewMeanwhile) {
    constexpr BUN viewed_rows = 100;
    constexpr BUN all_rows = 2000;
    text_builder texts;
    std::vector<std::int32_t> numbers;
    for (BUN row = 0; row < viewed_rows; ++row) {
        texts.append(std::to_string(row));
        numbers.push_back(static_cast<std::int32_t>(row));
    }
    const auto right_rows = [](const bat &b) {
        BUN right = 0;
        for (BUN row = 0; row < b.count(); ++row)
            right += b.type() == TYPE_str ? b.text(row) == std::to_string(row)
                                          : b.values<std::int32_t>()[row] == std::int32_t(row);
        return right;
    };
    const bat sources[] = {make_column<std::int32_t>(numbers, {.writable = true}),
                           texts.finish({.writable = true})};
    for (const bat &source : sources) {
        BAT *const owned = source.record(); // asking the pool for it later would order the two
        std::atomic<bool> dropped = false;
        const std::jthread reader([&, view = bat::adopt(VIEWcreate(owned, owned))]() mutable {
            EXPECT_EQ(right_rows(view), viewed_rows);
            view.reset();
            dropped.store(true, std::memory_order_relaxed); // relaxed: it orders nothing
        });
        while (!dropped.load(std::memory_order_relaxed))
            std::this_thread::yield();
        for (BUN row = viewed_rows; row < all_rows; ++row) {
            const auto number = static_cast<std::int32_t>(row);
            const std::string text = std::to_string(row);
            const void *value = &number;
            if (owned->tail->type == TYPE_str)
                value = text.c_str();
            ASSERT_NE(BUNfastins(owned, &row, value), nullptr);
        }
        EXPECT_EQ(right_rows(source), all_rows);
    }
}

TEST_F(Views, HeadsAreAlignedWhenRowsAreKnownToBelongTogether) {
    const auto column = [](BUN rows, bool stored, oid seqbase = 0, column_marks marks = {}) {
        return make_column<std::int32_t>(
            std::vector<std::int32_t>(rows),
            {.stored_head = stored, .seqbase = seqbase, .head = marks, .writable = true});
    };
    const auto synced = [](const bat &a, const bat &b) {
        const bool one_way = ALIGNsynced(a.record(), b.record()) != 0;
        EXPECT_EQ(ALIGNsynced(b.record(), a.record()) != 0, one_way);
        return one_way;
    };
    const column_marks dense{true, true, true, false, true};
    // By what the heads say of themselves.
    EXPECT_TRUE(synced(column(3, false), column(3, false)));
    EXPECT_FALSE(synced(column(3, false), column(4, false)));
    EXPECT_FALSE(synced(column(3, false, 1), column(3, false, 2)));
    EXPECT_TRUE(synced(column(3, false, 9), column(3, true, 9, dense)));
    EXPECT_FALSE(synced(column(3, false, oid_nil), column(3, false, oid_nil)));
    EXPECT_FALSE(synced(column(3, true), column(3, true)));
    // By record, which is passed on, and lost by whoever's rows change.
    const bat a = column(3, true);
    const bat b = column(3, true);
    const bat c = column(3, true);
    ALIGNsetH(b.record(), a.record());
    ALIGNsetH(c.record(), b.record());
    EXPECT_TRUE(synced(a, b) && synced(a, c) && synced(b, c));
    const bat view = bat::adopt(VIEWcreate(a.record(), b.record()));
    EXPECT_TRUE(synced(view, c));
    EXPECT_FALSE(synced(view_rows(a, 0, 2), view_rows(c, 1, 2)));
    const oid next = 3;
    const std::int32_t value = 0;
    BUNfastins(a.record(), &next, &value);
    BUNfastins(b.record(), &next, &value);
    EXPECT_FALSE(synced(a, b));
    EXPECT_TRUE(synced(view, c));
    BATmaterializeh(c.record());
    EXPECT_FALSE(synced(view, c));
    // A void head takes over where the other one counts from.
    const bat map = column(3, false);
    ALIGNsetH(map.record(), column(3, false, 70).record());
    EXPECT_EQ(map.head_oid(2), 72U);
    ALIGNsetH(map.record(), column(3, false, oid_nil).record());
    EXPECT_EQ(map.head_oid(2), oid_nil);
}

TEST_F(Views, SealingMayGiveBackAnotherBat) {
    for (const bool replaces : {false, true}) {
        instrumentation::replace_on_setaccess(replaces);
        BAT *b = BATnew(TYPE_void, TYPE_int, 2);
        BATsetcount(b, 2);
        BAT *sealed = BATsetaccess(b, ACCESS_READ);
        instrumentation::replace_on_setaccess(false);
        EXPECT_EQ(sealed != b, replaces);
        EXPECT_EQ(sealed->state->access, ACCESS_READ);
        EXPECT_EQ(sealed->info->count, 2U);
        BBPkeepref(sealed->bat_id);
        bat::adopt(sealed->bat_id);
    }
}

} // namespace
