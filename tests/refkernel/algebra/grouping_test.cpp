// Serial grouping, refinement and the count of refined groups, against a plain reference.
#include "tests/refkernel/algebra/grouping_reference.h"
#include "tests/refkernel/leak_checked.h"

#include "kernel/hostile.h"
#include "vask/refkernel/instrumentation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <random>
#include <set>
#include <thread>

namespace {

using namespace refkernel;
using support::head_oids;
using support::head_options;
using support::heads;
using support::plain_groups;

constexpr unsigned seed = 20240611;

struct result {
    bat histogram;
    bat map;
    operator_failure failure;
};

result run_group(const bat &b) {
    int32_t histogram = int_nil;
    int32_t map = int_nil;
    const operator_failure failure = take_exception(GRPgroup(&histogram, &map, b.slot()));
    return {bat::adopt(histogram), bat::adopt(map), failure};
}

// The records stand for the numbers, as operators may pass them.
result run_derive(const bat &extents, const bat &group_map, const bat &b) {
    int32_t histogram = int_nil;
    int32_t map = int_nil;
    const operator_failure failure =
        take_exception(GRPderive(&histogram, &map, &extents.record()->bat_id,
                                 &group_map.record()->bat_id, &b.record()->bat_id));
    return {bat::adopt(histogram), bat::adopt(map), failure};
}

void expect_grouping(const result &found, const bat &b, const plain_groups &expected) {
    ASSERT_EQ(found.failure, operator_failure{});
    ASSERT_EQ(difference(reference::read(found.histogram, found.map), expected), "");
    EXPECT_EQ(reference::false_mark(found.histogram), "");
    EXPECT_EQ(reference::false_mark(found.map), "");
    EXPECT_EQ(found.map->head->type, b->head->type);
    for (BUN row = 0; row < b.count(); row += 1 + b.count() / 100)
        ASSERT_EQ(found.map.head_oid(row), b.head_oid(row));
    EXPECT_NE(ALIGNsynced(found.map.record(), b.record()), 0);
    EXPECT_EQ(found.histogram->tail->type, TYPE_wrd);
    EXPECT_EQ(found.map->tail->type, TYPE_oid);
    EXPECT_EQ(found.map->state->access, ACCESS_READ);
}

void expect_grouped(const bat &b) {
    expect_grouping(run_group(b), b, reference::group(b));
}

// ---- columns ---------------------------------------------------------------------------------

// How the values of a column are spread.
struct spread {
    std::uint64_t values;
    std::uint64_t distance;
    int nils_of_ten;
};

template <class T>
bat numbers(std::size_t rows, const spread &s, column_options options, std::mt19937_64 &random,
            bool sorted = false) {
    std::vector<T> values(rows);
    T nil;
    std::memcpy(&nil,
                BATatoms[options.type == TYPE_void ? type_code_of<T> : options.type].atom_null,
                sizeof nil);
    for (T &v : values) {
        v = static_cast<T>(static_cast<std::int64_t>(random() % s.values * s.distance));
        if (static_cast<int>(random() % 10) < s.nils_of_ten)
            v = nil;
    }
    if (sorted) {
        std::ranges::sort(values);
        options.tail.sorted = true;
    }
    return make_column(std::span<const T>(values), options);
}

bat texts(std::size_t rows, const spread &s, const column_options &options,
          const text_options &text, std::mt19937_64 &random) {
    text_builder builder(text);
    for (std::size_t i = 0; i < rows; ++i) {
        if (static_cast<int>(random() % 10) < s.nils_of_ten)
            builder.append_nil();
        else
            builder.append(std::string(random() % s.values % 200, 'x') +
                           std::to_string(random() % s.values));
    }
    return builder.finish(options);
}

class Grouping : public leak_checked {
protected:
    std::mt19937_64 random{seed};
};

// ---- grouping --------------------------------------------------------------------------------

TEST_F(Grouping, IsThatOfTheReferenceForEveryTypeSpreadAndHead) {
    for (const std::size_t rows :
         {0U, 1U, 2U, 1023U, 1024U, 1025U, vask::unless_hostile(7001U, 2003U)}) {
        for (const spread &s : {spread{1, 1, 0},
                                {2, 1, 1},
                                {100, 1, 0},
                                {100, 1, 5},
                                {3000, 0x9e3779b97f4a7c15, 1},
                                {~0ULL, 1, 0},
                                {10, 1, 10}}) {
            for (const heads kind : support::all_heads) {
                SCOPED_TRACE(testing::Message()
                             << "seed " << seed << " rows " << rows << " values " << s.values
                             << " nils " << s.nils_of_ten << " head " << static_cast<int>(kind));
                const std::vector<oid> oids = head_oids(kind, rows, rows % 2 * 70000, rows);
                column_options options = head_options(kind, oids, rows % 2 == 0 ? 0 : 5);
                if (kind == heads::void_head && s.nils_of_ten != 0)
                    options.seqbase = oid_nil;
                options.type = TYPE_bit;
                expect_grouped(numbers<bte>(rows, s, options, random));
                options.type = TYPE_void;
                expect_grouped(numbers<bte>(rows, s, options, random));
                expect_grouped(numbers<sht>(rows, s, options, random, true));
                expect_grouped(numbers<sht>(rows, s, options, random));
                expect_grouped(numbers<std::int32_t>(rows, s, options, random));
                expect_grouped(numbers<oid>(rows, s, options, random));
                expect_grouped(numbers<flt>(rows, s, options, random));
                expect_grouped(numbers<dbl>(rows, s, options, random));
                expect_grouped(numbers<lng>(rows, s, options, random, true));
                options.type = type_timestamp;
                expect_grouped(numbers<lng>(rows, s, options, random));
                const text_sharing sharing =
                    rows % 3 == 0 ? text_sharing::once : text_sharing::anew;
                for (const int width : {1, 2, 4})
                    expect_grouped(texts(rows, s, options, {TYPE_str, sharing, width}, random));
                expect_grouped(texts(rows, s, options, {type_tag, sharing, 1}, random));
                if (HasFailure())
                    return;
            }
        }
    }
}

TEST_F(Grouping, KnowsVoidTailsAndBelievesKeyMarks) {
    for (const oid tail_seqbase : {oid{0}, oid{9}, oid_nil})
        for (const BUN rows : {0U, 1U, 3000U})
            expect_grouped(make_void_column(rows, tail_seqbase, {.seqbase = 4}));
    const column_options options{.tail = {.key = true}, .first = 7};
    const bat unique = numbers<lng>(5000, {~0ULL, 1, 0}, options, random);
    expect_grouped(unique);
    EXPECT_NE(run_group(unique).map->tail->key, 0);
    EXPECT_TRUE(run_group(unique).histogram->head->dense);
}

// More groups than the hash table takes before it turns to partitions, in columns whose commonest
// value fills most of one partition as well.
TEST_F(Grouping, TurnsToPartitionsForManyGroups) {
    constexpr std::size_t rows = vask::unless_hostile(300000, 3000);
    expect_grouped(numbers<lng>(rows, {~0ULL, 1, 0}, {.first = 3}, random));
    const std::vector<oid> oids = head_oids(heads::shuffled, 2 * rows, 0, seed);
    expect_grouped(
        numbers<dbl>(2 * rows, {~0ULL, 1, 5}, head_options(heads::shuffled, oids), random));
    // Texts of which the heap holds many copies: far more places than groups.
    expect_grouped(texts(20000, {300, 1, 0}, {}, {TYPE_str, text_sharing::anew, 1}, random));
}

TEST_F(Grouping, ComparesFloatsByTheirBits) {
    const dbl nan = std::numeric_limits<dbl>::quiet_NaN();
    const dbl other_nan = -nan;
    // As numbers, zeros may take turns in an ascending column.
    expect_grouped(make_column(std::vector<dbl>{-0.0, 0.0, -0.0, 0.0, 1, nan, other_nan, nan},
                               {.tail = {.sorted = true}}));
    EXPECT_EQ(run_group(make_column(std::vector<flt>{0.F, -0.F, 0.F, -0.F})).histogram.count(), 2U);
    EXPECT_EQ(run_group(make_column(std::vector<dbl>{nan, nan, other_nan})).histogram.count(), 2U);
}

TEST_F(Grouping, FailsWithoutTouchingTheOutputs) {
    const bat good = make_column(std::vector{1, 2, 2});
    const bat mirrored = [&] {
        BAT *mirror = BBParr[good.id() >> 16][good.id() & 0xffff].desc_mirror;
        return bat::adopt(VIEWcreate(mirror, good.record()));
    }();
    const int32_t none = int_nil;
    int32_t outputs[] = {int_nil, int_nil};
    const auto failure_of = [&](const int32_t *input) {
        return take_exception(GRPgroup(&outputs[0], &outputs[1], input));
    };
    EXPECT_EQ(failure_of(&none), (operator_failure{"group.new", "Object not found"}));
    EXPECT_EQ(failure_of(mirrored.slot()), (operator_failure{"group.new", "(v)oid head required"}));
    instrumentation::watch kernel;
    kernel.fail_at(instrumentation::operation::grp_group, 1);
    EXPECT_EQ(failure_of(good.slot()).place, "group.new");
    EXPECT_EQ(outputs[0], int_nil);
    EXPECT_EQ(outputs[1], int_nil);
    EXPECT_EQ(failure_of(good.slot()), operator_failure{});
    EXPECT_EQ(kernel.calls(instrumentation::operation::grp_group), 2U);
    EXPECT_EQ(kernel.calls(instrumentation::operation::bat_new), 0U) << "its own calls do not show";
    bat::adopt(outputs[0]).reset();
    bat::adopt(outputs[1]).reset();
}

TEST_F(Grouping, RunsOnManyThreadsAtOnce) {
    const bat shared = numbers<lng>(20000, {500, 0x9e3779b97f4a7c15, 1}, {}, random);
    const plain_groups expected = reference::group(shared);
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 10; ++round) {
                const result found = run_group(shared);
                EXPECT_EQ(difference(reference::read(found.histogram, found.map), expected), "");
            }
        });
    threads.clear(); // joins
}

// ---- refinement ------------------------------------------------------------------------------

// The map under another head: the rows in another order, and without some of them.
bat reordered_map(const result &old, double kept, bool ascending, std::mt19937_64 &random) {
    std::vector<BUN> rows(old.map.count());
    std::iota(rows.begin(), rows.end(), BUN{0});
    std::erase_if(rows, [&](BUN) { return static_cast<double>(random() % 1000) >= kept * 1000; });
    std::vector<oid> heads;
    std::vector<oid> ids;
    if (!ascending)
        std::ranges::shuffle(rows, random);
    for (const BUN row : rows) {
        heads.push_back(old.map.head_oid(row));
        ids.push_back(old.map.tail_oid(row));
    }
    return make_column(
        std::span<const oid>(ids),
        {.stored_head = true, .head_oids = heads, .head = {.sorted = ascending}, .first = 2});
}

// The old group of each row of b, looked up by head.
std::vector<oid> old_groups(const bat &map, const bat &b) {
    std::unordered_map<oid, oid> groups;
    for (BUN row = 0; row < map.count(); ++row)
        groups.try_emplace(map.head_oid(row), map.tail_oid(row));
    std::vector<oid> found(b.count());
    for (BUN row = 0; row < b.count(); ++row) {
        const auto at = groups.find(b.head_oid(row));
        found[row] = at == groups.end() ? oid_nil : at->second;
    }
    return found;
}

void expect_derived(const bat &extents, const bat &map, const bat &b) {
    expect_grouping(run_derive(extents, map, b), b, reference::group(b, old_groups(map, b)));
}

class Refinement : public Grouping {
protected:
    // Refines by columns of every kind of key.
    void expect_derived_by_all_types(const bat &extents, const bat &map, std::size_t rows,
                                     const spread &s, column_options options) {
        expect_derived(extents, map, numbers<bte>(rows, s, options, random));
        expect_derived(extents, map, numbers<std::int32_t>(rows, s, options, random));
        expect_derived(extents, map, numbers<lng>(rows, s, options, random));
        expect_derived(extents, map, numbers<flt>(rows, s, options, random));
        expect_derived(extents, map, numbers<dbl>(rows, s, options, random));
        expect_derived(extents, map,
                       texts(rows, s, options, {TYPE_str, text_sharing::anew, 1}, random));
        options.tail.key = true;
        std::vector<lng> unique(rows);
        std::iota(unique.begin(), unique.end(), lng{0});
        expect_derived(extents, map, make_column(std::span<const lng>(unique), options));
    }
};

TEST_F(Refinement, IsThatOfTheReferenceForAlignedAndLookedUpRows) {
    for (const std::size_t rows : {0U, 1U, 900U, vask::unless_hostile(5000U, 1600U)}) {
        for (const std::uint64_t groups : {1ULL, 50ULL, 2000ULL}) {
            for (const heads kind : support::all_heads) {
                SCOPED_TRACE(testing::Message() << "seed " << seed << " rows " << rows << " groups "
                                                << groups << " head " << static_cast<int>(kind));
                const std::vector<oid> oids = head_oids(kind, rows, static_cast<oid>(groups), rows);
                const column_options options = head_options(kind, oids, rows % 2 == 0 ? 4 : 0);
                const bat first = numbers<sht>(rows, {groups, 1, 1}, options, random);
                const result old = run_group(first);
                const spread few{60, 1, 2};
                const spread many{~0ULL, 1, 0};
                expect_derived_by_all_types(old.histogram, old.map, rows, few, options);
                expect_derived_by_all_types(old.histogram, old.map, rows, many, options);
                for (const bool ascending : {false, true}) {
                    const bat all = reordered_map(old, 1, ascending, random);
                    expect_derived_by_all_types(old.histogram, all, rows, few, options);
                    const bat some = reordered_map(old, 0.9, ascending, random);
                    expect_derived_by_all_types(old.histogram, some, rows, many, options);
                }
                if (HasFailure())
                    return;
            }
        }
    }
}

// Rows that are alone in their groups are not looked at.
TEST_F(Refinement, OfGroupsThatHardlyShareRows) {
    const std::size_t rows = 3000;
    for (const heads kind : support::all_heads) {
        SCOPED_TRACE(testing::Message() << "seed " << seed << " head " << static_cast<int>(kind));
        const std::vector<oid> oids = head_oids(kind, rows, 70, rows);
        const column_options options = head_options(kind, oids, 4);
        const result old = run_group(numbers<std::int32_t>(rows, {20000, 1, 0}, options, random));
        for (const spread &s : {spread{2, 1, 2}, spread{60, 1, 2}, spread{~0ULL, 1, 0}}) {
            expect_derived_by_all_types(old.histogram, old.map, rows, s, options);
            expect_derived_by_all_types(old.histogram, reordered_map(old, 1, false, random), rows,
                                        s, options);
            expect_derived_by_all_types(old.histogram, reordered_map(old, 0.95, true, random), rows,
                                        s, options);
        }
    }
}

TEST_F(Refinement, GoesOnFromItsOwnResultsAndFromSamples) {
    const std::size_t rows = 20000;
    result old = run_group(numbers<sht>(rows, {7, 1, 1}, {}, random));
    std::vector<oid> groups(rows, 0);
    for (const std::uint64_t values : {3U, 40U, 1000U}) {
        const bat next = numbers<dbl>(rows, {values, 3, 1}, {}, random);
        const bat sample = bat::adopt(BATsample(next.record(), 1024));
        expect_derived(old.histogram, old.map, sample);
        expect_derived(old.histogram, old.map, next);
        old = run_derive(old.histogram, old.map, next);
    }
    // Old groups without a place for some rows, then refined once more.
    const bat some = reordered_map(old, 0.7, false, random);
    const bat by = numbers<bte>(rows, {5, 1, 0}, {}, random);
    const result partial = run_derive(old.histogram, some, by);
    expect_derived(partial.histogram, partial.map, by);
    // Every old group of one row.
    const result single = run_group(make_void_column(static_cast<BUN>(rows), 0));
    expect_derived(single.histogram, single.map, by);
}

TEST_F(Refinement, OfManyGroupsTurnsToPartitions) {
    constexpr std::size_t rows = vask::unless_hostile(300000, 3000);
    const result old = run_group(numbers<std::int32_t>(rows, {rows / 3, 77773, 0}, {}, random));
    expect_derived(old.histogram, old.map, numbers<std::int32_t>(rows, {1000, 1, 0}, {}, random));
    expect_derived(old.histogram, old.map,
                   numbers<dbl>(rows, {~0ULL, 1, 0}, {.seqbase = 0}, random));
}

TEST_F(Refinement, FailsForInputsThatDoNotBelongTogether) {
    const bat b = make_column(std::vector{1, 2, 2});
    const result old = run_group(b);
    const bat stranger = make_column(std::vector<oid>{0, 1, 4711});
    EXPECT_TRUE(
        run_derive(old.histogram, stranger, b).failure.text.starts_with("operation failed"));
    EXPECT_EQ(run_derive(old.histogram, b, b).failure.text, "group map of oids required");
    int32_t outputs[] = {int_nil, int_nil};
    const int32_t none = 0;
    EXPECT_EQ(
        take_exception(GRPderive(&outputs[0], &outputs[1], old.histogram.slot(), &none, b.slot())),
        (operator_failure{"group.derive", "Object not found"}));
    EXPECT_EQ(outputs[0], int_nil);
    EXPECT_EQ(outputs[1], int_nil);
}

// ---- counting refined groups -----------------------------------------------------------------

// How plans count the different values of each group: one joined row for each refined group.
bat count_distinct(const bat &extents, const bat &map, const bat &b) {
    const result refined = run_derive(extents, map, b);
    const bat heads = bat::adopt(VIEWcombine(refined.histogram.record()));
    const bat joined = bat::adopt(BATjoin(heads.record(), b.record(), NO_BUN));
    EXPECT_EQ(joined.count(), refined.histogram.count());
    const bat groups = bat::adopt(VIEWcombine(extents.record()));
    int32_t counts = int_nil;
    EXPECT_EQ(take_exception(AX3aggrX3_count3Nils(&counts, &joined.record()->bat_id, map.slot(),
                                                  &groups.record()->bat_id)),
              operator_failure{});
    return bat::adopt(counts);
}

TEST_F(Grouping, CountOfRefinedGroupsIsTheNumberOfDifferentValues) {
    for (const heads kind : support::all_heads) {
        for (const int nils_of_ten : {0, 3, 10}) {
            const std::size_t rows = 3000;
            const std::vector<oid> oids = head_oids(kind, rows, 70000, seed);
            const column_options options = head_options(kind, oids);
            const result old = run_group(numbers<bte>(rows, {20, 1, 0}, options, random));
            const bat partial = reordered_map(old, 0.8, false, random);
            const bat b = numbers<lng>(rows, {90, 1, nils_of_ten}, options, random);
            for (const bat *map : {&old.map, &partial}) {
                std::map<oid, std::set<std::string>> expected;
                const std::vector<oid> groups = old_groups(*map, b);
                for (BUN row = 0; row < rows; ++row)
                    expected[groups[row]].insert(reference::value_bytes(*b->tail, *b->info, row));
                const bat counts = count_distinct(old.histogram, *map, b);
                ASSERT_EQ(counts.count(), old.histogram.count());
                EXPECT_EQ(counts.type(), TYPE_wrd);
                EXPECT_TRUE(counts->tail->nonil);
                EXPECT_NE(ALIGNsynced(counts.record(), old.histogram.record()), 0);
                for (BUN group = 0; group < counts.count(); ++group) {
                    const oid id = old.histogram.head_oid(group);
                    EXPECT_EQ(counts.head_oid(group), id);
                    EXPECT_EQ(counts.values<wrd>()[group], static_cast<wrd>(expected[id].size()));
                }
            }
        }
    }
    int32_t counts = int_nil;
    const bat b = make_column(std::vector{1, 2});
    const bat ids = make_column(std::vector<oid>{0, 9});
    EXPECT_TRUE(take_exception(AX3aggrX3_count3Nils(&counts, b.slot(), ids.slot(), b.slot()))
                    .text.starts_with("operation failed"));
    EXPECT_EQ(counts, int_nil);
}

} // namespace
