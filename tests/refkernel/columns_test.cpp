// Columns made, appended to, grown, copied and materialised, against plain vectors.
#include "tests/refkernel/leak_checked.h"
#include "vask/refkernel/instrumentation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

namespace {

using namespace refkernel;

using Columns = leak_checked;

template <class T>
std::vector<T> some_values(std::size_t count, std::mt19937_64 &random) {
    std::vector<T> values(count);
    for (T &value : values)
        value = random() % 4 == 0 ? nil_of<T>() : static_cast<T>(random() % 100);
    return values;
}

template <class T>
void expect_rows(const bat &b, const std::vector<T> &expected, const std::vector<oid> &heads) {
    ASSERT_EQ(b.count(), expected.size());
    const auto rows = b.values<T>();
    for (BUN i = 0; i < b.count(); ++i) {
        ASSERT_EQ(std::memcmp(&rows[i], &expected[i], sizeof(T)), 0) << "row " << i;
        ASSERT_EQ(b.is_nil(i), expected[i] == nil_of<T>()) << "row " << i;
        ASSERT_EQ(b.head_oid(i), heads[i]) << "row " << i;
    }
}

// One type through everything that keeps its rows: made in each way, copied,
// appended to beyond its room, materialised.
template <class T>
void check_type(std::mt19937_64 &random) {
    for (const std::size_t count : {0U, 1U, 2U, 255U, 256U, 1000U}) {
        for (const BUN first : {0U, 1U, 77U}) {
            for (const int head : {0, 1, 2}) { // void, stored, stored and given
                std::vector<T> values = some_values<T>(count, random);
                std::vector<oid> heads(count);
                std::iota(heads.begin(), heads.end(), 40U);
                if (head == 2)
                    std::shuffle(heads.begin(), heads.end(), random);
                column_options options{
                    .stored_head = head != 0, .seqbase = 40, .first = first, .writable = true};
                if (head == 2)
                    options.head_oids = heads;
                const bat made = random() % 2 == 0
                                     ? make_column<T>(std::vector<T>(values), options)
                                     : make_column<T>(std::span<const T>(values), options);
                ASSERT_EQ(made->info->first, first);
                expect_rows(made, values, heads);
                const std::uint64_t used = (first + count) * sizeof(T);
                EXPECT_EQ(made->tail->free, used);

                const bat copy = bat::adopt(BATcopy(made.record(), TYPE_oid, made.type(), 1));
                EXPECT_EQ(copy->info->first, 0U);
                EXPECT_EQ(copy->head->type, TYPE_oid);
                for (std::size_t i = 0; i < 600; ++i) {
                    const T value = some_values<T>(1, random)[0];
                    const auto next = static_cast<oid>(40 + values.size());
                    ASSERT_NE(BUNfastins(made.record(), &next, &value), nullptr);
                    values.push_back(value);
                    heads.push_back(next);
                }
                expect_rows(made, values, heads);
                EXPECT_EQ(made->tail->free, used + 600 * sizeof(T));
                EXPECT_LE(made->info->first + made->info->count, made->info->capacity);
                values.resize(count);
                heads.resize(count);
                expect_rows(copy, values, heads);
            }
        }
    }
}

TEST_F(Columns, KeepTheirRowsThroughCopiesAndAppends) {
    std::mt19937_64 random(20240611);
    check_type<std::int8_t>(random);
    check_type<std::int16_t>(random);
    check_type<std::int32_t>(random);
    check_type<std::uint32_t>(random);
    check_type<std::int64_t>(random);
    check_type<float>(random);
    check_type<double>(random);
}

TEST_F(Columns, BatNewGivesEveryPairOfTypesTheRoomAskedFor) {
    const std::vector<int> types = {TYPE_void, TYPE_bit, TYPE_byte, TYPE_bte,      TYPE_sht,
                                    TYPE_int,  TYPE_oid, TYPE_wrd,  TYPE_flt,      TYPE_dbl,
                                    TYPE_lng,  TYPE_str, type_tag,  type_timestamp};
    for (const int head : types) {
        for (const int tail : types) {
            for (const BUN capacity : {0U, 1U, 1000U}) {
                BAT *b = BATnew(head, tail, capacity);
                ASSERT_NE(b, nullptr);
                EXPECT_EQ(b->info->count, 0U);
                EXPECT_EQ(b->info->capacity, capacity);
                EXPECT_EQ(b->state->access, ACCESS_WRITABLE);
                for (const BATcol *c : {b->head, b->tail}) {
                    EXPECT_EQ(c->type == TYPE_void ? 0 : 1 << c->shift, c->width);
                    EXPECT_EQ(c->varsized, c->type == TYPE_str || c->type == type_tag);
                    if (c->type != TYPE_void) // the sanitizers see room that is not there
                        std::memset(c->base, 1, std::size_t{capacity} << c->shift);
                }
                BATsetcount(b, capacity);
                EXPECT_EQ(b->info->count, capacity);
                EXPECT_EQ(b->tail->free, capacity * static_cast<std::uint64_t>(b->tail->width));
                BBPreclaim(b);
            }
        }
    }
    for (const int unknown : {5, 9, 99, -1})
        EXPECT_EQ(BATnew(TYPE_void, unknown, 1), nullptr);
    BAT *b = BATnew(TYPE_void, TYPE_int, 3);
    EXPECT_EQ(BATsetcount(b, 4), nullptr);
    EXPECT_EQ(b->info->count, 0U);
    EXPECT_EQ(BATextend(b, 2), b);
    EXPECT_EQ(b->info->capacity, 3U);
    BBPreclaim(b);
    clear_error_buffer();
}

TEST_F(Columns, AppendsDropTheMarksTheyRefute) {
    const auto marks = [](const std::vector<oid> &values, const column_marks &claimed) {
        column_options options;
        options.writable = true;
        options.tail = claimed;
        options.tail.nonil = true;
        const bat b = make_column<oid>(std::vector<oid>{10, 11}, options);
        b->tail->seqbase = 10;
        oid next = 2;
        for (const oid value : values) {
            BUNfastins(b.record(), &next, &value);
            ++next;
        }
        const BATcol &c = *b->tail;
        return std::vector<int>{c.sorted & 1, c.key != 0, c.dense, c.nil, c.nonil};
    };
    const column_marks all{true, true, true, false, true};
    EXPECT_EQ(marks({12, 13}, all), (std::vector{1, 1, 1, 0, 1}));
    EXPECT_EQ(marks({12, 14}, all), (std::vector{1, 1, 0, 0, 1}));
    EXPECT_EQ(marks({12, 12}, all), (std::vector{1, 0, 0, 0, 1}));
    EXPECT_EQ(marks({12, 9}, all), (std::vector{0, 0, 0, 0, 1}));
    EXPECT_EQ(marks({nil_of<oid>()}, all), (std::vector{0, 0, 0, 1, 0}));
    EXPECT_EQ(marks({12, 13}, {}), (std::vector{0, 0, 0, 0, 1})) << "nothing is found out";
}

TEST_F(Columns, VoidColumnsCountFromTheirSeqbase) {
    for (const BUN first : {0U, 5U}) {
        const column_options options{.seqbase = 7, .first = first};
        const bat b = make_void_column(4, 100, options);
        EXPECT_EQ(b.head_oid(3), 10U);
        EXPECT_EQ(b.tail_oid(3), 103U);
        const bat nils = make_void_column(4, oid_nil, options);
        EXPECT_TRUE(nils.is_nil(0) && nils.tail_oid(3) == oid_nil);
        EXPECT_TRUE(nils->tail->nil && !nils->tail->nonil && !nils->tail->key);

        for (const bool head_alone : {false, true}) {
            const bat m = make_void_column(4, 100, options);
            ASSERT_NE(head_alone ? BATmaterializeh(m.record()) : BATmaterialize(m.record()),
                      nullptr);
            EXPECT_EQ(m->head->type, TYPE_oid);
            EXPECT_EQ(m->tail->type, head_alone ? TYPE_void : TYPE_oid);
            for (BUN i = 0; i < 4; ++i) {
                EXPECT_EQ(m.head_oid(i), 7 + i);
                EXPECT_EQ(m.tail_oid(i), 100 + i);
            }
            EXPECT_FALSE(m->head->dense || m->head->sorted || m->head->key)
                << "the values are about to be written by someone else";
        }
    }
    // The first row says where counting begins; a gap stores what was counted before.
    BAT *b = BATnew(TYPE_void, TYPE_void, 0);
    for (const oid value : {50U, 51U, 52U, 99U}) {
        ASSERT_NE(BUNfastins(b, &value, &value), nullptr);
        EXPECT_EQ(b->head->type, value == 99 ? TYPE_oid : TYPE_void);
    }
    const bat appended = bat::adopt(b);
    EXPECT_EQ(appended.head_oid(0), 50U);
    EXPECT_EQ(appended.head_oid(2), 52U);
    EXPECT_EQ(appended.head_oid(3), 99U);
    BATseqbase(make_void_column(1).record(), oid_nil);
}

TEST_F(Columns, AFullColumnTakesNoFurtherRow) {
    for (const BUN first : {0U, 100U}) {
        const bat b = make_void_column(3);
        b->info->first = first;
        b->info->count = 0x7ffffffe - first;
        b->info->capacity = 0x7fffffff;
        const oid next = 0;
        clear_error_buffer();
        EXPECT_EQ(BUNfastins(b.record(), &next, &next), nullptr);
        EXPECT_EQ(error_buffer(), "bunfastins: bat too large\n");
    }
    clear_error_buffer();
}

TEST_F(Columns, RefuseWhatCannotBeMade) {
    column_options options{.type = TYPE_lng};
    EXPECT_THROW(make_column<std::int32_t>(std::vector{1}, options), kernel_error);
    options.type = TYPE_str;
    EXPECT_THROW(make_column<std::int32_t>(std::vector{1}, options), kernel_error);
    const bat b = make_column<std::int32_t>(std::vector{1});
    EXPECT_THROW(static_cast<void>(b.values<std::int64_t>()), kernel_error);
    EXPECT_THROW(static_cast<void>(b.is_nil(1)), kernel_error);
    EXPECT_THROW(static_cast<void>(b.text(0)), kernel_error);
    EXPECT_THROW(static_cast<void>(bat().count()), kernel_error);
    EXPECT_THROW(bat::share(-7), kernel_error);
    EXPECT_THROW(view_rows(b, 1, 1), kernel_error);
    EXPECT_EQ(BATcopy(b.record(), TYPE_oid, TYPE_lng, 1), nullptr);
    clear_error_buffer();
}

TEST_F(Columns, LongestAndFirstRowsSurviveAVectorTakenOver) {
    std::vector<double> values(100000);
    std::iota(values.begin(), values.end(), 0.5);
    const double *memory = values.data();
    const bat b = make_column<double>(std::move(values), {.writable = true});
    EXPECT_EQ(b.values<double>().data(), memory) << "taken over, not copied";
    const oid next = 100000;
    const double last = -1;
    ASSERT_NE(BUNfastins(b.record(), &next, &last), nullptr);
    EXPECT_EQ(b.values<double>()[99999], 99999.5);
    EXPECT_EQ(b.values<double>()[100000], -1);
}

} // namespace
