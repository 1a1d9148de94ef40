// Serial grouping and refinement by the reference kernel, on one thread, over 1e7 rows.
//
// counters: ns_per_row is the median of the calls in processor time of their thread, which other
// processes on the machine disturb less than the clock; the rest as in read_unit.h.

#include "bench/read_unit.h"
#include "tests/refkernel/algebra/grouping_reference.h"

#include "vask/embed.h"

#include <cstdint>
#include <ctime>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace refkernel;

constexpr std::size_t rows = 10'000'000;
// Multiples of this spread values over all of 32 or 64 bits.
constexpr std::uint64_t spread = 0x9e3779b97f4a7c15;

template <class T>
bat numbers(std::uint64_t values, std::uint64_t distance, std::uint64_t seed = 1) {
    std::mt19937_64 random(seed);
    std::vector<T> column(rows);
    for (T &v : column)
        v = static_cast<T>(random() % values * distance);
    return make_column(std::move(column));
}

bat distinct_numbers(bool sorted, bool key) {
    std::vector<lng> column(rows);
    for (std::size_t i = 0; i < rows; ++i)
        column[i] = static_cast<lng>(sorted ? i * 3 : i * spread);
    column_options options;
    options.tail = {.sorted = sorted, .key = key};
    return make_column(std::move(column), options);
}

bat texts(std::uint64_t values) {
    std::mt19937_64 random(values);
    text_builder builder;
    for (std::size_t i = 0; i < rows; ++i)
        builder.append("a text numbered " + std::to_string(random() % values));
    return builder.finish();
}

double thread_seconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

void time_grouping(benchmark::State &state, const support::plain_groups &expected,
                   const std::function<char *(int32_t *histogram, int32_t *map)> &group) {
    int32_t histogram = int_nil;
    int32_t map = int_nil;
    std::vector<double> calls;
    bench::run_in_read_units(
        state,
        [&] {
            const double begin = thread_seconds();
            take_exception(group(&histogram, &map));
            calls.push_back(thread_seconds() - begin);
        },
        [&]() -> std::string {
            const bat made_histogram = bat::adopt(histogram);
            const bat made_map = bat::adopt(map);
            if (!made_map || !made_histogram)
                return "the grouping failed";
            return reference::read(made_histogram, made_map) == expected ? "" : "wrong groups";
        });
    state.counters["groups"] = static_cast<double>(expected.extents.size());
    state.counters["ns_per_row"] = bench::median(calls) * 1e9 / static_cast<double>(rows);
}

void group(benchmark::State &state, const std::function<bat()> &make) {
    const bat b = make();
    time_grouping(state, reference::group(b), [&](int32_t *histogram, int32_t *map) {
        return GRPgroup(histogram, map, b.slot());
    });
}

void derive(benchmark::State &state, const std::function<bat()> &make_old,
            const std::function<bat()> &make) {
    const bat b = make();
    int32_t ids[] = {int_nil, int_nil};
    take_exception(GRPgroup(&ids[0], &ids[1], make_old().slot()));
    const bat extents = bat::adopt(ids[0]);
    const bat old_map = bat::adopt(ids[1]);
    time_grouping(state, reference::group(b, reference::read(extents, old_map).map),
                  [&](int32_t *histogram, int32_t *map) {
                      return GRPderive(histogram, map, extents.slot(), old_map.slot(), b.slot());
                  });
}

bat few_ints() {
    return numbers<std::int32_t>(100, 1);
}

[[maybe_unused]] const bool registered = [] {
    const auto add = [](const char *name, auto run) {
        benchmark::RegisterBenchmark(name, run)
            ->Unit(benchmark::kMillisecond)
            ->UseManualTime()
            ->Iterations(7);
    };
    const auto add_group = [&](const char *name, auto make) {
        add(name, [make](benchmark::State &state) { group(state, make); });
    };
    add_group("GRPgroup/bit_2", [] { return numbers<bte>(2, 1); });
    add_group("GRPgroup/int_100", few_ints);
    add_group("GRPgroup/int_100_spread", [] { return numbers<std::int32_t>(100, spread); });
    add_group("GRPgroup/int_1e5", [] { return numbers<std::int32_t>(100'000, 1); });
    add_group("GRPgroup/int_1e5_spread", [] { return numbers<std::int32_t>(100'000, spread); });
    add_group("GRPgroup/lng_1e6_spread", [] { return numbers<lng>(1'000'000, spread); });
    add_group("GRPgroup/lng_1e7_distinct", [] { return distinct_numbers(false, false); });
    add_group("GRPgroup/lng_1e7_sorted", [] { return distinct_numbers(true, false); });
    add_group("GRPgroup/lng_1e7_key", [] { return distinct_numbers(false, true); });
    add_group("GRPgroup/dbl_1000", [] { return numbers<dbl>(1000, 3); });
    add_group("GRPgroup/str_100", [] { return texts(100); });
    add_group("GRPgroup/str_1e5", [] { return texts(100'000); });
    add("GRPderive/int_100_by_int_100", [](benchmark::State &state) {
        derive(state, few_ints, [] { return numbers<std::int32_t>(100, 1, 2); });
    });
    add("GRPderive/int_100_by_dbl_1000", [](benchmark::State &state) {
        derive(state, few_ints, [] { return numbers<dbl>(1000, 3, 2); });
    });
    add("GRPderive/int_1e5_by_int_100", [](benchmark::State &state) {
        derive(
            state, [] { return numbers<std::int32_t>(100'000, 1, 2); }, few_ints);
    });
    return true;
}();

} // namespace
