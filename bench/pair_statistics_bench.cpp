// Statistics of two columns of 1e7 rows on two threads, whole and per group.

#include "bench/read_unit.h"

#include "vask/embed.h"
#include "vask/ops.h"

#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

using refkernel::bat;

constexpr std::size_t rows = 10'000'000;
constexpr std::uint64_t threads = 2;

struct sums {
    double x = 0, y = 0, xy = 0, xx = 0, yy = 0, n = 0;

    void add(double a, double b) { add({a, b, a * b, a * a, b * b, 1}); }
    void add(const sums &other) {
        x += other.x;
        y += other.y;
        xy += other.xy;
        xx += other.xx;
        yy += other.yy;
        n += other.n;
    }
    [[nodiscard]] double covariance() const { return (n * xy - y * x) / ((n - 1) * n); }
    [[nodiscard]] double correlation() const {
        const double d = n * n * xx * yy - n * xx * (y * y) - x * x * n * yy + x * x * (y * y);
        return (n * xy - x * y) / std::sqrt(d);
    }
    [[nodiscard]] double slope() const { return (n * xy - y * x) / (n * xx - x * x); }
};

//! Two columns of which the second follows the first, with noise; a share of the rows nil.
template <class X, class Y>
struct columns {
    std::vector<X> x;
    std::vector<Y> y;

    explicit columns(std::uint64_t nil_every) : x(rows), y(rows) {
        std::mt19937_64 random(42);
        for (std::size_t i = 0; i < rows; ++i) {
            const auto a = static_cast<double>(random() % 200'000) / 100 - 1000;
            const auto noise = static_cast<double>(random() % 200'000) / 200 - 500;
            x[i] = static_cast<X>(a);
            y[i] = static_cast<Y>(2 * a + noise);
            if (nil_every != 0 && random() % nil_every == 0)
                (random() % 2 ? x[i] = refkernel::nil_of<X>() : y[i] = refkernel::nil_of<Y>());
        }
    }
    void add(std::size_t row, sums &total) const {
        if (x[row] != refkernel::nil_of<X>() && y[row] != refkernel::nil_of<Y>())
            total.add(static_cast<double>(x[row]), static_cast<double>(y[row]));
    }
};

using pair_statistic = char *(*)(double *, const std::int32_t *, const std::int32_t *);

//! The answer is compared to the last bit.
template <class X, class Y>
void whole_columns(benchmark::State &state, pair_statistic statistic, bool y_first,
                   double (sums::*formula)() const, std::uint64_t nil_every, double bar) {
    const columns<X, Y> input(nil_every);
    sums total;
    for (std::uint64_t part = 0; part < threads; ++part) {
        sums partial;
        for (std::size_t i = part * rows / threads; i < (part + 1) * rows / threads; ++i)
            input.add(i, partial);
        total.add(partial);
    }
    GDKnr_threads = threads;
    const bat x = refkernel::make_column(std::span(input.x));
    const bat y = refkernel::make_column(std::span(input.y));
    double found = 0;
    bench::run_in_read_units(
        state,
        [&] {
            if (char *failure = y_first ? statistic(&found, y.slot(), x.slot())
                                        : statistic(&found, x.slot(), y.slot()))
                state.SkipWithError(refkernel::take_exception(failure).text.c_str());
        },
        [&] { return found == (total.*formula)() ? "" : "wrong answer"; }, bar);
}

void covars(benchmark::State &state) {
    whole_columns<double, double>(state, vask_covars, false, &sums::covariance, 0, 12);
}
void correl(benchmark::State &state) {
    whole_columns<double, double>(state, vask_correl, false, &sums::correlation, 0, 12);
}
void correl_with_nils(benchmark::State &state) {
    whole_columns<double, double>(state, vask_correl, false, &sums::correlation, 10, 0);
}
void correl_of_int_and_sht(benchmark::State &state) {
    whole_columns<std::int32_t, std::int16_t>(state, vask_correl, false, &sums::correlation, 0, 0);
}
void slope(benchmark::State &state) {
    whole_columns<double, double>(state, vask_slope, true, &sums::slope, 0, 4);
}
void slope_with_nils(benchmark::State &state) {
    whole_columns<double, double>(state, vask_slope, true, &sums::slope, 10, 0);
}
void slope_of_int_and_sht(benchmark::State &state) {
    whole_columns<std::int32_t, std::int16_t>(state, vask_slope, true, &sums::slope, 0, 0);
}

using grouped_pair_statistic = char *(*)(std::int32_t *, const std::int32_t *, const std::int32_t *,
                                         const std::int32_t *, const std::int32_t *);

//! Groups in random row order under a dense or a stored head. The partitions' sums of a group are
//! added in another order here.
void grouped(benchmark::State &state, grouped_pair_statistic statistic, bool y_first,
             double (sums::*formula)() const, bool dense, double bar) {
    constexpr std::uint32_t groups = 10'000;
    const columns<double, double> input(0);
    std::mt19937 random(44);
    std::vector<oid> ids(rows);
    std::vector<sums> totals(groups);
    std::vector<oid> heads(groups);
    for (std::uint32_t j = 0; j < groups; ++j)
        heads[j] = dense ? j : j * 17 + 3;
    for (std::size_t i = 0; i < rows; ++i) {
        const auto group = static_cast<std::uint32_t>(random() % groups);
        ids[i] = heads[group];
        input.add(i, totals[group]);
    }
    GDKnr_threads = threads;
    const bat x = refkernel::make_column(std::span(input.x));
    const bat y = refkernel::make_column(std::span(input.y));
    const bat map = refkernel::make_column(std::move(ids));
    refkernel::column_options head{.type = TYPE_wrd, .stored_head = !dense};
    if (!dense)
        head.head_oids = heads;
    const bat extents = refkernel::make_column(std::vector<std::int64_t>(groups, 1), head);
    bat result;
    bench::run_in_read_units(
        state,
        [&] {
            std::int32_t id = int_nil;
            const bat &a = y_first ? y : x;
            const bat &b = y_first ? x : y;
            if (char *failure = statistic(&id, a.slot(), b.slot(), map.slot(), extents.slot()))
                state.SkipWithError(refkernel::take_exception(failure).text.c_str());
            else
                result = bat::adopt(id);
        },
        [&]() -> std::string {
            if (!result || result.count() != groups)
                return "no result";
            for (std::uint32_t j = 0; j < groups; ++j)
                if (!(std::fabs(result.values<double>()[j] - (totals[j].*formula)()) < 1e-9))
                    return "wrong answer for group " + std::to_string(j);
            result.reset();
            return "";
        },
        bar);
}

void grouped_correl(benchmark::State &state) {
    grouped(state, vask_grp_correl, false, &sums::correlation, true, 24);
}
void grouped_correl_stored_head(benchmark::State &state) {
    grouped(state, vask_grp_correl, false, &sums::correlation, false, 24);
}
void grouped_slope(benchmark::State &state) {
    grouped(state, vask_grp_slope, true, &sums::slope, true, 24);
}

BENCHMARK(covars)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(correl)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(correl_with_nils)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(correl_of_int_and_sht)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(slope)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(slope_with_nils)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(slope_of_int_and_sht)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(grouped_correl)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
BENCHMARK(grouped_correl_stored_head)
    ->UseManualTime()
    ->Iterations(15)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(grouped_slope)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);

} // namespace
