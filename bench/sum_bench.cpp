// Whole-column sums beside a bare loop over the same memory, in the same run.
//
// counters: of_bare is the share of the bare loop's speed that the operator reaches; for the
// integers the bare loop just reads, for the floats it is the row-order sum with the nil test.

#include "bench/read_unit.h"

#include "aggregates/sum.h"
#include "refkernel/embed.h"
#include "vask_ops.h"

#include <cmath>
#include <cstdint>
#include <random>
#include <thread>

namespace {

constexpr std::size_t rows = 100'000'000;

using operator_function = char *(*)(void *, const std::int32_t *);

//! Runs `half(begin, end)` over both halves of the rows, on two threads.
template <class Half>
void on_two_threads(Half half) {
    std::thread other([&] { half(rows / 2, rows); });
    half(std::size_t{0}, rows / 2);
    other.join();
}

template <class T>
double bare_loop_seconds(const T *values) {
    return bench::seconds_of([=] {
        on_two_threads([=](std::size_t begin, std::size_t end) {
            benchmark::DoNotOptimize(
                vask::with_best_instruction_set([=]() __attribute__((always_inline)) {
                    if constexpr (std::floating_point<T>) {
                        const T nil = refkernel::nil_of<T>();
                        T sum = 0;
                        for (std::size_t i = begin; i < end; ++i)
                            sum += values[i] != nil ? values[i] : T(-0.0);
                        return sum;
                    } else {
                        T sum = 0;
                        for (std::size_t i = begin; i < end; ++i)
                            sum ^= values[i];
                        return sum;
                    }
                }));
        });
    });
}

template <class T>
void whole_column_sum(benchmark::State &state, operator_function sum) {
    std::vector<T> values(rows);
    std::mt19937_64 random(42);
    for (T &v : values)
        v = static_cast<T>(random() % 1000);
    for (std::size_t i = 0; i < rows; i += 1000)
        values[i] = refkernel::nil_of<T>();

    // Both halves apart and in order, as two partitions are summed.
    vask::sum_accumulator<T> expected = 0;
    for (const std::size_t begin : {std::size_t{0}, rows / 2}) {
        vask::sum_accumulator<T> half = 0;
        for (std::size_t i = begin; i < begin + rows / 2; ++i)
            if (values[i] != refkernel::nil_of<T>())
                half += values[i];
        expected += half;
    }

    GDKnr_threads = 2;
    const T *memory = values.data();
    const refkernel::bat column = refkernel::make_column(std::move(values));
    vask::sum_accumulator<T> total{};
    std::vector<double> bare;
    std::vector<double> calls;
    bench::run_in_read_units(
        state,
        [&] {
            calls.push_back(bench::seconds_of([&] {
                if (char *failure = sum(&total, column.slot()))
                    state.SkipWithError(refkernel::take_exception(failure).text.c_str());
            }));
        },
        [&]() -> std::string {
            bare.push_back(bare_loop_seconds(memory));
            return total == expected ? "" : "wrong sum";
        });
    state.counters["of_bare"] = bench::median(bare) / bench::median(calls);
    state.counters["bar"] = 0.85;
}

void sum_int(benchmark::State &state) {
    whole_column_sum<std::int32_t>(state, vask_sum_int);
}
void sum_flt(benchmark::State &state) {
    whole_column_sum<float>(state, vask_sum_flt);
}
void sum_dbl(benchmark::State &state) {
    whole_column_sum<double>(state, vask_sum_dbl);
}

BENCHMARK(sum_int)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(sum_flt)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(sum_dbl)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);

} // namespace
