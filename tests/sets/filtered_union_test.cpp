#include "support/element_types.h"
#include "support/kernel_settings.h"
#include "support/leak_guard.h"
#include "support/replaced_comparison.h"
#include "support/values.h"
#include "vask/embed.h"
#include "vask/ops.h"
#include "vask/refkernel/instrumentation.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using refkernel::bat;
using refkernel::nil_of;
using refkernel::operator_failure;
using refkernel::take_exception;
using support::kernel_settings;

// A value of any type: an lng and a dbl are exact in it.
using cell = long double;
static_assert(std::numeric_limits<cell>::digits >= 64);

//! What is read from a column of a type after the value was assigned to it.
cell assigned(cell value, int type) {
    return type == TYPE_flt   ? static_cast<float>(value)
           : type == TYPE_dbl ? static_cast<double>(value)
                              : value;
}

bool same_cell(cell a, cell b) {
    return std::isnan(a) ? std::isnan(b) : a == b && std::signbit(a) == std::signbit(b);
}

const std::vector<int> types{TYPE_bit, TYPE_byte, TYPE_bte, TYPE_sht, TYPE_int,
                             TYPE_wrd, TYPE_flt,  TYPE_dbl, TYPE_lng};

//! The type of a union's tail, by the places of both in `types`: 1 bit, 2, b(te), s(ht), i(nt),
//! w(rd), f(lt), d(bl), l(ng).
int expected_type(std::size_t left, std::size_t right) {
    static const std::string names = "12bsiwfdl";
    static const std::vector<std::string> table{
        "12bsiwfdl", "22bsiwfdl", "bbbsiwfdl", "ssssiwfdl", "iiiiiwfdl",
        "wwwwwwfdl", "fffffffdd", "ddddddddd", "llllllddl",
    };
    return types[names.find(table[left][right])];
}

struct side {
    bat column;
    std::vector<std::optional<cell>> cells;
};

side draw_side(std::mt19937 &random, int type, BUN rows, BUN first) {
    refkernel::column_options options{.type = type, .first = first};
    const auto head = random() % 4;
    options.stored_head = head < 2;
    options.seqbase = head == 2 ? oid_nil : 100;
    std::vector<oid> heads(rows);
    for (oid &h : heads)
        h = static_cast<oid>(random());
    if (head == 0)
        options.head_oids = heads;
    const int nil_percent = std::array{0, 0, 3, 50, 100}[random() % 5];
    const auto values = static_cast<support::spread>(random() % 3);
    return support::with_element_of(type, [&]<class T>(T) {
        const auto drawn = support::draw_values<T>(random, rows, nil_percent, values);
        side result{refkernel::make_column(std::span<const T>(drawn), options), {}};
        for (const T v : drawn)
            result.cells.push_back(v == nil_of<T>() ? std::nullopt : std::optional<cell>(v));
        return result;
    });
}

std::vector<cell> cells_of(const bat &b) {
    return support::with_element_of(b.type(), [&]<class T>(T) {
        const auto values = b.values<T>();
        return std::vector<cell>(values.begin(), values.end());
    });
}

void check_union(const side &left, const side &right, int type) {
    std::int32_t id = 0;
    ASSERT_EQ(take_exception(vask_coSNNandUnion(&id, left.column.slot(), right.column.slot())),
              operator_failure{});
    const bat result = bat::adopt(id);

    std::vector<cell> tails;
    std::vector<oid> heads;
    for (const side *s : {&left, &right})
        for (BUN row = 0; row < s->cells.size(); ++row)
            if (left.cells[row] && right.cells[row]) {
                tails.push_back(assigned(*s->cells[row], type));
                heads.push_back(s->column.head_oid(row));
            }

    ASSERT_EQ(result.type(), type);
    ASSERT_EQ(result.count(), tails.size());
    ASSERT_EQ(result->head->type, TYPE_oid);
    for (BUN row = 0; row < result.count(); ++row)
        ASSERT_EQ(result.head_oid(row), heads[row]) << row;
    ASSERT_TRUE(std::ranges::equal(cells_of(result), tails, same_cell));
    EXPECT_TRUE(result->tail->nonil && !result->tail->nil && result->tail->sorted == 0);
    EXPECT_EQ(result->state->access, unsigned{ACCESS_READ});
}

TEST(FilteredUnion, OfAllTypesHoldsTheRowsWithoutNils) {
    std::uint32_t seed = 0;
    for (std::size_t l = 0; l < types.size(); ++l)
        for (std::size_t r = 0; r < types.size(); ++r)
            for (const BUN rows : {0U, 1U, 2U, 7U, 300U, 1023U, 1024U, 1025U, 5000U}) {
                std::mt19937 random(++seed);
                const std::int32_t threads = std::array{1, 2, 3, 8, 300}[random() % 5];
                const BUN first = random() % 3 == 0 ? 5 : 0;
                const kernel_settings settings(threads);
                SCOPED_TRACE("seed " + std::to_string(seed) + ", types " +
                             std::to_string(types[l]) + " and " + std::to_string(types[r]) + ", " +
                             std::to_string(rows) + " rows from " + std::to_string(first) + ", " +
                             std::to_string(threads) + " threads");
                const side left = draw_side(random, types[l], rows, first);
                const side right = draw_side(random, types[r], rows, first);
                const refkernel::instrumentation::watch kernel;
                const refkernel::checkpoint before;
                check_union(left, right, expected_type(l, r));
                ASSERT_EQ(before.leaks(), "");
                if (HasFatalFailure())
                    return;
            }
}

operator_failure failure_of(const bat &left, const bat &right) {
    std::int32_t id = -7;
    const auto failure = take_exception(vask_coSNNandUnion(&id, left.slot(), right.slot()));
    EXPECT_EQ(id, -7);
    return failure;
}

operator_failure failed(const char *text) {
    return {"vask_ops.coSNNandUnion", text};
}

TEST(FilteredUnion, NeedsThreadsOnlyForRows) {
    const bat some = refkernel::make_column(std::vector<std::int32_t>{1, 2, 3});
    const bat none = refkernel::make_column(std::vector<std::int32_t>());
    const kernel_settings settings(0);
    EXPECT_EQ(failure_of(some, some), failed("operation failed"));
    check_union({bat::share(none.id()), {}}, {bat::share(none.id()), {}}, TYPE_int);
}

TEST(FilteredUnion, SurvivesShortMemory) {
    using refkernel::instrumentation::operation;
    const bat b = refkernel::make_column(std::vector<std::int32_t>{1, 2, 3});
    refkernel::instrumentation::watch kernel;
    const support::leak_guard leaks;
    for (const auto op : {operation::bat_new, operation::gdk_malloc})
        for (std::uint64_t nth = 1; nth <= (op == operation::gdk_malloc ? 2 : 1); ++nth) {
            kernel.fail_at(op, nth);
            EXPECT_EQ(failure_of(b, b), failed("operation failed")) << nth;
        }
    EXPECT_EQ(kernel.failures(), 3U);
}

// As extents of a grouping, in which a head that is taken for dense leads to the wrong rows.
TEST(FilteredUnion, ItsHeadIsBelievedAsItStandsWhateverMarksTheKernelKeeps) {
    const bat left = refkernel::make_column(std::vector<std::int32_t>{1, int_nil, 3, 4},
                                            {.seqbase = 10, .writable = true});
    const std::vector<oid> right_heads{90, 91, 30, 50};
    const bat right = refkernel::make_column(std::vector<std::int32_t>{5, 6, 7, 8},
                                             {.stored_head = true, .head_oids = right_heads});
    std::vector<oid> map;
    std::vector<std::int64_t> expected;
    for (const oid group : {10U, 12U, 13U, 90U, 30U, 50U}) {
        expected.push_back(static_cast<std::int64_t>(expected.size()) + 1);
        map.insert(map.end(), expected.size(), group);
    }
    const bat values = refkernel::make_column(std::vector<std::int32_t>(map.size(), 1));
    const bat groups = refkernel::make_column(std::move(map));

    refkernel::instrumentation::keep_marks_on_materialize(true);
    std::int32_t id = 0;
    EXPECT_EQ(take_exception(vask_coSNNandUnion(&id, left.slot(), right.slot())),
              operator_failure{});
    refkernel::instrumentation::keep_marks_on_materialize(false);
    const bat both = bat::adopt(id);
    EXPECT_TRUE(both->head->sorted == 0 && !both->head->dense && !both->head->nonil);
    EXPECT_EQ(take_exception(vask_grp_count(&id, values.slot(), groups.slot(), both.slot())),
              operator_failure{});
    const bat counts = bat::adopt(id);
    EXPECT_TRUE(std::ranges::equal(counts.values<std::int64_t>(), expected));
}

std::atomic<int> compared;
int counting_comparison(const void *a, const void *b) {
    ++compared;
    return *static_cast<const int32_t *>(a) == *static_cast<const int32_t *>(b) ? 0 : 1;
}
// Of the rows with a 7, those of the first pass are values and those of the second nil, or the
// other way round.
std::atomic<int> sevens;
constexpr int sevens_per_pass = 4;
int forgetting_comparison(const void *, const void *b) {
    return *static_cast<const int32_t *>(b) != 7 || sevens++ < sevens_per_pass;
}
int remembering_comparison(const void *, const void *b) {
    return *static_cast<const int32_t *>(b) != 7 || sevens++ >= sevens_per_pass;
}
int throwing_comparison(const void *, const void *) {
    throw std::runtime_error("no comparison");
}

TEST(FilteredUnion, TestsEveryElementOncePerPass) {
    const std::int32_t nil = int_nil;
    const bat left = refkernel::make_column(std::vector<std::int32_t>{1, nil, 3, nil, 5});
    const bat right = refkernel::make_column(std::vector<std::int32_t>{nil, 1, 3, nil, 5});
    const support::replaced_comparison counting(TYPE_int, counting_comparison);
    compared = 0;
    std::int32_t id = 0;
    EXPECT_EQ(take_exception(vask_coSNNandUnion(&id, left.slot(), right.slot())),
              operator_failure{});
    bat::adopt(id).reset();
    EXPECT_EQ(compared, 2 * (5 + 3)); // the right element only where the left one is no nil
}

// One partition: the calls come in order.
TEST(FilteredUnion, ColumnThatChangesBetweenThePassesFails) {
    const kernel_settings settings(1);
    const bat left = refkernel::make_column(std::vector<std::int32_t>{1, 7, 7, 7, 7, 2});
    const bat right = refkernel::make_column(std::vector<std::int64_t>{1, 1, 1, 1, 1, 1});
    for (const auto comparison : {remembering_comparison, throwing_comparison}) {
        const support::replaced_comparison replaced(TYPE_int, comparison);
        sevens = 0;
        const std::int64_t bats = refkernel::current_usage().bats;
        const std::int64_t references = refkernel::current_usage().logical;
        EXPECT_EQ(failure_of(left, right), failed("operation failed"));
        // A result that was made before the failure stays, and nobody holds it.
        EXPECT_EQ(refkernel::current_usage().bats - bats,
                  comparison == remembering_comparison ? 1 : 0);
        EXPECT_EQ(refkernel::current_usage().logical, references);
    }
    // Fewer survivors than were counted leave rows of the result unwritten, and nothing is said.
    const support::replaced_comparison replaced(TYPE_int, forgetting_comparison);
    sevens = 0;
    std::int32_t id = 0;
    EXPECT_EQ(take_exception(vask_coSNNandUnion(&id, left.slot(), right.slot())),
              operator_failure{});
    EXPECT_EQ(bat::adopt(id).count(), 12U);
}

// Of a type that the kernel stores in no way that the operators know, no element is read.
TEST(FilteredUnion, TypesWithoutAStorageClassFail) {
    const bat wrds = refkernel::make_column(std::vector<wrd>{1, 2, 3}, {.type = TYPE_wrd});
    const bat lngs = refkernel::make_column(std::vector<std::int64_t>{4, 5, 6});
    const int storage = std::exchange(BATatoms[TYPE_wrd].atom_storage, TYPE_wrd);
    for (const auto &[left, right] : {std::pair(&wrds, &lngs), {&lngs, &wrds}, {&wrds, &wrds}})
        EXPECT_EQ(failure_of(*left, *right), failed("operation failed"));
    BATatoms[TYPE_wrd].atom_storage = storage;
}

} // namespace
