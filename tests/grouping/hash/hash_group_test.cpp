#include "grouping/hash/hash_group.h"

#include "grouping/path_check.h"
#include "kernel/column.h"
#include "kernel/hostile.h"
#include "rows/key_hash.h"
#include "support/failing_calls.h"
#include "support/instruction_sets.h"
#include "support/kernel_settings.h"
#include "vask/refkernel/instrumentation.h"

#include <limits>

#include <gtest/gtest.h>

namespace {

using namespace vask;
using namespace support;
using refkernel::bat;
using refkernel::instrumentation::operation;
using refkernel::instrumentation::watch;

//! The path's answer for a column whose rows have these keys.
template <class T, class Key>
void check_path(const bat &b, const std::vector<Key> &keys, const std::vector<oid> &oids,
                int threads) {
    SCOPED_TRACE(std::to_string(keys.size()) + " rows of type " + std::to_string(b.type()) +
                 ", width " + std::to_string(b->tail->width) + ", " + std::to_string(threads) +
                 " threads");
    const kernel_settings settings(threads);
    expect_path(vask_hash_group, b, group_rows(keys, oids), oids, sorted_mark(*b->head));
}

template <class T>
void check_numbers(const std::vector<T> &values, heads kind, int threads, bool sorted = false) {
    const std::vector<oid> oids = head_oids(kind, values.size(), 7, values.size());
    refkernel::column_options options = head_options(kind, oids);
    options.tail.sorted = sorted;
    const bat b = refkernel::make_column<T>(std::span<const T>(values), options);
    check_path<T>(b, keys_by_bits(values), oids, threads);
}

//! `distinct` values side by side from `least` on, some nil.
template <class T>
std::vector<T> close_values(std::size_t rows, T least, std::uint64_t distinct, int nil_percent,
                            std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::vector<T> values(rows);
    for (T &value : values)
        value = static_cast<int>(random() % 100) < nil_percent
                    ? refkernel::nil_of<T>()
                    : static_cast<T>(least + static_cast<T>(random() % distinct));
    return values;
}

constexpr int thread_counts[] = {1, 2, 3, 7, 64};

TEST(HashGroup, NumbersAgreeWithThePlainWay) {
    std::uint64_t seed = 0;
    for (const std::size_t rows : {1U, 10U, 1023U, 1024U, 1025U, 5000U})
        for (const std::uint64_t distinct : {1U, 100U, 300U, 1000000U})
            for (const int nils : {0, 3, 50, 97, 100})
                for_each_number_type([&]<class T>(T) {
                    ++seed;
                    const instruction_set_of_turn instructions(seed / 7);
                    check_numbers(random_values<T>(rows, distinct, nils, seed), all_heads[seed % 5],
                                  thread_counts[seed / 5 % 5]);
                });
}

TEST(HashGroup, IntegersThatLieCloseTogether) {
    std::uint64_t seed = 0;
    const auto check = [&]<class T>(T) {
        if constexpr (std::is_integral_v<T>)
            for (const std::uint64_t distinct : {1U, 2U, 100U, 120U})
                for (const int nils : {0, 1, 50, 100})
                    for (const T least : {T{-60}, T{3}, static_cast<T>(refkernel::nil_of<T>() + 1),
                                          static_cast<T>(std::numeric_limits<T>::max() - 119)}) {
                        ++seed;
                        const instruction_set_of_turn instructions(seed);
                        std::vector<T> values = close_values<T>(
                            4000, least, std::min<std::uint64_t>(distinct, 120), nils, seed);
                        const heads kind = all_heads[seed % 5];
                        const int threads = thread_counts[seed / 5 % 5];
                        check_numbers(values, kind, threads);
                        // A mark that tells no truth changes no group.
                        check_numbers(values, kind, threads, true);
                        std::sort(values.begin(), values.end());
                        check_numbers(values, kind, threads, true);
                    }
    };
    for_each_number_type(check);
}

// Windows and memos beyond the caches, tables whose buckets are widened, every number of ranges the
// same groups.
TEST(HashGroup, ManyGroups) {
    constexpr std::size_t rows = unless_hostile<std::size_t>(200000, 2000);
    for (const int threads : {1, 2, 5}) {
        check_numbers(close_values<std::int32_t>(rows, -7, 30000, 1, 1), heads::void_head, threads);
        check_numbers(close_values<lng>(rows, lng{1} << 40, 90000, 0, 2), heads::shuffled, threads);
        check_numbers(random_values<sht>(rows, ~0ULL, 1, 3), heads::void_head, threads);
        check_numbers(random_values<std::int32_t>(rows, 50000, 1, 4), heads::ascending, threads);
        check_numbers(random_values<dbl>(rows, ~0ULL, 1, 5), heads::void_head, threads);
    }
}

// More keys than a table of a range takes, of which the later rows bring some again, or hardly any.
TEST(HashGroup, MoreKeysThanATableHolds) {
    constexpr std::size_t rows = unless_hostile<std::size_t>(700000, 3000);
    for (const int threads : {1, 2}) {
        check_numbers(random_values<lng>(rows, 400000, 1, 6), heads::void_head, threads);
        check_numbers(random_values<std::int32_t>(rows, ~0ULL, 0, 7), heads::shuffled, threads);
    }
}

// Their distance, and one place more, leave no number of 64 bits.
TEST(HashGroup, IntegersAsFarApartAsCanBe) {
    std::vector<lng> values(100, 0);
    values[1] = std::numeric_limits<lng>::max();
    for (const lng least : {1, 2, 3}) {
        values[2] = std::numeric_limits<lng>::min() + least;
        check_numbers(values, heads::void_head, 2);
    }
}

TEST(HashGroup, FloatsAreEqualByTheirBits) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    std::vector<double> values;
    for (int i = 0; i < 700; ++i)
        values.insert(values.end(), {0.0, nan, -0.0, -nan, 1e-310, refkernel::nil_of<double>()});
    for (const int threads : thread_counts)
        check_numbers(values, heads::void_head, threads);
}

//! Texts of all lengths that share beginnings, high bytes, the empty one.
std::string text_of(std::uint64_t number) {
    if (number == 0)
        return {};
    return (number % 3 == 0 ? "\xc3\xa4" : "text") + std::to_string(number % 10 == 9 ? 0 : number) +
           std::string(number % 17, 'x');
}

void check_texts(std::size_t rows, std::uint64_t distinct, int nil_percent,
                 const refkernel::text_options &stored, heads kind, int threads) {
    std::mt19937_64 random(rows + distinct);
    refkernel::text_builder builder(stored);
    std::vector<std::string> keys;
    for (std::size_t row = 0; row < rows; ++row) {
        const bool nil = static_cast<int>(random() % 100) < nil_percent;
        keys.push_back(nil ? std::string(refkernel::str_nil_text) : text_of(random() % distinct));
        if (nil)
            builder.append_nil();
        else
            builder.append(keys.back());
    }
    const std::vector<oid> oids = head_oids(kind, rows, 100, rows);
    check_path<str>(builder.finish(head_options(kind, oids)), keys, oids, threads);
}

TEST(HashGroup, TextsStoredOnceAndAnew) {
    std::uint64_t seed = 0;
    for (const auto sharing : {refkernel::text_sharing::once, refkernel::text_sharing::anew})
        for (const int width : {1, 2, 4})
            for (const std::size_t rows : {1U, 50U, 3000U, unless_hostile(40000U, 6000U)})
                for (const std::uint64_t distinct : {1U, 60U, 9000U})
                    for (const int nils : {0, 40}) {
                        ++seed;
                        refkernel::text_options stored;
                        stored.sharing = sharing;
                        stored.offset_width = width;
                        check_texts(rows, distinct, nils, stored, all_heads[seed % 5],
                                    thread_counts[seed / 2 % 5]);
                    }
}

// Values that the first rows do not have: of some rows in a row, of all later rows, of the end.
TEST(HashGroup, GroupsThatTurnUpLate) {
    constexpr std::size_t rows = 90000;
    std::mt19937_64 random(8);
    std::vector<std::int32_t> values(rows);
    for (std::size_t row = 0; row < rows; ++row) {
        const auto some = static_cast<std::int32_t>(random() % 40);
        const bool late = row > 30000 && random() % 3 == 0;
        values[row] = !late ? some : some < 20 ? 40 + some : 60 + static_cast<int>(row / 3000);
    }
    values[rows - 2] = values[rows - 1] = 100;
    for (const bool sorted : {false, true}) {
        if (sorted)
            std::sort(values.begin(), values.end());
        for (const int threads : thread_counts) {
            check_numbers(values, heads::void_head, threads);
            check_numbers(values, heads::shuffled, threads);
            for (const auto sharing :
                 {refkernel::text_sharing::once, refkernel::text_sharing::anew}) {
                refkernel::text_builder builder({.sharing = sharing, .offset_width = 1});
                std::vector<std::string> keys;
                for (const std::int32_t value : values)
                    builder.append(keys.emplace_back(std::to_string(value)));
                const std::vector<oid> oids = head_oids(heads::void_head, rows, 100, rows);
                check_path<str>(builder.finish(head_options(heads::void_head, oids)), keys, oids,
                                threads);
            }
        }
    }
}

//! The groups of values from 0 to range - 1 under a void head, by a table of all values.
plain_groups group_by_table(const std::vector<std::int32_t> &values, std::int32_t range) {
    constexpr std::size_t none = ~std::size_t{0};
    plain_groups groups;
    std::vector<std::size_t> number(static_cast<std::size_t>(range), none);
    for (std::size_t row = 0; row < values.size(); ++row) {
        std::size_t &group = number[static_cast<std::size_t>(values[row])];
        if (group == none) {
            group = groups.extents.size();
            groups.extents.emplace_back(static_cast<oid>(row), 0);
        }
        ++groups.extents[group].second;
        groups.map.push_back(groups.extents[group].first);
    }
    return groups;
}

//! The most bytes that grouping takes beyond its results, which are checked.
std::uint64_t bytes_to_group(const std::vector<std::int32_t> &values, const plain_groups &expected,
                             int threads) {
    const kernel_settings settings(threads);
    const bat b = refkernel::make_column<std::int32_t>(std::span<const std::int32_t>(values));
    group_results made(b);
    const watch kernel;
    EXPECT_EQ(vask_hash_group(made.ext.record(), made.grp.record(), b.record()), 1);
    EXPECT_EQ(difference(read_groups(*made.grp.record(), *made.ext.record(), b.count()), expected),
              "")
        << threads << " threads";
    return kernel.most_bytes_outstanding();
}

constexpr std::size_t many_rows = 5'000'000;
constexpr std::int32_t large_range = 300'000;

std::vector<std::int32_t> values_of_large_range() {
    std::mt19937_64 random(3);
    std::vector<std::int32_t> values(many_rows);
    for (std::int32_t &value : values)
        value = static_cast<std::int32_t>(random() % large_range);
    return values;
}

// Values that lie close together, in a window too large for wide counters: one so often that narrow
// ones are full several times, many that only later rows have, all in order.
TEST(HashGroup, LargeWindows) {
    if (forced_way() == grouping_way::table || forced_way() == grouping_way::buckets)
        GTEST_SKIP() << "a window is for an index; by equal hashes its values take hours";
    std::vector<std::int32_t> values = values_of_large_range();
    for (std::size_t row = 0; row < many_rows; ++row) {
        std::int32_t &value = values[row];
        if (row % 3 == 0)
            value = 77;
        else if (value >= large_range - 2000 && row < many_rows - 90'000)
            value -= 2000;
    }
    for (const bool sorted : {false, true}) {
        if (sorted)
            std::sort(values.begin(), values.end());
        const plain_groups expected = group_by_table(values, large_range);
        for (const int threads : {1, 2, 7})
            bytes_to_group(values, expected, threads);
    }
}

// Beyond the results there is one table of the groups and little for each thread, whether the
// values fill their range or not.
TEST(HashGroup, MemoryFollowsTheGroupsAndNotTheThreads) {
    if (vask::is_hostile)
        GTEST_SKIP() << "every key is too many for a table";
    constexpr std::int32_t few = 100;
    const std::vector<std::int32_t> dense = values_of_large_range();
    std::vector<std::int32_t> sparse = dense;
    for (std::int32_t &value : sparse)
        value = value % few * (large_range / few);
    const plain_groups dense_groups = group_by_table(dense, large_range);
    const plain_groups sparse_groups = group_by_table(sparse, large_range);
    for (const int threads : {2, 16}) {
        const auto n = static_cast<std::uint64_t>(threads);
        EXPECT_LE(bytes_to_group(dense, dense_groups, threads), large_range * (48 + 2 * n));
        // Twice as many buckets as the range has values, and a small table for each thread.
        EXPECT_LE(bytes_to_group(sparse, sparse_groups, threads), 16 * large_range + n * 300'000);
    }
}

TEST(HashGroup, NoThreadsFailAtOnce) {
    const kernel_settings settings(0);
    const bat b = refkernel::make_column(std::vector<std::int32_t>(10, 0));
    group_results made(b);
    EXPECT_EQ(vask_hash_group(made.ext.record(), made.grp.record(), b.record()), 0);
    EXPECT_EQ(made.ext.count(), 0U);
}

// Memory that fails at any point leaves as an exception, extents that cannot grow as a failure. Of
// working memory nothing stays.
TEST(HashGroup, FailingKernelCalls) {
    constexpr int threads = 3;
    const kernel_settings settings(threads);
    const bat numbers = refkernel::make_column(random_values<lng>(30000, 9000, 0, 1));
    const bat window = refkernel::make_column(close_values<lng>(30000, 5, 6000, 0, 1));
    for (const bat *b : {&numbers, &window})
        for (const operation op : {operation::gdk_malloc, operation::bat_extend})
            fail_each_call(
                op, [&] { return group_results(*b); },
                [&](group_results &made, const watch &kernel, auto failed) {
                    int result = -1;
                    try {
                        result = vask_hash_group(made.ext.record(), made.grp.record(), b->record());
                    } catch (const std::bad_alloc &e) {
                        EXPECT_STREQ(e.what(), "bad allocation");
                    }
                    EXPECT_EQ(result, !failed() ? 1 : op == operation::gdk_malloc ? -1 : 0);
                    EXPECT_EQ(kernel.bytes_outstanding(), 0U);
                });
}

} // namespace
