// Containment of row indexes and the filtered union of two columns.

#include "bench/read_unit.h"

#include "vask/embed.h"
#include "vask/ops.h"

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

using values = std::vector<std::uint32_t>;

constexpr std::uint32_t many = 10'000'000;
constexpr std::uint32_t few = 100'000;

values shuffled(std::uint32_t n) {
    values result(n);
    std::iota(result.begin(), result.end(), 0);
    std::shuffle(result.begin(), result.end(), std::mt19937(1));
    return result;
}

values drawn_below(std::uint32_t limit, std::uint32_t n) {
    std::mt19937 random(2);
    std::uniform_int_distribution<std::uint32_t> draw(0, limit - 1);
    values result(n);
    for (auto &v : result)
        v = draw(random);
    return result;
}

//! `limit` is above all values.
void containment(benchmark::State &state, const values &left, const values &right,
                 std::uint32_t limit, double bar) {
    std::vector<std::int8_t> present(limit);
    for (const std::uint32_t v : right)
        present[v] = 1;
    std::vector<std::int8_t> expected(left.size());
    for (std::size_t i = 0; i < left.size(); ++i)
        expected[i] = present[left[i]];

    GDKnr_threads = 2;
    std::vector<std::int8_t> result(left.size());
    bench::run_in_read_units(
        state,
        [&] {
            vaskops_are_indexes_contained(left.data(), left.size(), right.data(), right.size(),
                                          result.data());
        },
        [&] {
            const bool right_answer = result == expected;
            std::fill(result.begin(), result.end(), std::int8_t{2});
            return std::string(right_answer ? "" : "wrong mask");
        },
        bar);
}

// All rows of a table, each once, against a tenth of a percent of them.
void containment_of_many_shuffled(benchmark::State &state) {
    containment(state, shuffled(many), drawn_below(many, few), many, 90);
}
// Each value on a hundred rows: the lists of rows are what takes the time.
void containment_of_many_repeated(benchmark::State &state) {
    containment(state, drawn_below(few, many), shuffled(few), few, 90);
}
// Few of the rows that are probed are there.
void containment_in_many_mostly_absent(benchmark::State &state) {
    containment(state, drawn_below(many, few), shuffled(many), many, 10);
}
// All of them are.
void containment_in_many_all_present(benchmark::State &state) {
    containment(state, shuffled(few), drawn_below(few, many), few, 10);
}

//! One row in `nil_every` is nil on either side; 0: none.
void union_of_ints(benchmark::State &state, std::uint32_t nil_every, double bar) {
    constexpr std::int32_t nil = refkernel::nil_of<std::int32_t>();
    std::vector<std::int32_t> left(many);
    std::vector<std::int32_t> right(many);
    std::mt19937 random(3);
    for (std::uint32_t i = 0; i < many; ++i) {
        left[i] = nil_every != 0 && random() % nil_every == 0 ? nil : static_cast<int>(i);
        right[i] = nil_every != 0 && random() % nil_every == 0 ? nil : -static_cast<int>(i);
    }
    std::vector<std::int32_t> tails;
    values heads;
    for (const auto *side : {&left, &right})
        for (std::uint32_t i = 0; i < many; ++i)
            if (left[i] != nil && right[i] != nil) {
                tails.push_back((*side)[i]);
                heads.push_back(i);
            }

    GDKnr_threads = 2;
    const refkernel::bat l = refkernel::make_column(std::move(left));
    const refkernel::bat r = refkernel::make_column(std::move(right));
    refkernel::bat both;
    bench::run_in_read_units(
        state,
        [&] {
            std::int32_t id = 0;
            if (char *failure = vask_coSNNandUnion(&id, l.slot(), r.slot()))
                state.SkipWithError(refkernel::take_exception(failure).text.c_str());
            else
                both = refkernel::bat::adopt(id);
        },
        [&] {
            const auto got = both.values<std::int32_t>();
            const auto *head = static_cast<const oid *>(both->head->base);
            const bool right_answer =
                std::equal(got.begin(), got.end(), tails.begin(), tails.end()) &&
                std::equal(heads.begin(), heads.end(), head);
            both.reset();
            return std::string(right_answer ? "" : "wrong rows");
        },
        bar);
}

void union_without_nils(benchmark::State &state) {
    union_of_ints(state, 0, 22);
}
void union_with_nils(benchmark::State &state) {
    union_of_ints(state, 10, 22);
}

BENCHMARK(containment_of_many_shuffled)->UseManualTime()->Iterations(15);
BENCHMARK(containment_of_many_repeated)->UseManualTime()->Iterations(15);
BENCHMARK(containment_in_many_mostly_absent)->UseManualTime()->Iterations(15);
BENCHMARK(containment_in_many_all_present)->UseManualTime()->Iterations(15);
BENCHMARK(union_without_nils)->UseManualTime()->Iterations(15);
BENCHMARK(union_with_nils)->UseManualTime()->Iterations(15);

} // namespace
