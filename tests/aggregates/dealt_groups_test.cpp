// Rows dealt out to their groups give what a scan in place gives, to the bit.
#include "aggregates/dealt_groups.h"

#include "aggregates/grouped.h"
#include "aggregates/sum.h"
#include "vask/embed.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace vask;
using refkernel::bat;

struct grouped_column {
    std::vector<oid> ids; // ascending, with room between them
    bat values;
    bat map;
    bat extents;

    grouped_column(BUN rows, BUN groups, int percent_nil, std::uint32_t seed) {
        std::mt19937 random(seed);
        oid id = 5;
        for (BUN j = 0; j < groups; ++j)
            ids.push_back(id += 1 + static_cast<oid>(random() % 5));
        std::vector<double> numbers(rows);
        std::vector<oid> gids(rows);
        for (BUN row = 0; row < rows; ++row) {
            // Sums of these depend on the order of the additions.
            numbers[row] =
                static_cast<int>(random() % 100) < percent_nil
                    ? refkernel::nil_of<double>()
                    : std::ldexp(static_cast<double>(random()), static_cast<int>(random() % 60));
            gids[row] = ids[random() % (random() % 2 == 0 ? groups : std::min(groups, BUN{3}))];
        }
        values = refkernel::make_column(std::move(numbers));
        map = refkernel::make_column(std::move(gids));
        extents = refkernel::make_column(std::vector<std::int64_t>(groups, 1),
                                         {.type = TYPE_wrd, .stored_head = true, .head_oids = ids});
    }

    void set_group(BUN row, oid id) { static_cast<oid *>(map->tail->base)[row] = id; }
};

template <class Aggregate>
struct results {
    std::vector<typename Aggregate::partial> of_groups;
    std::optional<bool> any_nil;

    explicit results(std::size_t groups) : of_groups(groups) {}

    auto finish() {
        return [this](BUN j, const typename Aggregate::partial &total) {
            of_groups[j] = total;
            return !total.seen;
        };
    }

    bool operator==(const results &other) const {
        return any_nil == other.any_nil &&
               std::equal(of_groups.begin(), of_groups.end(), other.of_groups.begin(),
                          [](const auto &a, const auto &b) {
                              return a.seen == b.seen &&
                                     std::memcmp(&a.value, &b.value, sizeof a.value) == 0;
                          });
    }
};

template <class Aggregate>
results<Aggregate> deal(const grouped_column &in, std::uint64_t nparts) {
    results<Aggregate> got(in.ids.size());
    const column_rows<double> rows(*in.values.record());
    const partition_plan plan(*in.values.record(), nparts);
    got.any_nil = dealt_groups<Aggregate, column_rows<double>>(rows, plan, *in.map.record(),
                                                               *in.extents.record())
                      .run(got.finish());
    return got;
}

template <class Aggregate>
results<Aggregate> scan(const grouped_column &in, std::uint64_t nparts) {
    results<Aggregate> got(in.ids.size());
    const column_rows<double> rows(*in.values.record());
    const partition_plan plan(*in.values.record(), nparts);
    got.any_nil = aggregate_in_place<Aggregate>(rows, plan, *in.map.record(), *in.extents.record(),
                                                got.finish());
    return got;
}

TEST(DealtGroups, AreThoseOfAScanInPlace) {
    std::uint32_t seed = 0;
    for (const auto &[rows, groups] :
         {std::pair(1U, 1U), std::pair(5000U, 1U), std::pair(100U, 3000U),
          std::pair(200'000U, 5000U), std::pair(300'000U, 70'000U)})
        for (const int percent_nil : {0, 20, 100})
            for (const std::uint64_t nparts : {1U, 2U, 5U}) {
                SCOPED_TRACE("seed " + std::to_string(++seed) + ", " + std::to_string(rows) +
                             " rows, " + std::to_string(nparts) + " partitions");
                const grouped_column in(rows, groups, percent_nil, seed);
                const std::uint64_t parts = std::min<std::uint64_t>(nparts, rows);
                EXPECT_TRUE(deal<sum<double>>(in, parts) == scan<sum<double>>(in, parts));
            }
}

// Rows behind one whose group the extents do not hold must not count, which dealing cannot tell.
TEST(DealtGroups, AreGivenUpWhereRowsHaveToBeScannedInOrder) {
    grouped_column in(50'000, 20'000, 10, 7);
    ASSERT_TRUE(deal<sum<double>>(in, 3).any_nil);
    const oid within = in.ids[100] + 1;
    for (const oid stray : {oid{0}, in.ids.back() + 1, std::numeric_limits<oid>::max()}) {
        grouped_column broken(50'000, 20'000, 0, 7);
        broken.set_group(40'000, stray);
        EXPECT_FALSE(deal<sum<double>>(broken, 3).any_nil) << stray;
    }
    if (within != in.ids[101]) {
        grouped_column broken(50'000, 20'000, 0, 7);
        broken.set_group(49'999, within);
        EXPECT_FALSE(deal<sum<double>>(broken, 3).any_nil);
    }
    const grouped_column shuffled(50'000, 20'000, 10, 7);
    std::swap(static_cast<oid *>(shuffled.extents->head->base)[3],
              static_cast<oid *>(shuffled.extents->head->base)[4]);
    EXPECT_FALSE(deal<sum<double>>(shuffled, 3).any_nil);
}

} // namespace
