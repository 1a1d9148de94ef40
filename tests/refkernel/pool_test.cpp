// References: who keeps a BAT alive, and what becomes of it when nobody does.
#include "tests/refkernel/leak_checked.h"
#include "vask/refkernel/instrumentation.h"
#include "vask/refkernel/reference_account.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

extern "C" {
unsigned flags_byte_in_c(unsigned varsized, unsigned key, unsigned dense, unsigned nonil,
                         unsigned nil);
unsigned access_word_in_c(const BAT *b);
}

namespace {

using namespace refkernel;

// The steps by which operators turn a number into a record.
BAT *fetch(int32_t id) {
    if (id == 0 || id == int_nil)
        return nullptr;
    const int32_t n = std::abs(id);
    if (n >= BBPsize || BBParr[n >> 16][n & 0xffff].logical_name == nullptr)
        return nullptr;
    const int valid = BBPincref(id, 0);
    const BBPrec &record = BBParr[n >> 16][n & 0xffff];
    BAT *b = id > 0 ? record.desc : record.desc_mirror;
    return b == nullptr && valid != 0 ? BBPdescriptor(id) : b;
}

// The BAT of a serial grouping, as a plan receives it: one logical reference.
int32_t handed_out() {
    BAT *b = BATnew(TYPE_oid, TYPE_wrd, 1);
    BBPkeepref(b->bat_id);
    return b->bat_id;
}

using Pool = leak_checked;

TEST_F(Pool, EveryReleaseSequenceOfOperatorsEndsWithNothing) {
    // A temporary, given up by its creator in each of the ways that operators use.
    BBPreclaim(BATnew(TYPE_void, TYPE_int, 10));
    BBPreleaseref(BATnew(TYPE_void, TYPE_int, 10)->bat_id);
    BBPdecref(BATnew(TYPE_void, TYPE_int, 10)->bat_id, 0);

    // Handed out by a grouping, fetched by number, dropped with 0 and then 1.
    int32_t id = handed_out();
    ASSERT_NE(fetch(id), nullptr);
    BBPdecref(id, 0);
    BBPdecref(id, 1);
    EXPECT_EQ(fetch(id), nullptr);

    // The same, the fetched reference dropped by its own operation; and never fetched.
    id = handed_out();
    ASSERT_NE(fetch(id), nullptr);
    BBPreleaseref(id);
    BBPdecref(id, 1);
    BBPdecref(handed_out(), 1);

    // A result: a view over the head of the extents and a new tail, of which the
    // creator keeps only the view.
    const bat extents = make_empty(TYPE_oid, TYPE_wrd, 3);
    BATsetcount(extents.record(), 3);
    BAT *e = fetch(extents.id());
    BAT *values = BATnew(TYPE_oid, TYPE_dbl, 3);
    const int32_t values_id = values->bat_id;
    BATsetcount(values, 3);
    values->state->access = ACCESS_READ;
    BAT *view = VIEWcreate(e, values);
    BBPreleaseref(values_id);
    ALIGNsetH(view, e);
    EXPECT_NE(BBParr[0][values_id].desc, nullptr) << "the view holds the source of its tail";
    const int32_t result = view->bat_id;
    BBPkeepref(result);
    EXPECT_EQ(view->bat_id, result) << "readable after it was handed over";
    BBPreleaseref(e->bat_id);
    const bat taken = bat::adopt(result);
    EXPECT_EQ(taken.values<double>().size(), 3U);
}

TEST_F(Pool, ABatLivesUntilItsLastHolderOfEitherKind) {
    for (int order = 0; order < 6; ++order) {
        BAT *b = BATnew(TYPE_void, TYPE_int, 1);
        const int32_t id = b->bat_id;
        BBPincref(-id, 1); // a mirror's reference is one on the BAT
        bat view = bat::adopt(VIEWcreate(b, b));
        const auto drop = [&](int which) {
            which == 0 ? BBPdecref(id, 0) : which == 1 ? BBPdecref(-id, 1) : view.reset();
        };
        const int orders[6][3] = {{0, 1, 2}, {0, 2, 1}, {1, 0, 2}, {1, 2, 0}, {2, 0, 1}, {2, 1, 0}};
        for (int step = 0; step < 3; ++step) {
            EXPECT_NE(BBParr[id >> 16][id & 0xffff].logical_name, nullptr) << order << " " << step;
            drop(orders[order][step]);
        }
        EXPECT_EQ(BBParr[id >> 16][id & 0xffff].logical_name, nullptr) << order;
        EXPECT_EQ(BBPincref(id, 0), 0);
        EXPECT_EQ(BBPdescriptor(id), nullptr);
    }
}

// What an operator took, handed over or dropped before an exception passed it, with a call of its
// own in between.
TEST_F(Pool, AnAccountGivesBackWhatIsHeld) {
    const bat input = make_void_column(3);
    const int32_t id = input.id();
    reference_account references;
    EXPECT_EQ(BBPincref(-id, 0), 1);
    BBPincref(id, 0);
    int32_t made = 0;
    {
        const reference_account of_the_call;
        BBPreleaseref(id);
        made = handed_out();
        BBPreleaseref(BATnew(TYPE_void, TYPE_int, 1)->bat_id);
    }
    references.give_back();
    EXPECT_EQ(BBParr[made >> 16][made & 0xffff].logical_name, nullptr);
    EXPECT_EQ(BBPincref(id, 0), 1); // beside the plan's logical one
    BBPreleaseref(id);
    references.give_back(); // of nothing
}

TEST(PoolMisuse, AReleaseTooManyIsReportedAndFreesNothing) {
    const checkpoint before;
    const bat held = make_column<int32_t>(std::vector{1, 2});
    const std::int64_t misuses = current_usage().misuses;
    BBPreleaseref(held.id()); // no physical reference stands
    BBPkeepref(held.id());
    BBPdecref(held.id(), 1);
    BBPdecref(BBPsize + 5, 1);
    BBPreleaseref(int_nil);
    EXPECT_EQ(current_usage().misuses - misuses, 4);
    EXPECT_EQ(held.count(), 2U);
    EXPECT_NE(before.leaks().find("nobody held"), std::string::npos);
}

TEST_F(Pool, TheMirrorIsTheSameDataWithHeadAndTailExchanged) {
    BAT *b = BATnew(TYPE_oid, TYPE_lng, 4);
    const oid head = 9;
    const lng tail = 1LL << 40;
    BUNfastins(b, &head, &tail);
    const BBPrec &record = BBParr[b->bat_id >> 16][b->bat_id & 0xffff];
    BAT *mirror = record.desc_mirror;
    EXPECT_EQ(record.desc, b);
    EXPECT_EQ(mirror->bat_id, -b->bat_id);
    EXPECT_EQ(mirror->head, b->tail);
    EXPECT_EQ(mirror->tail, b->head);
    EXPECT_EQ(mirror->info, b->info);
    EXPECT_EQ(mirror->state, b->state);
    EXPECT_EQ(fetch(mirror->bat_id), mirror);
    BBPreleaseref(-b->bat_id);
    EXPECT_EQ(std::string(record.logical_name), "tmp_" + std::to_string(b->bat_id));
    EXPECT_STRNE(record.mirror_name, record.logical_name);
    BBPreclaim(mirror);
}

TEST_F(Pool, RecordsLieWhereOperatorsInCLookForThem) {
    for (unsigned bits = 0; bits < 64; ++bits)
        EXPECT_EQ(flags_byte_in_c(bits & 1, bits >> 1, bits >> 3, bits >> 4, bits >> 5), bits);
    BAT *b = BATnew(TYPE_void, TYPE_int, 0);
    EXPECT_EQ(access_word_in_c(b), 0U);
    EXPECT_EQ(access_word_in_c(BATsetaccess(b, ACCESS_READ)), 2U);
    BBPreclaim(b);
}

TEST_F(Pool, ABatThatIsNotInMemoryIsLoadedByItsDescriptor) {
    const bat b = make_column<int32_t>(std::vector{1, 2});
    BAT *record = b.record();
    for (const int32_t id : {b.id(), -b.id()}) {
        ASSERT_TRUE(instrumentation::unload(id));
        const BBPrec &slot = BBParr[b.id() >> 16][b.id() & 0xffff];
        EXPECT_TRUE(slot.desc == nullptr && slot.desc_mirror == nullptr);
        BAT *loaded = fetch(id);
        ASSERT_NE(loaded, nullptr);
        EXPECT_EQ(loaded->bat_id, id);
        EXPECT_EQ(slot.desc, record);
        BBPreleaseref(id);
    }
    EXPECT_FALSE(instrumentation::unload(b.id() + 1));
}

TEST_F(Pool, ManyThreadsMakeHoldAndDropBats) {
    const bat shared = make_column<int32_t>(std::vector{1, 2, 3});
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::vector<bat> held;
            for (int i = 0; i < 3000; ++i) {
                BAT *b = fetch(shared.id());
                held.push_back(bat::adopt(VIEWcreate(b, b)));
                BBPreleaseref(shared.id());
                BAT *made = BATnew(TYPE_oid, TYPE_wrd, static_cast<BUN>(i % 7));
                BATextend(made, BATgrows(made));
                BBPreclaim(made);
                if (i % 3 == t % 3)
                    held.erase(held.begin());
            }
        });
    }
    threads.clear(); // joins
    EXPECT_EQ(current_usage().physical, 0);
}

TEST_F(Pool, NumbersOutgrowAChunkAndStaleOnesStayUnused) {
    std::vector<bat> held;
    const int32_t size_before = BBPsize;
    while (BBPsize == size_before)
        held.push_back(make_void_column(1));
    ASSERT_NE(fetch(held.back().id()), nullptr);
    BBPreleaseref(held.back().id());
    const int32_t stale = held.back().id();
    held.pop_back();
    for (int i = 0; i < 1000; ++i) {
        make_void_column(1);
        ASSERT_EQ(fetch(stale), nullptr);
    }
}

} // namespace
