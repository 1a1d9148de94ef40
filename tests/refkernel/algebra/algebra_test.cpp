// Join, sample, extremes and single values, against plain references.
#include "tests/refkernel/algebra/grouping_reference.h"
#include "tests/refkernel/leak_checked.h"

#include "vask/refkernel/instrumentation.h"
#include "vask/refkernel/sample.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <random>

namespace {

using namespace refkernel;
using instrumentation::operation;
using reference::value_bytes;

constexpr unsigned seed = 77;

class Algebra : public leak_checked {
protected:
    std::mt19937_64 random{seed};
};

// ---- join ------------------------------------------------------------------------------------

using rows = std::vector<std::pair<std::string, std::string>>;

rows read_rows(const bat &b) {
    rows found;
    for (BUN row = 0; row < b.count(); ++row)
        found.emplace_back(value_bytes(*b->head, *b->info, row),
                           value_bytes(*b->tail, *b->info, row));
    return found;
}

rows joined_rows(const bat &l, const bat &r) {
    rows joined;
    for (BUN i = 0; i < l.count(); ++i)
        for (BUN j = 0; j < r.count(); ++j)
            if (l.tail_oid(i) == r.head_oid(j) && l.tail_oid(i) != oid_nil)
                joined.emplace_back(value_bytes(*l->head, *l->info, i),
                                    value_bytes(*r->tail, *r->info, j));
    return joined;
}

TEST_F(Algebra, JoinGivesEveryPairOfEqualOidsInTheOrderOfTheLeftSide) {
    const auto left = [&](std::size_t count, oid range, bool stored_head) {
        std::vector<oid> tails(count);
        for (oid &tail : tails)
            tail = random() % 20 == 0 ? oid_nil : 100 + static_cast<oid>(random() % range);
        return make_column(
            std::span<const oid>(tails),
            {.stored_head = stored_head, .seqbase = 7, .first = stored_head ? 3U : 0U});
    };
    const auto right = [&](std::size_t count, int kind) {
        column_options options{.seqbase = 100, .first = 2};
        std::vector<oid> heads(count);
        for (std::size_t i = 0; i < count; ++i)
            heads[i] = 100 + static_cast<oid>(kind == 1 ? i / 2 : random() % (count + 1));
        options.stored_head = kind != 0;
        options.head_oids = kind != 0 ? std::span<const oid>(heads) : std::span<const oid>();
        options.head.sorted = kind == 1;
        text_builder builder;
        for (std::size_t i = 0; i < count; ++i)
            builder.append("text " + std::to_string(random() % 500));
        return builder.finish(options);
    };
    for (const std::size_t left_count : {0U, 1U, 10U, 300U}) {
        for (const std::size_t right_count : {0U, 1U, 700U}) {
            for (const int kind : {0, 1, 2}) {
                SCOPED_TRACE(testing::Message() << "seed " << seed << " rows " << left_count
                                                << " and " << right_count << " kind " << kind);
                const bat l = left(left_count, 720, kind == 1);
                const bat r = right(right_count, kind);
                const bat joined = bat::adopt(BATjoin(l.record(), r.record(), NO_BUN));
                EXPECT_EQ(read_rows(joined), joined_rows(l, r));
                EXPECT_EQ(joined->tail->type, TYPE_str);
                EXPECT_EQ(reference::false_mark(joined), "");
            }
        }
    }
    const bat counted = make_void_column(50, 110);
    const bat r = right(100, 0);
    const bat joined = bat::adopt(BATjoin(counted.record(), r.record(), NO_BUN));
    EXPECT_EQ(read_rows(joined), joined_rows(counted, r));
    EXPECT_EQ(joined->head->type, TYPE_void) << "every row has its one partner";
    EXPECT_EQ(BATjoin(r.record(), r.record(), NO_BUN), nullptr) << "texts are no oids";
    clear_error_buffer();
}

// ---- sample ----------------------------------------------------------------------------------

TEST_F(Algebra, SampleTakesDifferentRowsInTheirOrder) {
    for (const BUN count : {0U, 1U, 99U, 100U, 101U, 5000U}) {
        for (const bool stored : {false, true}) {
            const column_options options{.tail = {.sorted = true, .key = true},
                                         .stored_head = stored,
                                         .seqbase = 40,
                                         .first = 6};
            std::vector<lng> values(count);
            for (BUN i = 0; i < count; ++i)
                values[i] = 10 * lng{i};
            const bat source = make_column(std::span<const lng>(values), options);
            const bat sample = bat::adopt(BATsample(source.record(), 100));
            ASSERT_EQ(sample.count(), std::min(count, 100U));
            EXPECT_EQ(sample->head->type, TYPE_oid);
            EXPECT_EQ(reference::false_mark(sample), "");
            EXPECT_NE(sample->tail->sorted & 1, 0);
            for (BUN row = 0; row < sample.count(); ++row) {
                EXPECT_EQ(sample.values<lng>()[row], 10 * (lng{sample.head_oid(row)} - 40));
                ASSERT_TRUE(row == 0 || sample.head_oid(row - 1) < sample.head_oid(row));
                ASSERT_LT(sample.head_oid(row), 40 + count);
            }
        }
    }
    text_builder builder;
    for (int i = 0; i < 2000; ++i)
        builder.append(std::to_string(i));
    bat source = builder.finish();
    const bat sample = bat::adopt(BATsample(source.record(), 100));
    source.reset();
    for (BUN row = 0; row < 100; ++row)
        EXPECT_EQ(sample.text(row), std::to_string(sample.head_oid(row)));
}

TEST_F(Algebra, SamplesOfAFixedSeedAgreeAndOthersAreEvenlySpread) {
    const bat source = make_void_column(50);
    const auto sampled = [&] {
        const bat sample = bat::adopt(BATsample(source.record(), 10));
        std::vector<oid> heads;
        for (BUN row = 0; row < 10; ++row)
            heads.push_back(sample.head_oid(row));
        return heads;
    };
    fix_sample_seed(1);
    const std::vector<oid> first = sampled();
    EXPECT_EQ(sampled(), first);
    // Each row is in a sample with probability 1/5: 2000 of 10000 times, with a deviation of 40.
    std::map<oid, int> taken;
    for (std::uint64_t s = 0; s < 10000; ++s) {
        fix_sample_seed(s);
        for (const oid head : sampled())
            ++taken[head];
    }
    EXPECT_EQ(taken.size(), 50U);
    for (const auto &[head, times] : taken)
        EXPECT_NEAR(times, 2000, 240) << head;
    randomise_samples();
    EXPECT_NE(sampled(), sampled()) << "equal once in 1e10";
}

// ---- extremes --------------------------------------------------------------------------------

template <class T>
void expect_extremes(std::mt19937_64 &random, int type) {
    T nil;
    std::memcpy(&nil, BATatoms[type].atom_null, sizeof nil);
    for (const std::size_t count : {0U, 1U, 5U, 1000U}) {
        for (const int nils_of_ten : {0, 5, 10}) {
            for (const bool sorted : {false, true}) {
                SCOPED_TRACE(testing::Message() << "seed " << seed << " type " << type << " rows "
                                                << count << " nils " << nils_of_ten);
                std::vector<T> values(count);
                for (T &v : values)
                    v = static_cast<int>(random() % 10) < nils_of_ten
                            ? nil
                            : static_cast<T>(static_cast<std::int64_t>(random()));
                if (sorted)
                    std::ranges::sort(values);
                const bat b = make_column(std::span<const T>(values),
                                          {.type = type, .tail = {.sorted = sorted}, .first = 3});
                std::erase(values, nil);
                const auto [least, greatest] = std::ranges::minmax_element(values);
                T found{};
                EXPECT_EQ(BATmin(b.record(), &found), &found);
                EXPECT_EQ(found, values.empty() ? nil : *least);
                EXPECT_EQ(BATmax(b.record(), &found), &found);
                EXPECT_EQ(found, values.empty() ? nil : *greatest);
            }
        }
    }
}

TEST_F(Algebra, ExtremesAreThoseOfTheValuesThatAreNotNil) {
    expect_extremes<bte>(random, TYPE_bit);
    expect_extremes<bte>(random, TYPE_bte);
    expect_extremes<sht>(random, TYPE_sht);
    expect_extremes<std::int32_t>(random, TYPE_int);
    expect_extremes<lng>(random, TYPE_wrd);
    expect_extremes<lng>(random, TYPE_lng);
    expect_extremes<lng>(random, type_timestamp);
    expect_extremes<flt>(random, TYPE_flt);
    expect_extremes<dbl>(random, TYPE_dbl);

    oid found = 0;
    BATmin(make_void_column(5, 20).record(), &found);
    EXPECT_EQ(found, 20U);
    BATmax(make_void_column(5, 20).record(), &found);
    EXPECT_EQ(found, 24U);
    for (const bat &none : {make_void_column(0, 20), make_void_column(5, oid_nil)}) {
        BATmax(none.record(), &found);
        EXPECT_EQ(found, oid_nil);
    }
    const dbl infinity = std::numeric_limits<dbl>::infinity();
    dbl number = 0;
    BATmin(make_column(std::vector{1.0, nil_of<dbl>(), -infinity}).record(), &number);
    EXPECT_EQ(number, -infinity) << "below the nil, but no nil";
    BATmax(make_column(std::vector{1.0, std::nan(""), 2.0}).record(), &number);
    EXPECT_TRUE(std::isnan(number)) << "above all numbers";

    using text = std::optional<std::string_view>;
    const bat names = make_text_column(std::vector<text>{"oak", {}, "ash", "yew"});
    const char *name = nullptr;
    BATmin(names.record(), &name);
    EXPECT_STREQ(name, "ash");
    BATmax(names.record(), &name);
    EXPECT_STREQ(name, "yew");
    BATmax(make_text_column(std::vector<text>{{}, {}}).record(), &name);
    EXPECT_EQ(name, str_nil_text);
}

// ---- single values ---------------------------------------------------------------------------

template <class From>
ValRecord record_of(int type, From value) {
    ValRecord record{};
    EXPECT_EQ(VALset(&record, type, &value), &record);
    EXPECT_EQ(record.vtype, type);
    EXPECT_EQ(std::memcmp(VALget(&record), &value, sizeof value), 0);
    return record;
}

// What a value of one type becomes in another; nothing when it becomes the nil.
template <class To, class From>
std::optional<To> converted(int from, From value, int to) {
    ValRecord record = record_of(from, value);
    const void *place = VALconvert(to, &record);
    EXPECT_EQ(place, VALget(&record));
    EXPECT_EQ(record.vtype, to);
    EXPECT_EQ(record.len, BATatoms[to].atom_size);
    To made;
    std::memcpy(&made, place, sizeof made);
    if (BATatoms[to].atom_cmp(BATatoms[to].atom_null, &made) == 0)
        return std::nullopt;
    return made;
}

TEST_F(Algebra, ConversionKeepsWhatFitsAndMakesTheRestNil) {
    const auto to_bte = [](auto value, int type) { return converted<bte>(type, value, TYPE_bte); };
    EXPECT_EQ(to_bte(lng{127}, TYPE_lng), 127);
    EXPECT_EQ(to_bte(lng{128}, TYPE_lng), std::nullopt);
    EXPECT_EQ(to_bte(lng{-127}, TYPE_wrd), -127);
    EXPECT_EQ(to_bte(lng{-129}, TYPE_lng), std::nullopt);
    EXPECT_EQ(to_bte(lng{256}, TYPE_lng), std::nullopt);
    EXPECT_EQ(to_bte(2.999, TYPE_dbl), 2);
    EXPECT_EQ(to_bte(-2.999F, TYPE_flt), -2);
    EXPECT_EQ(to_bte(127.5, TYPE_dbl), 127);
    EXPECT_EQ(to_bte(128.0, TYPE_dbl), std::nullopt);
    for (const dbl special : {std::nan(""), std::numeric_limits<dbl>::infinity(), nil_of<dbl>()}) {
        EXPECT_EQ(to_bte(special, TYPE_dbl), std::nullopt);
        EXPECT_EQ(converted<lng>(TYPE_dbl, special, TYPE_lng), std::nullopt);
    }
    const auto to_lng = [](auto value, int type) { return converted<lng>(type, value, TYPE_lng); };
    EXPECT_EQ(to_lng(0x1p62, TYPE_dbl), lng{1} << 62);
    EXPECT_EQ(to_lng(0x1p63, TYPE_dbl), std::nullopt);
    EXPECT_EQ(to_lng(std::nextafter(0x1p63, 0.0), TYPE_dbl), 0x7ffffffffffffc00);
    EXPECT_EQ(to_lng(-0x1.1p63, TYPE_dbl), std::nullopt);
    EXPECT_EQ(to_lng(oid{0xfffffff0}, TYPE_oid), 0xfffffff0);
    EXPECT_EQ(to_lng(nil_of<sht>(), TYPE_sht), std::nullopt);
    EXPECT_EQ(converted<oid>(TYPE_int, -1, TYPE_oid), std::nullopt);
    EXPECT_EQ(converted<bit>(TYPE_int, 1000, TYPE_bit), 1);
    EXPECT_EQ(converted<dbl>(TYPE_lng, lng{3}, TYPE_dbl), 3.0);
    EXPECT_EQ(converted<dbl>(TYPE_flt, nil_of<flt>(), TYPE_dbl), std::nullopt);
    EXPECT_EQ(converted<dbl>(TYPE_flt, 0.1F, TYPE_dbl), dbl{0.1F});
    EXPECT_EQ(converted<flt>(TYPE_dbl, 1e300, TYPE_flt), std::nullopt);
    EXPECT_EQ(converted<flt>(TYPE_dbl, std::nan(""), TYPE_flt), std::nullopt);
    EXPECT_EQ(converted<lng>(TYPE_dbl, 12.0, type_timestamp), 12);
    ValRecord text{};
    VALset(&text, TYPE_str, "12");
    EXPECT_EQ(text.len, 3);
    EXPECT_STREQ(static_cast<const char *>(VALconvert(TYPE_str, &text)), "12");
    EXPECT_EQ(VALconvert(TYPE_lng, &text), nullptr);
}

TEST_F(Algebra, FetchCountsFromTheFirstRow) {
    const column_options options{.first = 4};
    const bat numbers = make_column(std::vector<sht>{7, 8, 9}, options);
    ValRecord record{};
    BUN position = 1;
    EXPECT_EQ(doALGfetch(&record, numbers.record(), &position), nullptr);
    EXPECT_EQ(*static_cast<sht *>(VALget(&record)), 8);
    EXPECT_EQ(record.vtype, TYPE_sht);
    EXPECT_EQ(record.len, 2);
    EXPECT_EQ(doALGfetch(&record, make_void_column(3, 30).record(), &position), nullptr);
    EXPECT_EQ(*static_cast<oid *>(VALget(&record)), 31U);
    const bat names = make_text_column(std::vector<std::string_view>{"a", "b"});
    EXPECT_EQ(doALGfetch(&record, names.record(), &position), nullptr);
    EXPECT_STREQ(static_cast<char *>(VALget(&record)), "b");
    position = 3;
    EXPECT_EQ(take_exception(doALGfetch(&record, numbers.record(), &position)).text,
              "position out of range");
}

TEST_F(Algebra, FailsWhenToldTo) {
    const bat b = make_column(std::vector<oid>{0, 1});
    instrumentation::watch kernel;
    for (const operation op :
         {operation::bat_min, operation::bat_max, operation::bat_join, operation::bat_sample,
          operation::do_alg_fetch, operation::val_convert, operation::aggr_count3_nils})
        kernel.fail_at(op, 1);
    oid found = 5;
    EXPECT_EQ(BATmin(b.record(), &found), nullptr);
    EXPECT_EQ(BATmax(b.record(), &found), nullptr);
    EXPECT_EQ(BATjoin(b.record(), b.record(), NO_BUN), nullptr);
    EXPECT_EQ(BATsample(b.record(), 1), nullptr);
    ValRecord record{};
    VALset(&record, TYPE_oid, &found);
    EXPECT_EQ(VALconvert(TYPE_lng, &record), nullptr);
    const BUN position = 0;
    EXPECT_EQ(take_exception(doALGfetch(&record, b.record(), &position)).place, "algebra.fetch");
    int32_t counts = int_nil;
    EXPECT_EQ(take_exception(AX3aggrX3_count3Nils(&counts, b.slot(), b.slot(), b.slot())).place,
              "aggr.count3Nils");
    EXPECT_EQ(kernel.failures(), 7U);
    EXPECT_EQ(kernel.bytes_outstanding(), 0U);
}

} // namespace
