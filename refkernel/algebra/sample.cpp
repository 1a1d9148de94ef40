#include "vask/refkernel/sample.h"

#include "refkernel/algebra/row_copies.h"
#include "refkernel/bats.h"
#include "refkernel/instrumented.h"

#include <algorithm>
#include <atomic>
#include <numeric>
#include <random>
#include <unordered_set>
#include <utility>
#include <vector>

namespace refkernel {
namespace {

std::atomic<bool> seed_is_fixed{false};
std::atomic<std::uint64_t> fixed_seed{0};

std::mt19937_64 seeded_generator(BUN rows, BUN wanted) {
    std::seed_seq seeds{static_cast<std::uint32_t>(fixed_seed),
                        static_cast<std::uint32_t>(fixed_seed >> 32), rows, wanted};
    return std::mt19937_64(seeds);
}

std::mt19937_64 &thread_generator() {
    thread_local std::mt19937_64 generator(std::random_device{}());
    return generator;
}

// R. W. Floyd's way to `wanted` different numbers below `rows`, all sets equally likely, in a time
// that depends on `wanted` alone.
std::vector<BUN> random_rows(BUN rows, BUN wanted, std::mt19937_64 &generator) {
    std::unordered_set<BUN> chosen(wanted);
    for (BUN last = rows - wanted; last < rows; ++last) {
        const BUN drawn = std::uniform_int_distribution<BUN>(0, last)(generator);
        chosen.insert(chosen.contains(drawn) ? last : drawn);
    }
    std::vector<BUN> ascending(chosen.begin(), chosen.end());
    std::ranges::sort(ascending);
    return ascending;
}

std::vector<BUN> sampled_rows(BUN rows, BUN wanted) {
    if (rows <= wanted) {
        std::vector<BUN> all(rows);
        std::iota(all.begin(), all.end(), BUN{0});
        return all;
    }
    if (seed_is_fixed) {
        std::mt19937_64 generator = seeded_generator(rows, wanted);
        return random_rows(rows, wanted, generator);
    }
    return random_rows(rows, wanted, thread_generator());
}

BAT *sample(const BAT &b, BUN wanted) {
    std::vector<BUN> positions = sampled_rows(b.info->count, wanted);
    for (BUN &p : positions)
        p += b.info->first;
    auto made = std::make_unique<bat_entry>();
    algebra::copy_rows(made->head, column_of(b.head), *b.info, positions);
    algebra::copy_rows(made->tail, column_of(b.tail), *b.info, positions);
    made->info.count = made->info.capacity = static_cast<BUN>(positions.size());
    return pool::insert(std::move(made));
}

} // namespace

void fix_sample_seed(std::uint64_t seed) {
    fixed_seed = seed;
    seed_is_fixed = true;
}

void randomise_samples() {
    seed_is_fixed = false;
}

} // namespace refkernel

BAT *BATsample(BAT *b, BUN n) {
    using namespace refkernel;
    if (instrumentation::enter(instrumentation::operation::bat_sample, b, n))
        return nullptr;
    return or_null("BATsample", [&] { return sample(*b, n); });
}
