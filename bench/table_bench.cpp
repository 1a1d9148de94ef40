// What stands between Arrow columns and the operators' columns: texts to codes, validity bits to
// nils and back. Speeds are in nanoseconds of processor time a row, of all threads together.

#include "table/text_encoder.h"
#include "table/validity.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

using namespace vask::table;

constexpr std::int64_t rows = 10'000'000;

double processor_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

//! Counters: cpu_ns_row, the least of the runs, which other work on the machine disturbs least;
//! bar, the figure to stay below, if there is one. A wrong answer fails the benchmark.
template <class Run, class Check>
void run_by_row(benchmark::State &state, double bar, Run run, Check check) {
    double least = std::numeric_limits<double>::max();
    for (auto _ : state) {
        const double start = processor_seconds();
        run();
        const double seconds = processor_seconds() - start;
        state.SetIterationTime(seconds);
        least = std::min(least, seconds);
        if (!check()) {
            state.SkipWithError("wrong answer");
            return;
        }
    }
    state.counters["cpu_ns_row"] = least * 1e9 / static_cast<double>(rows);
    if (bar > 0)
        state.counters["bar"] = bar;
}

//! Rows that draw one of `words` texts, "w" and a number of `digits` digits; all different, row by
//! row, if there are as many words as rows.
void encode(benchmark::State &state, std::int32_t words, int digits, double bar) {
    std::mt19937 random(1);
    const std::size_t length = static_cast<std::size_t>(digits) + 1;
    std::vector<std::int32_t> offsets{0};
    std::vector<std::int32_t> drawn;
    std::string bytes;
    for (std::int32_t i = 0; i < rows; ++i) {
        drawn.push_back(
            words == rows ? i : static_cast<std::int32_t>(random() % static_cast<unsigned>(words)));
        const std::string number = std::to_string(drawn.back());
        bytes += 'w';
        bytes.append(length - 1 - number.size(), '0') += number;
        offsets.push_back(static_cast<std::int32_t>(bytes.size()));
    }
    std::vector<std::int32_t> code_of(static_cast<std::size_t>(words), -1);
    std::vector<std::int32_t> expected;
    std::vector<std::string_view> expected_words;
    for (std::size_t i = 0; i < drawn.size(); ++i) {
        std::int32_t &code = code_of[static_cast<std::size_t>(drawn[i])];
        if (code < 0) {
            code = static_cast<std::int32_t>(expected_words.size());
            expected_words.emplace_back(bytes.data() + offsets[i], length);
        }
        expected.push_back(code);
    }

    const text_chunk chunk{.rows = rows, .places = offsets.data(), .bytes = bytes.data()};
    std::vector<std::int32_t> codes(expected.size());
    encoded_texts texts;
    run_by_row(
        state, bar,
        [&] {
            texts = encode_texts({&chunk, 1}, codes, -1);
        },
        [&] {
            const bool right = codes == expected && texts.words == expected_words;
            std::fill(codes.begin(), codes.end(), -2);
            texts = {};
            return right;
        });
}

void encode_100_words(benchmark::State &state) {
    encode(state, 100, 4, 9);
}
void encode_100000_words(benchmark::State &state) {
    encode(state, 100'000, 11, 30);
}
// Texts that their keys do not hold as a whole.
void encode_100000_long_words(benchmark::State &state) {
    encode(state, 100'000, 19, 0);
}
void encode_1000000_words(benchmark::State &state) {
    encode(state, 1'000'000, 11, 0);
}
void encode_different_words(benchmark::State &state) {
    encode(state, rows, 11, 0);
}

template <class T>
struct column {
    std::vector<T> values;
    std::vector<std::uint8_t> validity;
    std::int64_t first_bit = 3;
    std::vector<T> with_nils;
    std::vector<std::uint8_t> validity_from_0;
    std::int64_t nils = 0;
    static constexpr T nil = std::numeric_limits<T>::lowest();

    //! Half of the rows, at random, have no value: a branch on it would show.
    column() : validity((rows + 10) / 8), validity_from_0((rows + 7) / 8) {
        std::mt19937 random(2);
        for (std::int64_t i = 0; i < rows; ++i) {
            values.push_back(static_cast<T>(random() % 1000));
            const bool valid = random() % 2 != 0;
            const auto set = [&](std::vector<std::uint8_t> &bits, std::int64_t bit) {
                std::uint8_t &byte = bits[static_cast<std::size_t>(bit / 8)];
                byte = static_cast<std::uint8_t>(byte | (valid ? 1U << bit % 8 : 0U));
            };
            set(validity, first_bit + i);
            set(validity_from_0, i);
            with_nils.push_back(valid ? values.back() : nil);
            nils += !valid;
        }
    }
};

template <class T>
void nils_from_bits(benchmark::State &state) {
    const column<T> c;
    std::vector<T> to(c.values.size());
    run_by_row(
        state, 1,
        [&] {
            copy_with_nils(c.values.data(), c.validity.data(), c.first_bit, rows, c.nil, to.data());
        },
        [&] {
            const bool right = to == c.with_nils;
            std::fill(to.begin(), to.end(), T{});
            return right;
        });
}

template <class T>
void bits_from_nils(benchmark::State &state) {
    const column<T> c;
    std::vector<std::uint8_t> bits(c.validity_from_0.size());
    std::int64_t nils = 0;
    run_by_row(
        state, 1, [&] { nils = bitmap_of(c.with_nils.data(), rows, c.nil, bits.data()); },
        [&] {
            const bool right = bits == c.validity_from_0 && nils == c.nils;
            std::fill(bits.begin(), bits.end(), std::uint8_t{0});
            return right;
        });
}

BENCHMARK(encode_100_words)->UseManualTime()->Iterations(9);
BENCHMARK(encode_100000_words)->UseManualTime()->Iterations(9);
BENCHMARK(encode_100000_long_words)->UseManualTime()->Iterations(9);
BENCHMARK(encode_1000000_words)->UseManualTime()->Iterations(5);
BENCHMARK(encode_different_words)->UseManualTime()->Iterations(5);
BENCHMARK(nils_from_bits<std::int8_t>)->UseManualTime()->Iterations(9);
BENCHMARK(nils_from_bits<std::int16_t>)->UseManualTime()->Iterations(9);
BENCHMARK(nils_from_bits<std::int32_t>)->UseManualTime()->Iterations(9);
BENCHMARK(nils_from_bits<double>)->UseManualTime()->Iterations(9);
BENCHMARK(bits_from_nils<std::int32_t>)->UseManualTime()->Iterations(9);
BENCHMARK(bits_from_nils<double>)->UseManualTime()->Iterations(9);

} // namespace
