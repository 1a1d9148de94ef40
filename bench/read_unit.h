// The unit in which speeds are stated, and the loop that measures in it.
//
// R is the time that a bare loop on two threads takes to read 1e7 values of 8 bytes. It is measured
// beside every timed call, so a figure in R holds on a noisy or a different machine where
// milliseconds do not.
#pragma once

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace bench {

//! Seconds for one R, measured now.
double measure_read_unit();

//! Bytes that one R reads.
inline constexpr double read_unit_bytes = 1e7 * 8;

inline double seconds_of(auto &&run) {
    const auto start = std::chrono::steady_clock::now();
    run();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

//! Times `run()` in every iteration and R right before it. `check()` gives an empty text when the
//! answer of the last run is right, otherwise what is wrong; a wrong answer fails the benchmark.
//! Counters: R_ms, and in_R, the median of the calls over the median of R; bar, the figure to stay
//! below, if there is one.
template <class Run, class Check>
void run_in_read_units(benchmark::State &state, Run run, Check check, double bar = 0) {
    std::vector<double> calls;
    std::vector<double> units;
    for (auto _ : state) {
        units.push_back(measure_read_unit());
        calls.push_back(seconds_of(run));
        state.SetIterationTime(calls.back());
        if (const std::string wrong = check(); !wrong.empty()) {
            state.SkipWithError(wrong.c_str());
            return;
        }
    }
    state.counters["R_ms"] = median(units) * 1e3;
    state.counters["in_R"] = median(calls) / median(units);
    if (bar > 0)
        state.counters["bar"] = bar;
}

} // namespace bench
