#include "bench/read_unit.h"

#include "rows/isa.h"

#include <cstdint>
#include <numeric>
#include <thread>

namespace bench {

namespace {

std::uint64_t bare_sum(const std::uint64_t *values, std::size_t n) {
    return vask::with_best_instruction_set([=]() __attribute__((always_inline)) {
        std::uint64_t sum = 0;
        for (std::size_t i = 0; i < n; ++i)
            sum += values[i];
        return sum;
    });
}

} // namespace

double measure_read_unit() {
    static const std::vector<std::uint64_t> values = [] {
        std::vector<std::uint64_t> v(10'000'000);
        std::iota(v.begin(), v.end(), 0);
        return v;
    }();
    const std::size_t half = values.size() / 2;
    std::uint64_t lower = 0;
    std::uint64_t upper = 0;
    const double seconds = seconds_of([&] {
        std::thread other([&] { upper = bare_sum(values.data() + half, half); });
        lower = bare_sum(values.data(), half);
        other.join();
    });
    benchmark::DoNotOptimize(lower + upper);
    return seconds;
}

} // namespace bench
