// Queries through vask.h against the bare calls of the operators that answer them, 1e7 rows of
// numbers without nulls. Both take turns within an iteration, and their answers are compared.
//
// counters: raw_ms and query_ms, the least of the runs; ratio, the median over the iterations.

#include "bench/read_unit.h"

#include "vask/embed.h"
#include "vask/ops.h"
#include "vask/vask.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

constexpr std::size_t rows = 10'000'000;

void require(int code, char *error) {
    if (code != VASK_OK)
        throw std::runtime_error(error == nullptr ? "out of memory" : error);
}

//! Columns in the library's own kernel and in the one of the bench.
struct columns {
    std::vector<std::int32_t> key;
    std::vector<double> value;
    refkernel::bat raw_key;
    refkernel::bat raw_value;
    vask_table *table = nullptr;

    explicit columns(std::int32_t groups) : key(rows), value(rows) {
        std::mt19937 random(3);
        for (std::size_t i = 0; i < rows; ++i) {
            key[i] = static_cast<std::int32_t>(random() % static_cast<unsigned>(groups));
            value[i] = static_cast<double>(random() % 1000);
        }
        const refkernel::column_options plain{.tail = {.nonil = true}};
        raw_key = refkernel::make_column(std::span<const std::int32_t>(key), plain);
        raw_value = refkernel::make_column(std::span<const double>(value), plain);
        char *error = nullptr;
        require(vask_table_new(&table, &error), error);
        require(vask_table_add_values(table, "k", "i", rows, key.data(), nullptr, 0, nullptr,
                                      nullptr, &error),
                error);
        require(vask_table_add_values(table, "v", "g", rows, value.data(), nullptr, 0, nullptr,
                                      nullptr, &error),
                error);
    }
    columns(const columns &) = delete;
    columns &operator=(const columns &) = delete;
    ~columns() { vask_table_free(table); }
};

//! What a query's last column gives, its first rows in the order of the result.
std::vector<double> ask(const columns &of, const char *function, bool by_key) {
    const char *by[] = {"k"};
    vask_aggregate wanted{};
    wanted.function = function;
    wanted.columns[0] = "v";
    wanted.as = "answer";
    vask_query query{};
    query.size = sizeof query;
    query.aggregate_size = sizeof wanted;
    query.by = by;
    query.n_by = by_key ? 1 : 0;
    query.aggregates = &wanted;
    query.n_aggregates = 1;
    vask_result *result = nullptr;
    char *error = nullptr;
    require(vask_run(of.table, &query, &result, &error), error);
    ArrowArrayStream stream;
    require(vask_result_stream(result, &stream, &error), error);
    ArrowArray batch;
    require(stream.get_next(&stream, &batch), nullptr);
    const ArrowArray &answer = *batch.children[by_key ? 1 : 0];
    const auto *const values = static_cast<const double *>(answer.buffers[1]);
    std::vector<double> answers(values, values + answer.length);
    batch.release(&batch);
    stream.release(&stream);
    vask_result_free(result);
    return answers;
}

void check(char *exception) {
    if (const auto failure = refkernel::take_exception(exception); !failure.text.empty())
        throw std::runtime_error(failure.text);
}

using whole_function = char *(*)(double *, const std::int32_t *);
using grouped_function = char *(*)(std::int32_t *, const std::int32_t *, const std::int32_t *,
                                   const std::int32_t *);

std::vector<double> call(const columns &of, whole_function whole, grouped_function grouped,
                         bool by_key) {
    if (!by_key) {
        double value = 0;
        check(whole(&value, of.raw_value.slot()));
        return {value};
    }
    std::int32_t extents = int_nil;
    std::int32_t map = int_nil;
    check(VASKgroup(&extents, &map, of.raw_key.slot()));
    const refkernel::bat held_extents = refkernel::bat::adopt(extents);
    const refkernel::bat held_map = refkernel::bat::adopt(map);
    std::int32_t made = int_nil;
    check(grouped(&made, of.raw_value.slot(), held_map.slot(), held_extents.slot()));
    const refkernel::bat result = refkernel::bat::adopt(made);
    const auto values = result.values<double>();
    return {values.begin(), values.end()};
}

bool alike(const std::vector<double> &a, const std::vector<double> &b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](double x, double y) {
               return std::abs(x - y) <= 1e-9 * std::max(std::abs(x), std::abs(y));
           });
}

void compare(benchmark::State &state, const char *function, whole_function whole,
             grouped_function grouped, std::int32_t groups) {
    const columns of(std::max(groups, 1));
    const std::int32_t threads = GDKnr_threads;
    GDKnr_threads = VASK_DEFAULT_PARTITIONS; // as in queries
    const bool by_key = groups > 0;
    std::vector<double> raw_times;
    std::vector<double> query_times;
    std::vector<double> ratios;
    for (auto _ : state) {
        std::vector<double> raw;
        std::vector<double> asked;
        raw_times.push_back(bench::seconds_of([&] { raw = call(of, whole, grouped, by_key); }));
        query_times.push_back(bench::seconds_of([&] { asked = ask(of, function, by_key); }));
        ratios.push_back(query_times.back() / raw_times.back());
        state.SetIterationTime(query_times.back());
        if (!alike(raw, asked)) {
            state.SkipWithError("the answers differ");
            break;
        }
    }
    GDKnr_threads = threads;
    state.counters["raw_ms"] = *std::min_element(raw_times.begin(), raw_times.end()) * 1e3;
    state.counters["query_ms"] = *std::min_element(query_times.begin(), query_times.end()) * 1e3;
    state.counters["ratio"] = bench::median(ratios);
    state.counters["bar"] = 1.03;
}

const int registered = [] {
    const auto add = [](const char *function, whole_function whole, grouped_function grouped) {
        for (const std::int32_t groups : {0, 100, 100'000})
            benchmark::RegisterBenchmark(
                ("query/" + std::string(function) + "/" + std::to_string(groups)).c_str(),
                [=](benchmark::State &state) { compare(state, function, whole, grouped, groups); })
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond)
                ->Iterations(15);
    };
    const auto sum = [](double *result, const std::int32_t *column) {
        return vask_sum_dbl(result, column);
    };
    const auto max = [](double *result, const std::int32_t *column) {
        return vask_max_dbl(result, column);
    };
    add("sum", sum, vask_grp_sum);
    add("max", max, vask_grp_max);
    add("median", vask_median, vask_grp_median);
    return 0;
}();

} // namespace
