#include "grouping/bunfastins.h"

#include "vask/embed.h"
#include "vask/refkernel/instrumentation.h"

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace vask;
using refkernel::bat;
using refkernel::instrumentation::operation;
using refkernel::instrumentation::watch;

int fixed_values = 0;

int user_atom_with_fix() {
    refkernel::user_atom atom;
    atom.name = "fixed";
    atom.fix = [](const void *) { return ++fixed_values; };
    return refkernel::register_atom(atom);
}

//! Appends rows to two BATs, the operators' way and the kernel's, which have to come out the same.
void check_appends(int head_type, int tail_type, BUN rows, auto value_of) {
    SCOPED_TRACE("tail type " + std::to_string(tail_type));
    const bat ours = refkernel::make_empty(head_type, tail_type, 3);
    const bat kernels = refkernel::make_empty(head_type, tail_type, 3);
    for (BUN row = 0; row < rows; ++row) {
        const oid head = head_type == TYPE_void ? row : 2 * row + 5;
        const auto value = value_of(row);
        const void *tail = &value;
        if constexpr (std::is_same_v<decltype(value), const std::string>)
            tail = value.c_str();
        ASSERT_TRUE(vask_bunfastins(*ours.record(), &head, tail));
        ASSERT_NE(BUNfastins(kernels.record(), &head, tail), nullptr);
    }
    ASSERT_EQ(ours.count(), rows);
    for (const auto column : {&BAT::head, &BAT::tail}) {
        EXPECT_EQ((ours.record()->*column)->free, (kernels.record()->*column)->free);
        EXPECT_EQ((ours.record()->*column)->width, (kernels.record()->*column)->width);
    }
    for (BUN row = 0; row < rows; ++row) {
        if (head_type != TYPE_void) {
            ASSERT_EQ(ours.head_oid(row), kernels.head_oid(row));
        }
        if (refkernel::is_varsized(tail_type)) {
            ASSERT_EQ(ours.text(row), kernels.text(row));
        }
    }
    if (!refkernel::is_varsized(tail_type)) {
        EXPECT_EQ(std::memcmp(ours->tail->base, kernels->tail->base, kernels->tail->free), 0);
    }
}

TEST(BunFastIns, AppendsWhatTheKernelAppends) {
    const auto number = [](BUN row) { return static_cast<lng>(row * 0x0102030405060708U); };
    for (const int type :
         std::initializer_list<int>{TYPE_bte, TYPE_sht, TYPE_int, TYPE_oid, TYPE_wrd, TYPE_lng,
                                    TYPE_flt, TYPE_dbl, refkernel::type_timestamp})
        check_appends(TYPE_oid, type, 1000, number);
    check_appends(TYPE_void, TYPE_lng, 1000, number);

    fixed_values = 0;
    check_appends(TYPE_oid, user_atom_with_fix(), 10, number);
    EXPECT_EQ(fixed_values, 20);
}

// The offsets outgrow one byte and then two.
TEST(BunFastIns, WidensOffsets) {
    const auto text = [](BUN row) -> const std::string {
        return row % 5 == 0 ? "again" : std::to_string(row) + std::string(row % 50, 'x');
    };
    check_appends(TYPE_oid, TYPE_str, 40000, text);
    check_appends(TYPE_oid, refkernel::type_tag, 400, text);
}

TEST(BunFastIns, Failures) {
    const oid head = 1;
    const wrd tail = 2;
    watch kernel;
    const bat full = refkernel::make_empty(TYPE_oid, TYPE_wrd, 2);
    EXPECT_TRUE(vask_bunfastins(*full.record(), &head, &tail));
    EXPECT_TRUE(vask_bunfastins(*full.record(), &head, &tail));
    kernel.fail_at(operation::bat_extend, 1);
    EXPECT_FALSE(vask_bunfastins(*full.record(), &head, &tail));
    EXPECT_EQ(full.count(), 2U);
    EXPECT_TRUE(vask_bunfastins(*full.record(), &head, &tail));

    // The largest count there is; and a position that is the largest.
    for (const BUN first : {0U, 10U}) {
        refkernel::clear_error_buffer();
        full->info->first = first;
        full->info->count = NO_BUN - 1 - first;
        full->info->capacity = NO_BUN;
        EXPECT_FALSE(vask_bunfastins(*full.record(), &head, &tail));
        EXPECT_EQ(refkernel::error_buffer(), "bunfastins: bat too large\n");
    }
    refkernel::clear_error_buffer();
    *full->info = {0, 3, 3};

    const bat texts = refkernel::make_empty(TYPE_oid, TYPE_str, 1000);
    const std::string text(100, 'x');
    kernel.fail_at(operation::gdk_upgradevarheap, 1);
    BUN appended = 0;
    while (appended < 1000 &&
           vask_bunfastins(*texts.record(), &head, (text + std::to_string(appended)).c_str()))
        ++appended;
    EXPECT_EQ(kernel.failures(), 2U);
    EXPECT_GT(appended, 10U);
    EXPECT_EQ(texts.count(), appended);
    EXPECT_EQ(texts.text(appended - 1), text + std::to_string(appended - 1));
}

} // namespace
