// Faults on request, records of calls, accounts.
#include "vask/embed.h"
#include "vask/refkernel/instrumentation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <thread>
#include <vector>

namespace {

using namespace refkernel;
using instrumentation::operation;
using instrumentation::watch;

TEST(Instrumentation, MakesAnOperationFailAtItsNthCallOnce) {
    const bat b =
        make_column<oid>(std::vector<oid>{3, 1, 2}, {.stored_head = true, .writable = true});
    const bat texts = make_text_column(std::vector<std::string_view>{"x"});
    const checkpoint before;
    const oid value = 9;
    const auto drop = [](BAT *made) {
        if (made != nullptr)
            BBPreclaim(made);
        return made != nullptr;
    };
    const auto drop_block = [](void *block) {
        GDKfree(block);
        return block != nullptr;
    };
    BAT *record = b.record();
    const std::map<operation, std::function<bool()>> calls = {
        {operation::bbp_incref,
         [&] {
             const bool taken = BBPincref(b.id(), 0) != 0;
             if (taken)
                 BBPreleaseref(b.id());
             return taken;
         }},
        {operation::bbp_descriptor, [&] { return BBPdescriptor(b.id()) != nullptr; }},
        {operation::bat_new, [&] { return drop(BATnew(TYPE_void, TYPE_int, 5)); }},
        {operation::bat_extend, [&] { return BATextend(record, 100) != nullptr; }},
        {operation::bun_fastins, [&] { return BUNfastins(record, &value, &value) != nullptr; }},
        {operation::gdk_upgradevarheap,
         [&] { return GDKupgradevarheap(texts->tail, 300, 0) != 0; }},
        {operation::bat_setaccess, [&] { return BATsetaccess(record, ACCESS_READ) != nullptr; }},
        {operation::bat_copy, [&] { return drop(BATcopy(record, TYPE_oid, TYPE_oid, 1)); }},
        {operation::bat_materialize, [&] { return BATmaterialize(record) != nullptr; }},
        {operation::bat_materializeh, [&] { return BATmaterializeh(record) != nullptr; }},
        {operation::view_create, [&] { return drop(VIEWcreate(record, record)); }},
        {operation::view_combine, [&] { return drop(VIEWcombine(record)); }},
        {operation::bat_hash, [&] { return BAThash(record, 0) != nullptr; }},
        {operation::gdk_malloc, [&] { return drop_block(GDKmalloc(8)); }},
        {operation::gdk_zalloc, [&] { return drop_block(GDKzalloc(8)); }},
        {operation::gdk_calloc, [&] { return drop_block(GDKcalloc(8, 8)); }},
        {operation::gdk_realloc, [&] { return drop_block(GDKrealloc(nullptr, 8)); }},
        {operation::create_exception,
         [&] { return drop_block(createException(0, "place", "text")); }},
    };
    for (const auto &[op, call] : calls) {
        watch kernel;
        EXPECT_TRUE(call()) << operation_name(op);
        kernel.fail_at(op, 3);
        std::vector<bool> outcomes;
        for (int i = 0; i < 5; ++i)
            outcomes.push_back(call());
        EXPECT_EQ(outcomes, (std::vector{true, true, false, true, true})) << operation_name(op);
        EXPECT_EQ(kernel.calls(op), 6U) << operation_name(op);
        EXPECT_EQ(kernel.failures(), 1U) << operation_name(op);
        kernel.fail_at(op, 1);
        kernel.fail_at(op, 0);
        EXPECT_TRUE(call()) << operation_name(op);
    }
    EXPECT_EQ(before.leaks(), "");
    clear_error_buffer();
}

TEST(Instrumentation, RecordsTheCallersCallsInOrderAndNotTheKernelsOwn) {
    watch kernel;
    BAT *unrecorded = BATnew(TYPE_void, TYPE_int, 1);
    EXPECT_TRUE(kernel.recorded().empty()) << "off until asked for";
    kernel.record(true);
    BAT *b = BATnew(TYPE_oid, TYPE_wrd, 0);
    const std::string id = std::to_string(b->bat_id);
    const oid head = 1;
    const wrd tail = 2;
    BUNfastins(b, &head, &tail); // grows the BAT
    BATaccess(b, 2, 0, 1);
    GDKerror("bad %d", 3);
    BBPkeepref(b->bat_id);
    BBPdecref(b->bat_id, 1);
    EXPECT_EQ(kernel.recorded_texts(),
              (std::vector<std::string>{"BATnew(7, 8, 0)", "BUNfastins(" + id + ")",
                                        "BATaccess(" + id + ", 2, 0, 1)", "GDKerror(\"bad 3\")",
                                        "BBPkeepref(" + id + ")", "BBPdecref(" + id + ", 1)"}));
    EXPECT_EQ(kernel.recorded()[1].op, operation::bun_fastins);
    kernel.clear();
    BBPreclaim(BATnew(TYPE_void, TYPE_int, 1));
    EXPECT_TRUE(kernel.recorded().empty());
    EXPECT_EQ(kernel.calls(operation::bat_new), 1U);
    EXPECT_THROW(watch(), std::logic_error);
    clear_error_buffer();
    BBPreclaim(unrecorded);
}

TEST(Instrumentation, CountsBytesAndBracketsFromAnyThread) {
    void *older = GDKmalloc(100);
    watch kernel;
    EXPECT_EQ(kernel.bytes_outstanding(), 0U);
    GDKfree(older);
    std::vector<void *> blocks(8);
    std::vector<std::jthread> threads;
    const bat b = make_void_column(1);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        threads.emplace_back([&, i] {
            auto *zeroed = static_cast<unsigned char *>(GDKzalloc(1000));
            EXPECT_TRUE(std::all_of(zeroed, zeroed + 1000, [](unsigned char c) { return c == 0; }));
            zeroed[999] = 5;
            zeroed = static_cast<unsigned char *>(GDKrealloc(zeroed, 5000 + i));
            EXPECT_EQ(zeroed[999], 5);
            blocks[i] = zeroed;
            for (int j = 0; j < 100; ++j) {
                BATaccess(b.record(), 2, 0, 1);
                GDKfree(GDKcalloc(3, 5));
                BATaccess(b.record(), 2, 0, -1);
            }
        });
    }
    threads.clear(); // joins
    EXPECT_EQ(kernel.bytes_outstanding(), 8 * 5000 + 28U);
    EXPECT_TRUE(kernel.unpaired_accesses().empty());
    std::ranges::for_each(blocks, GDKfree);
    EXPECT_EQ(kernel.bytes_outstanding(), 0U);
    EXPECT_GE(kernel.most_bytes_outstanding(), 8 * 5000 + 28U);
    EXPECT_LE(kernel.most_bytes_outstanding(), 8 * (5000 + 15) + 28U);
    BATaccess(b.record(), 3, 0, 1);
    ASSERT_EQ(kernel.unpaired_accesses().size(), 1U);
    EXPECT_EQ(kernel.unpaired_accesses()[0].bat_id, b.id());
    EXPECT_EQ(kernel.unpaired_accesses()[0].what, 3);
    EXPECT_EQ(GDKcalloc(SIZE_MAX / 2, 3), nullptr);
}

TEST(Instrumentation, ACounterCountsFromAnyThreadAndStandsAlone) {
    {
        const instrumentation::call_counter counter;
        EXPECT_THROW(watch{}, std::logic_error);
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([] {
                for (int call = 0; call < 1000; ++call)
                    GDKfree(GDKmalloc(8));
            });
        }
        threads.clear(); // joins
        EXPECT_EQ(counter.calls(operation::gdk_malloc), 4000U);
        EXPECT_EQ(counter.calls(operation::gdk_zalloc), 0U);
    }
    const watch after;
    EXPECT_EQ(after.calls(operation::gdk_malloc), 0U);
    EXPECT_THROW(instrumentation::call_counter{}, std::logic_error);
    GDKfree(GDKmalloc(8));
    EXPECT_EQ(after.calls(operation::gdk_malloc), 1U);
}

TEST(Instrumentation, ACheckpointNamesWhatIsLeft) {
    const checkpoint before;
    {
        const watch kernel;
        const bat left = make_column<std::int32_t>(std::vector{1, 2, 3});
        BATaccess(left.record(), 2, 0, 1);
        void *block = GDKmalloc(12);
        const std::string leaks = before.leaks();
        EXPECT_NE(leaks.find("BAT " + std::to_string(left.id()) + " of 3 rows"), std::string::npos);
        EXPECT_NE(leaks.find("logical references: "), std::string::npos);
        EXPECT_NE(leaks.find("bytes: 0 before, 12 now"), std::string::npos);
        EXPECT_NE(leaks.find("1 open"), std::string::npos);
        GDKfree(block);
    }
    EXPECT_EQ(before.leaks(), "");
}

} // namespace
