// Grouped aggregates of 1e7 rows on two threads. The groups stand in random order, with the ids and
// extents that grouping a column of as many distinct values gives.
//
// counters: of_sum is the time over that of the grouped sum of the same rows in the same run.

#include "bench/read_unit.h"

#include "vask/embed.h"
#include "vask/ops.h"

#include <cstdint>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace {

constexpr std::size_t rows = 10'000'000;

using grouped_function = char *(*)(std::int32_t *, const std::int32_t *, const std::int32_t *,
                                   const std::int32_t *);

struct grouping {
    std::vector<std::uint32_t> group; // of each row, counted in order of first occurrence
    std::vector<oid> ids;             // of each group: the oid of its first row
    refkernel::bat map;
    refkernel::bat extents;

    explicit grouping(std::size_t distinct) : group(rows) {
        std::mt19937_64 random(7);
        std::vector<std::uint32_t> number(distinct, std::numeric_limits<std::uint32_t>::max());
        std::vector<oid> map_ids(rows);
        for (std::size_t i = 0; i < rows; ++i) {
            std::uint32_t &g = number[random() % distinct];
            if (g == std::numeric_limits<std::uint32_t>::max()) {
                g = static_cast<std::uint32_t>(ids.size());
                ids.push_back(static_cast<oid>(i));
            }
            group[i] = g;
            map_ids[i] = ids[g];
        }
        map = refkernel::make_column(std::move(map_ids));
        refkernel::column_options head;
        head.type = TYPE_wrd;
        head.stored_head = true;
        head.head_oids = ids;
        extents = refkernel::make_column(std::vector<std::int64_t>(ids.size(), 1), head);
    }
};

const grouping &grouping_of(std::size_t distinct) {
    static std::map<std::size_t, grouping> made;
    return made.try_emplace(distinct, distinct).first->second;
}

//! Values small enough for every order of additions to give the same sum.
template <class T>
std::vector<T> make_values(int percent_nil) {
    std::mt19937_64 random(42);
    std::vector<T> values(rows);
    for (T &v : values) {
        const auto draw = random();
        v = static_cast<int>(draw % 100) < percent_nil ? refkernel::nil_of<T>()
                                                       : static_cast<T>((draw >> 8) % 100);
    }
    return values;
}

struct sum_operator {
    static constexpr grouped_function call = vask_grp_sum;
    template <class T>
    using result = std::conditional_t<std::is_integral_v<T>, std::int64_t, T>;
    template <class R, class T>
    static void add(R &r, T v, bool) {
        r += static_cast<R>(v);
    }
};

struct count_operator {
    static constexpr grouped_function call = vask_grp_count;
    template <class T>
    using result = wrd;
    template <class T>
    static void add(wrd &r, T, bool) {
        ++r;
    }
};

template <bool greatest>
struct extreme_operator {
    static constexpr grouped_function call = greatest ? vask_grp_max : vask_grp_min;
    template <class T>
    using result = T;
    template <class T>
    static void add(T &r, T v, bool first) {
        if (first || (greatest ? v > r : v < r))
            r = v;
    }
};

//! Arguments: groups, percentage of nil rows, bar in R.
template <class Operator, class T>
void grouped(benchmark::State &state) {
    using result = typename Operator::template result<T>;
    const grouping &g = grouping_of(static_cast<std::size_t>(state.range(0)));
    std::vector<T> values = make_values<T>(static_cast<int>(state.range(1)));
    std::vector<result> expected(g.ids.size());
    std::vector<bool> seen(g.ids.size());
    for (std::size_t i = 0; i < rows; ++i)
        if (values[i] != refkernel::nil_of<T>()) {
            Operator::add(expected[g.group[i]], values[i], !seen[g.group[i]]);
            seen[g.group[i]] = true;
        }

    GDKnr_threads = 2;
    const refkernel::bat column = refkernel::make_column(std::move(values));
    const auto run = [&](grouped_function call) {
        std::int32_t id = 0;
        if (char *failure = call(&id, column.slot(), g.map.slot(), g.extents.slot()))
            state.SkipWithError(refkernel::take_exception(failure).text.c_str());
        return refkernel::bat::adopt(id);
    };
    refkernel::bat answer;
    std::vector<double> calls;
    std::vector<double> sums;
    bench::run_in_read_units(
        state, [&] { calls.push_back(bench::seconds_of([&] { answer = run(Operator::call); })); },
        [&]() -> std::string {
            if constexpr (!std::is_same_v<Operator, sum_operator>)
                sums.push_back(bench::seconds_of([&] { run(vask_grp_sum); }));
            const auto got = answer.template values<result>();
            return std::equal(got.begin(), got.end(), expected.begin(), expected.end())
                       ? ""
                       : "wrong results";
        },
        static_cast<double>(state.range(2)));
    if (!sums.empty())
        state.counters["of_sum"] = bench::median(calls) / bench::median(sums);
}

void shapes(benchmark::internal::Benchmark *b) {
    b->ArgNames({"groups", "nils", "bar"});
    b->Args({100, 0, 2})->Args({100'000, 0, 9});
    b->Args({100, 10, 0})->Args({100, 50, 0})->Args({100'000, 50, 0});
    b->Args({1'000'000, 0, 18})->Args({4'300'000, 0, 30});
    b->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
}

//! Bar: 1.3 times the grouped sum.
void beside_sum(benchmark::internal::Benchmark *b) {
    b->ArgNames({"groups", "nils", "bar"});
    b->Args({100, 0, 0})->Args({100'000, 0, 0})->Args({100, 10, 0});
    b->Args({1'000'000, 0, 18})->Args({4'300'000, 0, 30});
    b->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
}

BENCHMARK(grouped<sum_operator, std::int32_t>)->Name("grp_sum_int")->Apply(shapes);
BENCHMARK(grouped<sum_operator, double>)->Name("grp_sum_dbl")->Apply(shapes);
BENCHMARK(grouped<sum_operator, std::int16_t>)->Name("grp_sum_sht")->Apply(shapes);
BENCHMARK(grouped<sum_operator, float>)->Name("grp_sum_flt")->Apply(shapes);
BENCHMARK(grouped<sum_operator, std::int64_t>)->Name("grp_sum_lng")->Apply(shapes);
BENCHMARK(grouped<count_operator, std::int32_t>)->Name("grp_count_int")->Apply(beside_sum);
BENCHMARK(grouped<count_operator, double>)->Name("grp_count_dbl")->Apply(beside_sum);
BENCHMARK(grouped<extreme_operator<false>, std::int32_t>)->Name("grp_min_int")->Apply(beside_sum);
BENCHMARK(grouped<extreme_operator<false>, double>)->Name("grp_min_dbl")->Apply(beside_sum);
BENCHMARK(grouped<extreme_operator<true>, std::int32_t>)->Name("grp_max_int")->Apply(beside_sum);
BENCHMARK(grouped<extreme_operator<true>, double>)->Name("grp_max_dbl")->Apply(beside_sum);

} // namespace
