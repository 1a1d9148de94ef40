// Statistics of 1e7 doubles on two threads, whole and per group.

#include "bench/read_unit.h"

#include "vask/embed.h"
#include "vask/ops.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using refkernel::bat;

constexpr std::size_t rows = 10'000'000;
constexpr std::uint64_t threads = 2;

const std::vector<double> &uniform_values() {
    static const std::vector<double> values = [] {
        std::mt19937_64 random(42);
        std::uniform_real_distribution<double> uniform(-1000, 1000);
        std::vector<double> v(rows);
        std::generate(v.begin(), v.end(), [&] { return uniform(random); });
        return v;
    }();
    return values;
}

//! Values with about `distinct` different ones, drawn evenly but for the first, which is drawn
//! twice as often and so is the mode.
std::vector<double> few_values(std::uint64_t distinct) {
    std::mt19937_64 random(43);
    std::vector<double> v(rows);
    std::generate(v.begin(), v.end(), [&] {
        const std::uint64_t i = random() % (distinct + 1);
        return 0.25 * static_cast<double>(i == distinct ? 0 : i);
    });
    return v;
}

std::vector<std::uint32_t> random_groups(std::uint32_t groups) {
    std::mt19937_64 random(44);
    std::vector<std::uint32_t> ids(rows);
    std::generate(ids.begin(), ids.end(),
                  [&] { return static_cast<std::uint32_t>(random() % groups); });
    return ids;
}

bat nonil_column(const std::vector<double> &values) {
    return refkernel::make_column(std::span(values), {.tail = {.nonil = true}});
}

//! S1, S2, S3 and the count, rows in order.
struct sums {
    double s1 = 0, s2 = 0, s3 = 0, n = 0;

    void add(double y) {
        s1 += y;
        s2 += y * y;
        s3 += (y * y) * y;
        n += 1;
    }
    void add(const sums &other) {
        s1 += other.s1;
        s2 += other.s2;
        s3 += other.s3;
        n += other.n;
    }
    [[nodiscard]] double stdev() const {
        return std::sqrt(std::max(0.0, (n * s2 - s1 * s1) / ((n - 1.0) * n)));
    }
    [[nodiscard]] double skewness() const {
        const double q = n * n;
        const double w = std::pow(q * s2 - (s1 * s1) * n, 1.5);
        const double c = (std::sqrt(n - 1.0) * n) / (n - 2.0);
        return ((((q * n) * s3 - ((q * 3.0) * s1) * s2) + ((s1 * s1) * s1) * (n * 2.0)) * c) / w;
    }
};

//! The values' sums, per partition and then in partition order.
sums partitioned_sums(const std::vector<double> &values) {
    sums total;
    for (std::uint64_t part = 0; part < threads; ++part) {
        sums partial;
        for (std::size_t i = part * rows / threads; i < (part + 1) * rows / threads; ++i)
            partial.add(values[i]);
        total.add(partial);
    }
    return total;
}

double median_of(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return (values[(n - 1) / 2] + values[n / 2]) / 2;
}

double mode_of(const std::vector<double> &values) {
    std::map<double, std::size_t> counts;
    for (const double v : values)
        ++counts[v];
    return std::max_element(counts.begin(), counts.end(),
                            [](const auto &a, const auto &b) { return a.second < b.second; })
        ->first;
}

bool equal_or_near(double found, double expected, double tolerance) {
    return std::fabs(found - expected) <= tolerance;
}

//! Runs a whole-column statistic; a tolerance of 0 asks for the same bits.
void whole_column(benchmark::State &state, char *(*statistic)(double *, const std::int32_t *),
                  const std::vector<double> &values, double expected, double tolerance,
                  double bar) {
    GDKnr_threads = threads;
    const bat column = nonil_column(values);
    double found = 0;
    bench::run_in_read_units(
        state,
        [&] {
            if (char *failure = statistic(&found, column.slot()))
                state.SkipWithError(refkernel::take_exception(failure).text.c_str());
        },
        [&] { return equal_or_near(found, expected, tolerance) ? "" : "wrong answer"; }, bar);
}

void stdev(benchmark::State &state) {
    whole_column(state, vask_stdev, uniform_values(), partitioned_sums(uniform_values()).stdev(), 0,
                 2.5);
}
void skewness(benchmark::State &state) {
    whole_column(state, vask_skews, uniform_values(), partitioned_sums(uniform_values()).skewness(),
                 0, 3);
}
void median(benchmark::State &state) {
    whole_column(state, vask_median, uniform_values(), median_of(uniform_values()), 1e-9, 36);
}
void mode(benchmark::State &state) {
    const std::vector<double> values = few_values(100);
    whole_column(
        state, [](double *result, const std::int32_t *b) { return vask_mode(result, b); }, values,
        mode_of(values), 0, 140);
}

//! Runs a grouped statistic over groups 0 .. groups - 1 in random row order. `expected(rows of a
//! group)` is asked once per group; partitions are told apart by their rows' order.
void grouped(benchmark::State &state,
             char *(*statistic)(std::int32_t *, const std::int32_t *, const std::int32_t *,
                                const std::int32_t *),
             const std::vector<double> &values, std::uint32_t groups,
             const std::function<double(const std::vector<double> &)> &expected, double tolerance,
             double bar) {
    GDKnr_threads = threads;
    std::vector<std::uint32_t> ids = random_groups(groups);
    std::vector<std::vector<double>> by_group(groups);
    for (std::size_t i = 0; i < rows; ++i)
        by_group[ids[i]].push_back(values[i]);
    std::vector<double> wanted;
    for (const auto &members : by_group)
        wanted.push_back(expected(members));

    const bat column = nonil_column(values);
    const bat map = refkernel::make_column(std::move(ids));
    const bat extents =
        refkernel::make_column(std::vector<std::int64_t>(groups, 1), {.type = TYPE_wrd});
    bat result;
    bench::run_in_read_units(
        state,
        [&] {
            std::int32_t id = int_nil;
            if (char *failure = statistic(&id, column.slot(), map.slot(), extents.slot()))
                state.SkipWithError(refkernel::take_exception(failure).text.c_str());
            else
                result = bat::adopt(id);
        },
        [&]() -> std::string {
            if (!result || result.count() != groups)
                return "no result";
            for (std::uint32_t j = 0; j < groups; ++j)
                if (!equal_or_near(result.values<double>()[j], wanted[j], tolerance))
                    return "wrong answer for group " + std::to_string(j);
            result.reset();
            return "";
        },
        bar);
}

void grouped_stdev(benchmark::State &state) {
    grouped(
        state, vask_grp_stdev, uniform_values(), 10'000,
        [](const std::vector<double> &members) {
            sums total;
            for (const double v : members)
                total.add(v);
            return total.stdev();
        },
        1e-9, 9);
}
void grouped_median(benchmark::State &state) {
    grouped(state, vask_grp_median, uniform_values(), 10'000, median_of, 1e-9, 50);
}
void grouped_mode(benchmark::State &state) {
    grouped(state, vask_grp_mode, few_values(100), 100, mode_of, 0, 140);
}

BENCHMARK(stdev)->UseManualTime()->Iterations(25)->Unit(benchmark::kMillisecond);
BENCHMARK(skewness)->UseManualTime()->Iterations(25)->Unit(benchmark::kMillisecond);
BENCHMARK(median)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(mode)->UseManualTime()->Iterations(9)->Unit(benchmark::kMillisecond);
BENCHMARK(grouped_stdev)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(grouped_median)->UseManualTime()->Iterations(9)->Unit(benchmark::kMillisecond);
BENCHMARK(grouped_mode)->UseManualTime()->Iterations(9)->Unit(benchmark::kMillisecond);

} // namespace
