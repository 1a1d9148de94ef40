// Whole-column aggregates beside a bare loop over the same memory, in the same run.
//
// counters: of_bare is the share of the bare loop's speed that the operator reaches. The bare loop
// just reads; for the sums of floats it is the row-order sum with the nil test.

#include "bench/read_unit.h"

#include "aggregates/sum.h"
#include "vask/embed.h"
#include "vask/ops.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <type_traits>

namespace {

constexpr std::size_t rows = 100'000'000;
constexpr double bar_of_bare = 0.85;

using operator_function = char *(*)(void *, const std::int32_t *);

//! Runs `half(begin, end)` over both halves of the rows, on two threads.
template <class Half>
void on_two_threads(Half half) {
    std::thread other([&] { half(rows / 2, rows); });
    half(std::size_t{0}, rows / 2);
    other.join();
}

//! Reads the rows of a half.
struct bare_read {
    template <class T>
    VASK_ALWAYS_INLINE static auto scan(const T *values, std::size_t begin, std::size_t end) {
        using bits = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;
        bits all = 0;
        for (std::size_t i = begin; i < end; ++i)
            all ^= std::bit_cast<bits>(values[i]);
        return all;
    }
};

//! Sums the rows of a half in order.
struct bare_sum {
    template <class T>
    VASK_ALWAYS_INLINE static auto scan(const T *values, std::size_t begin, std::size_t end) {
        const T nil = refkernel::nil_of<T>();
        T sum = 0;
        for (std::size_t i = begin; i < end; ++i)
            sum += values[i] != nil ? values[i] : T(-0.0);
        return sum;
    }
};

template <class Bare, class T>
double bare_seconds(const T *values) {
    return bench::seconds_of([=] {
        on_two_threads([=](std::size_t begin, std::size_t end) {
            benchmark::DoNotOptimize(vask::with_best_instruction_set([=
            ]() __attribute__((always_inline)) { return Bare::scan(values, begin, end); }));
        });
    });
}

struct sum {
    template <class T>
    using result = typename vask::sum_result<T>::type;
    template <class T>
    using bare = std::conditional_t<std::floating_point<T>, bare_sum, bare_read>;
    //! Both halves apart and in order, as two partitions are summed.
    template <class T>
    static result<T> expected(const std::vector<T> &values) {
        result<T> total = 0;
        for (const std::size_t begin : {std::size_t{0}, rows / 2}) {
            result<T> half = 0;
            for (std::size_t i = begin; i < begin + rows / 2; ++i)
                if (values[i] != refkernel::nil_of<T>())
                    half += values[i];
            total += half;
        }
        return total;
    }
};

template <bool greatest>
struct extreme {
    template <class T>
    using result = T;
    template <class T>
    using bare = bare_read;
    template <class T>
    static T expected(const std::vector<T> &values) {
        T best = values[1]; // the first is a nil
        for (const T v : values)
            if (v != refkernel::nil_of<T>())
                best = greatest ? std::max(best, v) : std::min(best, v);
        return best;
    }
};

struct count {
    template <class T>
    using result = std::int64_t;
    template <class T>
    using bare = bare_read;
    template <class T>
    static std::int64_t expected(const std::vector<T> &values) {
        return static_cast<std::int64_t>(rows) -
               std::count(values.begin(), values.end(), refkernel::nil_of<T>());
    }
};

template <class Aggregate, class T, operator_function call>
void whole_column(benchmark::State &state) {
    using result = typename Aggregate::template result<T>;
    std::vector<T> values(rows);
    std::mt19937 random(42);
    for (T &v : values)
        v = static_cast<T>(random() % 1000);
    for (std::size_t i = 0; i < rows; i += 1000)
        values[i] = refkernel::nil_of<T>();
    const result expected = Aggregate::expected(values);

    GDKnr_threads = 2;
    const T *memory = values.data();
    const refkernel::bat column = refkernel::make_column(std::move(values));
    result found{};
    std::vector<double> bare;
    std::vector<double> calls;
    bench::run_in_read_units(
        state,
        [&] {
            calls.push_back(bench::seconds_of([&] {
                if (char *failure = call(&found, column.slot()))
                    state.SkipWithError(refkernel::take_exception(failure).text.c_str());
            }));
        },
        [&]() -> std::string {
            bare.push_back(bare_seconds<typename Aggregate::template bare<T>>(memory));
            return found == expected ? "" : "wrong answer";
        });
    state.counters["of_bare"] = bench::median(bare) / bench::median(calls);
    state.counters["bar"] = bar_of_bare;
}

char *count_column(void *result, const std::int32_t *b) {
    return vask_count(static_cast<std::int64_t *>(result), b);
}

//! Counts 1e7 texts of so many different ones, in random order; every thousandth is nil.
void count_text(benchmark::State &state) {
    constexpr std::size_t texts = 10'000'000;
    const auto distinct = static_cast<std::uint32_t>(state.range(0));
    std::vector<std::string> words;
    for (std::uint32_t i = 0; i < distinct; ++i)
        words.push_back("word " + std::to_string(i));
    std::mt19937 random(42);
    refkernel::text_builder builder;
    builder.reserve(texts);
    for (std::size_t row = 0; row < texts; ++row) {
        if (row % 1000 == 0)
            builder.append_nil();
        else
            builder.append(words[random() % distinct]);
    }
    const refkernel::bat column = builder.finish();
    GDKnr_threads = 2;
    std::int64_t found = 0;
    bench::run_in_read_units(
        state,
        [&] {
            if (char *failure = vask_count(&found, column.slot()))
                state.SkipWithError(refkernel::take_exception(failure).text.c_str());
        },
        [&]() -> std::string { return found == texts - texts / 1000 ? "" : "wrong count"; },
        static_cast<double>(state.range(1)));
}

void shape(benchmark::internal::Benchmark *b) {
    b->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);
}

BENCHMARK(whole_column<sum, std::int32_t, vask_sum_int>)->Name("sum_int")->Apply(shape);
BENCHMARK(whole_column<sum, float, vask_sum_flt>)->Name("sum_flt")->Apply(shape);
BENCHMARK(whole_column<sum, double, vask_sum_dbl>)->Name("sum_dbl")->Apply(shape);
BENCHMARK(whole_column<extreme<false>, std::int32_t, vask_min_int>)->Name("min_int")->Apply(shape);
BENCHMARK(whole_column<extreme<false>, double, vask_min_dbl>)->Name("min_dbl")->Apply(shape);
BENCHMARK(whole_column<extreme<true>, std::int32_t, vask_max_int>)->Name("max_int")->Apply(shape);
BENCHMARK(whole_column<extreme<true>, double, vask_max_dbl>)->Name("max_dbl")->Apply(shape);
BENCHMARK(whole_column<count, std::int32_t, count_column>)->Name("count_int")->Apply(shape);
BENCHMARK(whole_column<count, double, count_column>)->Name("count_dbl")->Apply(shape);
BENCHMARK(count_text)
    ->ArgNames({"distinct", "bar"})
    ->Args({1'000, 3})
    ->Args({1'000'000, 0})
    ->Apply(shape);

} // namespace
