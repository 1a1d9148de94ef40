// VASKgroup by the hash path: 1e7 rows on two threads, values in random order.

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

//! The number of each row's value, in random order.
std::vector<std::int32_t> draw_numbers(std::int32_t distinct) {
    std::mt19937_64 random(11);
    std::vector<std::int32_t> numbers(rows);
    for (std::int32_t &n : numbers)
        n = static_cast<std::int32_t>(random() % static_cast<std::uint64_t>(distinct));
    return numbers;
}

refkernel::bat text_column(const std::vector<std::int32_t> &numbers, std::int32_t distinct) {
    std::vector<std::string> texts;
    for (std::int32_t i = 0; i < distinct; ++i)
        texts.push_back("id" + std::to_string(1'000'000 + i));
    refkernel::text_builder builder;
    builder.reserve(rows);
    std::vector<std::string_view> batch;
    for (const std::int32_t n : numbers) {
        batch.push_back(texts[static_cast<std::size_t>(n)]);
        if (batch.size() == 4096) {
            builder.append_all(batch);
            batch.clear();
        }
    }
    builder.append_all(batch);
    return builder.finish();
}

//! What a plain loop gives: the id of each row's group, the rows of each group.
struct expected_groups {
    std::vector<oid> map;
    std::vector<oid> ids;
    std::vector<wrd> counts;

    expected_groups(const std::vector<std::int32_t> &numbers, std::int32_t distinct) : map(rows) {
        std::vector<std::size_t> group(static_cast<std::size_t>(distinct), rows);
        for (std::size_t row = 0; row < rows; ++row) {
            std::size_t &g = group[static_cast<std::size_t>(numbers[row])];
            if (g == rows) {
                g = ids.size();
                ids.push_back(static_cast<oid>(row));
                counts.push_back(0);
            }
            ++counts[g];
            map[row] = ids[g];
        }
    }

    std::string compare(const refkernel::bat &got_map, const refkernel::bat &extents) const {
        if (!std::ranges::equal(got_map.values<oid>(), map))
            return "wrong map";
        if (!std::ranges::equal(extents.values<wrd>(), counts))
            return "wrong counts";
        for (BUN j = 0; j < extents.count(); ++j)
            if (extents.head_oid(j) != ids[j])
                return "wrong ids";
        return "";
    }
};

void group(benchmark::State &state) {
    const bool texts = state.range(0) != 0;
    const auto distinct = static_cast<std::int32_t>(state.range(1));
    const std::vector<std::int32_t> numbers = draw_numbers(distinct);
    const expected_groups expected(numbers, distinct);
    const refkernel::bat column =
        texts ? text_column(numbers, distinct)
              : refkernel::make_column(std::span<const std::int32_t>(numbers));
    GDKnr_threads = 2;
    std::int32_t extents = int_nil;
    std::int32_t map = int_nil;
    bench::run_in_read_units(
        state,
        [&] {
            if (char *failure = VASKgroup(&extents, &map, column.slot()))
                state.SkipWithError(refkernel::take_exception(failure).text.c_str());
        },
        [&] {
            return expected.compare(refkernel::bat::adopt(map), refkernel::bat::adopt(extents));
        },
        static_cast<double>(state.range(2)));
}

BENCHMARK(group)
    ->ArgNames({"text", "values", "bar"})
    ->Args({0, 100, 6})
    ->Args({0, 100'000, 24})
    ->Args({1, 100, 12})
    ->Args({1, 100'000, 50})
    ->Args({0, 1'000'000, 35})
    ->Args({0, 4'300'000, 60})
    ->Args({1, 1'000'000, 50})
    ->Args({1, 4'300'000, 120})
    ->UseManualTime()
    ->Iterations(11)
    ->Unit(benchmark::kMillisecond);

} // namespace
