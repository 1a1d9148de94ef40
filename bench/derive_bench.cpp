// Grouping by sorting, and refinement of groupings, at 1e7 rows.
//
// counters: peak_MB is the most memory that the process held during the calls, beyond what it held
// before; input_MB and result_MB are the columns that go in and come out.

#include "bench/read_unit.h"

#include "vask/embed.h"
#include "vask/ops.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <unordered_map>

namespace {

using refkernel::bat;

constexpr std::size_t rows = 10'000'000;
constexpr double megabyte = 1e6;

struct grouping {
    bat histo;
    bat map;
};

template <class Call>
grouping made_by(benchmark::State &state, Call call) {
    std::int32_t histo = int_nil;
    std::int32_t map = int_nil;
    if (char *failure = call(&histo, &map))
        state.SkipWithError(refkernel::take_exception(failure).text.c_str());
    return {bat::adopt(histo), bat::adopt(map)};
}

grouping group(benchmark::State &state, const bat &b) {
    return made_by(state, [&](auto *histo, auto *map) { return VASKgroup(histo, map, b.slot()); });
}

grouping derive(benchmark::State &state, const grouping &old, const bat &b) {
    return made_by(state, [&](auto *histo, auto *map) {
        return VASKderive(histo, map, old.histo.slot(), old.map.slot(), b.slot());
    });
}

//! The kilobytes of a line of the process's status.
double status_kilobytes(const std::string &name) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(name + ":"))
            return std::stod(line.substr(name.size() + 1));
    return 0;
}

//! Forgets the most memory held so far; the kernel of the system does so on request.
void reset_peak() {
    std::ofstream("/proc/self/clear_refs") << 5;
}

std::string wrong_row(std::size_t row) {
    return "wrong group in row " + std::to_string(row);
}

//! Compares a grouping over a void head from 0 with the keys of the rows: every row's id is the
//! first row of its key, and the extents hold each id with its count.
std::string check(const grouping &result, const std::vector<std::uint64_t> &keys) {
    std::unordered_map<std::uint64_t, std::pair<oid, lng>> groups;
    groups.reserve(rows);
    const auto ids = result.map.values<oid>();
    for (std::size_t row = 0; row < rows; ++row) {
        auto &[id, count] = groups.try_emplace(keys[row], static_cast<oid>(row), 0).first->second;
        ++count;
        if (ids[row] != id)
            return wrong_row(row);
    }
    if (result.histo.count() != groups.size())
        return "wrong number of groups";
    const auto counts = result.histo.values<wrd>();
    for (BUN i = 0; i < result.histo.count(); ++i) {
        const oid id = result.histo.head_oid(i);
        if (id >= rows || groups.at(keys[id]) != std::pair<oid, lng>(id, counts[i]))
            return "wrong extents in row " + std::to_string(i);
    }
    return "";
}

//! Times `call()`, which gives a grouping of the rows, and checks the last one once.
template <class Call>
void run(benchmark::State &state, const std::vector<std::uint64_t> &keys, double input_bytes,
         double bar, Call call) {
    GDKnr_threads = 2;
    grouping result;
    double peak = 0;
    bool checked = false;
    bench::run_in_read_units(
        state,
        [&] {
            result = {};
            const double before = status_kilobytes("VmRSS");
            reset_peak();
            result = call();
            peak = std::max(peak, status_kilobytes("VmHWM") - before);
        },
        [&]() -> std::string {
            // Every answer is the same (the tests see to that); comparing one takes seconds.
            return std::exchange(checked, true) ? "" : check(result, keys);
        },
        bar);
    state.counters["peak_MB"] = peak / 1024;
    state.counters["input_MB"] = input_bytes / megabyte;
    state.counters["result_MB"] = (4.0 * rows + 12.0 * result.histo.count()) / megabyte;
}

std::vector<std::int32_t> random_ints(std::uint32_t distinct, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::vector<std::int32_t> values(rows);
    for (std::int32_t &value : values)
        value = static_cast<std::int32_t>(random() % distinct);
    return values;
}

std::vector<std::uint64_t> pair_keys(const std::vector<std::int32_t> &a,
                                     const std::vector<std::int32_t> &b) {
    std::vector<std::uint64_t> keys(rows);
    for (std::size_t row = 0; row < rows; ++row)
        keys[row] = static_cast<std::uint64_t>(a[row]) << 32 | static_cast<std::uint32_t>(b[row]);
    return keys;
}

void group_distinct_lng(benchmark::State &state) {
    // An odd factor makes 64 bits of a running number, each once.
    std::vector<lng> values(rows);
    std::vector<std::uint64_t> keys(rows);
    for (std::size_t row = 0; row < rows; ++row) {
        keys[row] = row * 0x9e3779b97f4a7c15U;
        values[row] = static_cast<lng>(keys[row]);
    }
    std::shuffle(values.begin(), values.end(), std::mt19937_64(1));
    std::copy(values.begin(), values.end(), keys.begin());
    const bat b = refkernel::make_column(std::move(values));
    run(state, keys, 8.0 * rows, 240, [&] { return group(state, b); });
}

void group_and_derive(benchmark::State &state, std::uint32_t first_distinct,
                      std::uint32_t second_distinct, double bar) {
    auto first = random_ints(first_distinct, 2);
    auto second = random_ints(second_distinct, 3);
    const auto keys = pair_keys(first, second);
    const bat a = refkernel::make_column(std::move(first));
    const bat b = refkernel::make_column(std::move(second));
    run(state, keys, 8.0 * rows, bar, [&] { return derive(state, group(state, a), b); });
}

void derive_only(benchmark::State &state, std::uint32_t groups, std::uint32_t distinct,
                 double bar) {
    auto first = random_ints(groups, 2);
    auto second = random_ints(distinct, 3);
    const auto keys = pair_keys(first, second);
    const bat a = refkernel::make_column(std::move(first));
    const bat b = refkernel::make_column(std::move(second));
    GDKnr_threads = 2;
    const grouping old = group(state, a);
    run(state, keys, 8.0 * rows, bar, [&] { return derive(state, old, b); });
}

void group_100_derive_100(benchmark::State &state) {
    group_and_derive(state, 100, 100, 40);
}
void derive_10_by_100(benchmark::State &state) {
    derive_only(state, 10, 100, 0);
}
void derive_100_by_100(benchmark::State &state) {
    derive_only(state, 100, 100, 0);
}
void derive_10000_by_100000(benchmark::State &state) {
    derive_only(state, 10'000, 100'000, 300);
}

BENCHMARK(group_distinct_lng)->UseManualTime()->Iterations(11)->Unit(benchmark::kMillisecond);
BENCHMARK(group_100_derive_100)->UseManualTime()->Iterations(11)->Unit(benchmark::kMillisecond);
BENCHMARK(derive_10_by_100)->UseManualTime()->Iterations(11)->Unit(benchmark::kMillisecond);
BENCHMARK(derive_100_by_100)->UseManualTime()->Iterations(11)->Unit(benchmark::kMillisecond);
BENCHMARK(derive_10000_by_100000)->UseManualTime()->Iterations(7)->Unit(benchmark::kMillisecond);

} // namespace
