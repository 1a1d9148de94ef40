#include "grouping/sort/sort_bat.h"

#include "grouping/plain_groups.h"

#include <cstring>
#include <sys/mman.h>

#include <gtest/gtest.h>

namespace {

using namespace vask;

//! A BAT over memory of the test's own, which kernels do not know.
template <class T>
struct loose_bat {
    BATcol head{};
    BATcol tail{};
    BATstate state{};
    BATinfo info{};
    BAT bat{};

    loose_bat(oid *oids, T *values, BUN first, BUN count) {
        head.base = oids;
        tail.base = values;
        info = {first, count, first + count};
        bat = {1, &head, &tail, &state, &info};
    }
};

template <class T>
using rows = std::vector<std::pair<oid, T>>;

template <class T>
rows<T> rows_between(const std::vector<oid> &oids, const std::vector<T> &values, std::size_t begin,
                     std::size_t end) {
    rows<T> result;
    for (std::size_t i = begin; i < end; ++i)
        result.emplace_back(oids[i], values[i]);
    return result;
}

enum class order { random, sorted, last_two_swapped, descending };

template <class T, template <class> class Cmp>
void check_sort(BUN count, BUN first, std::uint64_t distinct, order start) {
    constexpr bool by_head = std::is_same_v<Cmp<T>, BUNviewHeadComparator<T>>;
    SCOPED_TRACE(std::to_string(count) + " rows from " + std::to_string(first) + ", " +
                 std::to_string(distinct) + " values of " + std::to_string(sizeof(T)) +
                 " bytes, order " + std::to_string(static_cast<int>(start)));
    const std::size_t all = first + count + 3;
    std::vector<T> values = support::random_values<T>(all, distinct, 5, count + distinct);
    // Heads are unsigned: half of them are above what an int holds.
    std::vector<oid> oids =
        support::head_oids(support::heads::shuffled, all, 0x7fffffff - count / 2, distinct);
    const auto sort_part = [&](auto &part, auto less) {
        std::sort(part.begin() + first, part.begin() + first + count, less);
        if (start == order::last_two_swapped && count > 1)
            std::swap(part[first + count - 1], part[first + count - 2]);
    };
    if (start == order::descending)
        sort_part(values, std::greater<>()), sort_part(oids, std::greater<>());
    else if (start != order::random)
        sort_part(values, std::less<>()), sort_part(oids, std::less<>());

    const rows<T> before = rows_between(oids, values, 0, all);
    loose_bat<T> b(oids.data(), values.data(), first, count);
    vask_sort_bat<T, Cmp>(&b.bat);

    rows<T> got = rows_between(oids, values, 0, all);
    const auto begin = got.begin() + first;
    const auto end = begin + count;
    EXPECT_TRUE(std::is_sorted(begin, end, [](const auto &x, const auto &y) {
        return by_head ? x.first < y.first : x.second < y.second;
    }));
    // The same rows, whole; and none outside the range was touched.
    rows<T> expected = before;
    std::sort(expected.begin() + first, expected.begin() + first + count);
    std::sort(begin, end);
    EXPECT_TRUE(got == expected);
}

TEST(SortBat, OrdersWholeRowsAndNoOthers) {
    for (const BUN count : {0U, 1U, 2U, 9U, 10U, 499U, 500U, 501U, 3000U, 40000U})
        for (const BUN first : {0U, 5U})
            for (const std::uint64_t distinct : {1U, 3U, 1000000U})
                for (const order start :
                     {order::random, order::sorted, order::last_two_swapped, order::descending}) {
                    support::for_each_number_type([&]<class T>(T) {
                        check_sort<T, BUNviewTailComparator>(count, first, distinct, start);
                    });
                    check_sort<wrd, BUNviewHeadComparator>(count, first, distinct, start);
                }
}

TEST(SortBat, SortedRowsAreNotWritten) {
    for (const BUN count : {500U, 100000U}) {
        const std::size_t bytes = count * (sizeof(oid) + sizeof(lng));
        void *memory =
            mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        auto *values = static_cast<lng *>(memory);
        auto *oids = reinterpret_cast<oid *>(values + count);
        for (BUN i = 0; i < count; ++i) {
            values[i] = i / 3;
            oids[i] = count - i;
        }
        ASSERT_EQ(mprotect(memory, bytes, PROT_READ), 0);
        loose_bat<lng> b(oids, values, 0, count);
        vask_sort_bat<lng, BUNviewTailComparator>(&b.bat); // a write would end the process
        munmap(memory, bytes);
    }
}

} // namespace
