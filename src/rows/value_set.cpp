#include "rows/value_set.h"

#include "kernel/cancelled.h"
#include "kernel/hostile.h"
#include "rows/bucket_lists.h"
#include "rows/huge_pages.h"
#include "rows/keys.h"
#include "rows/streaming.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <memory>
#include <type_traits>
#include <utility>

namespace vask {

namespace {

constexpr std::uint32_t word_bits = 32;

// Fewer values are not worth a task.
constexpr std::size_t values_of_a_task = unless_hostile<std::size_t>(std::size_t{1} << 15, 1);

// A table of so many different values lies in the second-level cache, and so does an area.
constexpr std::size_t values_of_a_small_table = unless_hostile<std::size_t>(1 << 15, 2);
constexpr std::size_t values_of_an_area = unless_hostile<std::size_t>(1 << 15, 1);
constexpr unsigned most_area_bits = 10;

// Values whose lines are asked for together.
constexpr std::size_t values_at_once = 64;

template <class Value>
constexpr std::size_t line_values = cache_line_bytes / sizeof(Value);

//! Calls `body(i, values)` for the i-th share of the values, each as a task.
template <class Value, class Body>
void run_shares(std::span<const Value> values, task_runner run, std::size_t tasks,
                const Body &body) {
    run(tasks, [&](std::size_t i) {
        const std::size_t begin = values.size() * i / tasks;
        body(i, values.subspan(begin, values.size() * (i + 1) / tasks - begin));
    });
}

//! Calls `body(values)` for blocks of the values, until the work is cancelled.
template <class Value, class Body>
void for_blocks_of(std::span<const Value> values, const Body &body) {
    for (std::size_t i = 0; i < values.size(); i += values_of_a_task) {
        end_if_cancelled();
        body(values.subspan(i, std::min(values_of_a_task, values.size() - i)));
    }
}

//! Least and largest as signed numbers: those around 0 lie close together.
template <class Value>
std::array<std::make_signed_t<Value>, 2> bounds_of(std::span<const Value> values) {
    using number = std::make_signed_t<Value>;
    return with_best_instruction_set([values]() __attribute__((always_inline)) {
        auto least = static_cast<number>(values[0]);
        auto largest = least;
        for (const Value value : values) {
            least = std::min(least, static_cast<number>(value));
            largest = std::max(largest, static_cast<number>(value));
        }
        return std::array{least, largest};
    });
}

} // namespace

template <class Value>
value_set<Value>::value_set(std::span<const Value> values, std::uint64_t most_bits, task_runner run,
                            std::size_t most_tasks) {
    const std::size_t tasks = std::clamp<std::size_t>(values.size() / values_of_a_task, 1,
                                                      std::max<std::size_t>(most_tasks, 1));
    std::vector<std::array<std::make_signed_t<Value>, 2>> bounds(tasks);
    run_shares(values, run, tasks,
               [&](std::size_t i, std::span<const Value> own) { bounds[i] = bounds_of(own); });
    auto [low, high] = bounds[0];
    for (const auto &[own_low, own_high] : bounds) {
        low = std::min(low, own_low);
        high = std::max(high, own_high);
    }
    low_ = static_cast<Value>(low);
    span_ = static_cast<Value>(high) - low_;
    if (span_ < most_bits)
        fill_bitmap(values, run, tasks);
    else if (!fill_small_table(values))
        fill_table(values, run, tasks);
}

template <class Value>
void value_set<Value>::fill_bitmap(std::span<const Value> values, task_runner run,
                                   std::size_t tasks) {
    words_.resize(static_cast<std::size_t>(span_) / word_bits + 1);
    run_shares(values, run, tasks, [&](std::size_t, std::span<const Value> share) {
        for_blocks_of(share, [&, low = low_](std::span<const Value> block) {
            for (const Value value : block) {
                const Value place = value - low;
                const std::uint32_t mark = std::uint32_t{1} << place % word_bits;
                // Other tasks set bits of the word, too, but none clears one.
                const std::atomic_ref word(words_[static_cast<std::size_t>(place / word_bits)]);
                if ((word.load(std::memory_order_relaxed) & mark) == 0)
                    word.fetch_or(mark, std::memory_order_relaxed);
            }
        });
    });
}

template <class Value>
std::size_t value_set<Value>::lines_for(std::size_t values) noexcept {
    return 2 * values / line_values<Value> + 1;
}

template <class Value>
void value_set<Value>::make_lines(std::size_t n) {
    const std::size_t bytes = n * cache_line_bytes;
    memory_ = large_zeroed_block<Value>((bytes + cache_line_bytes) / sizeof(Value));
    void *aligned = memory_.get();
    std::size_t space = bytes + cache_line_bytes;
    lines_ = static_cast<Value *>(std::align(cache_line_bytes, bytes, aligned, space));
}

template <class Value>
std::size_t value_set<Value>::area_of(std::uint64_t hash) const noexcept {
    return leading_bits(hash, area_bits_);
}

template <class Value>
std::size_t value_set<Value>::line_of(Value value) const noexcept {
    const std::uint64_t hash = bit_keys<Value>::hash(value);
    const area own = areas_[area_of(hash)];
    return own.begin + ((hash << area_bits_ >> 32) * own.lines >> 32);
}

template <class Value>
std::size_t value_set<Value>::line_behind(std::size_t line, Value value) const noexcept {
    const area own = areas_[area_of(bit_keys<Value>::hash(value))];
    return line + 1 == own.begin + own.lines ? own.begin : line + 1;
}

//! Whether it is new. Not for 0.
template <class Value>
bool value_set<Value>::add(Value value) noexcept {
    for (std::size_t line = line_of(value);; line = line_behind(line, value)) {
        Value *const places = lines_ + line * line_values<Value>;
        std::size_t taken = 0;
        bool known = false;
        for (std::size_t i = 0; i < line_values<Value>; ++i) {
            taken += places[i] != 0;
            known |= places[i] == value;
        }
        if (known)
            return false;
        if (taken < line_values<Value>) {
            places[taken] = value;
            return true;
        }
    }
}

//! False where there are too many different ones.
template <class Value>
bool value_set<Value>::fill_small_table(std::span<const Value> values) {
    const std::size_t most = std::min(values.size(), values_of_a_small_table);
    areas_ = {{0, lines_for(most)}};
    make_lines(areas_[0].lines);
    std::size_t different = 0;
    bool fits = true;
    for_blocks_of(values, [&](std::span<const Value> block) {
        for (std::size_t i = 0; i < block.size() && fits; ++i) {
            if (block[i] == 0)
                has_zero_ = true;
            else if (add(block[i]))
                fits = ++different <= most;
        }
    });
    return fits;
}

template <class Value>
void value_set<Value>::fill_table(std::span<const Value> values, task_runner run,
                                  std::size_t tasks) {
    area_bits_ = std::min(static_cast<unsigned>(std::bit_width(values.size() / values_of_an_area)),
                          most_area_bits);
    const std::size_t areas = std::size_t{1} << area_bits_;
    std::vector<bucket_lists<Value>> dealt(tasks);
    std::vector<std::vector<std::size_t>> sizes(tasks);
    run_shares(values, run, tasks, [&](std::size_t task, std::span<const Value> share) {
        bucket_lists<Value> lists(areas, share.size());
        std::vector<std::size_t> own(areas);
        for_blocks_of(share, [&](std::span<const Value> block) {
            for (const Value value : block) {
                const std::size_t to = area_of(bit_keys<Value>::hash(value));
                lists.add(to, value);
                ++own[to];
            }
        });
        lists.complete();
        dealt[task] = std::move(lists);
        sizes[task] = std::move(own);
    });
    areas_.resize(areas);
    std::size_t lines = 0;
    for (std::size_t i = 0; i < areas; ++i) {
        std::size_t size = 0;
        for (const std::vector<std::size_t> &own : sizes)
            size += own[i];
        areas_[i] = {lines, lines_for(size)};
        lines += areas_[i].lines;
    }
    make_lines(lines);
    std::atomic<bool> zero{has_zero_};
    run(areas, [&](std::size_t i) {
        end_if_cancelled();
        for (const bucket_lists<Value> &lists : dealt)
            lists.for_each(i, [&](Value value) {
                if (value == 0)
                    zero.store(true, std::memory_order_relaxed);
                else
                    add(value);
            });
    });
    has_zero_ = zero;
}

template <class Value>
void value_set<Value>::mark(const Value *values, std::size_t n, bit *contained) const {
    if (areas_.empty()) {
        with_best_instruction_set([ =, low = low_, span = span_,
                                    words = words_.data() ]() __attribute__((always_inline)) {
            for (std::size_t i = 0; i < n; ++i) {
                const Value place = values[i] - low;
                // Beyond the span a bit is read that counts nothing.
                const Value inside = std::min(place, span);
                const std::uint32_t word = words[static_cast<std::size_t>(inside / word_bits)];
                contained[i] = static_cast<bit>(word >> inside % word_bits & (place <= span));
            }
        });
        return;
    }
    with_best_instruction_set([ =, this ]() __attribute__((always_inline)) {
        constexpr std::size_t last = line_values<Value> - 1;
        std::array<std::size_t, values_at_once> lines;
        for (std::size_t begin = 0; begin < n; begin += values_at_once) {
            const std::size_t end = std::min(n, begin + values_at_once);
            for (std::size_t i = begin; i < end; ++i) {
                lines[i - begin] = line_of(values[i]);
                __builtin_prefetch(lines_ + lines[i - begin] * line_values<Value>);
            }
            for (std::size_t i = begin; i < end; ++i) {
                const Value value = values[i];
                std::size_t line = lines[i - begin];
                bool found = false;
                for (;; line = line_behind(line, value)) {
                    const Value *const places = lines_ + line * line_values<Value>;
                    found = false;
                    for (std::size_t k = 0; k <= last; ++k)
                        found |= places[k] == value;
                    // One jump for both, hardly ever taken: which it is nobody foresees.
                    if (static_cast<int>(found) | static_cast<int>(places[last] == 0)) [[likely]]
                        break;
                }
                contained[i] = static_cast<bit>(value == 0 ? has_zero_ : found);
            }
        }
    });
}

template class value_set<std::uint32_t>;
template class value_set<std::uint64_t>;

} // namespace vask
