// Distinct count per group of 1e7 rows on two threads.

#include "bench/read_unit.h"

#include "vask/embed.h"
#include "vask/ops.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr std::size_t rows = 10'000'000;

//! The number of different values in each group, by sorting pairs.
std::vector<wrd> plain_counts(const std::vector<oid> &groups,
                              const std::vector<std::int32_t> &values, std::uint32_t count) {
    std::vector<std::uint64_t> pairs(rows);
    for (std::size_t row = 0; row < rows; ++row)
        pairs[row] = std::uint64_t{groups[row]} << 32 | static_cast<std::uint32_t>(values[row]);
    std::sort(pairs.begin(), pairs.end());
    pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());
    std::vector<wrd> counts(count);
    for (const std::uint64_t pair : pairs)
        ++counts[pair >> 32];
    return counts;
}

//! Arguments: groups, different values, bar in R. Values and groups are drawn apart and evenly.
void count_distinct(benchmark::State &state) {
    const auto groups = static_cast<std::uint32_t>(state.range(0));
    const auto distinct = static_cast<std::uint32_t>(state.range(1));
    std::mt19937 random(42);
    std::vector<oid> ids(rows);
    std::vector<std::int32_t> values(rows);
    for (std::size_t row = 0; row < rows; ++row) {
        ids[row] = static_cast<oid>(random() % groups);
        values[row] = static_cast<std::int32_t>(random() % distinct);
    }
    const std::vector<wrd> expected = plain_counts(ids, values, groups);
    const refkernel::bat b = refkernel::make_column(std::move(values));
    const refkernel::bat g = refkernel::make_column(std::move(ids));
    // Stored oids, as a grouping gives them.
    const refkernel::bat e = refkernel::make_column(std::vector<std::int64_t>(groups, 1),
                                                    {.type = TYPE_wrd, .stored_head = true});
    GDKnr_threads = 2;
    refkernel::bat result;
    bench::run_in_read_units(
        state,
        [&] {
            std::int32_t id = 0;
            if (char *failure = AggrX3_countDistinct(&id, b.slot(), g.slot(), e.slot()))
                state.SkipWithError(refkernel::take_exception(failure).text.c_str());
            result = refkernel::bat::adopt(id);
        },
        [&]() -> std::string {
            const auto found = result.values<wrd>();
            return std::equal(found.begin(), found.end(), expected.begin(), expected.end())
                       ? ""
                       : "wrong counts";
        },
        static_cast<double>(state.range(2)));
}

BENCHMARK(count_distinct)
    ->ArgNames({"groups", "distinct", "bar"})
    ->Args({100, 100'000, 70})
    ->Args({100'000, 100'000, 180})
    ->Args({100'000, 10'000'000, 180})
    ->UseManualTime()
    ->Iterations(9)
    ->Unit(benchmark::kMillisecond);

} // namespace
