#include "sets/value_set.h"

#include "rows/isa.h"

#include <algorithm>
#include <array>

namespace vask {

namespace {

constexpr std::uint32_t word_bits = 32;

} // namespace

value_set::value_set(std::span<const std::uint32_t> values, std::uint64_t most_bits) {
    const auto [low, high] = with_best_instruction_set([values]() __attribute__((always_inline)) {
        std::uint32_t least = values[0];
        std::uint32_t largest = values[0];
        for (const std::uint32_t value : values) {
            least = std::min(least, value);
            largest = std::max(largest, value);
        }
        return std::array{least, largest};
    });
    if (high - low < most_bits) {
        low_ = low;
        span_ = high - low;
        words_.resize(std::size_t{span_} / word_bits + 1);
        for (const std::uint32_t value : values) {
            const std::uint32_t place = value - low_;
            words_[place / word_bits] |= std::uint32_t{1} << place % word_bits;
        }
        return;
    }
    // Slots that are asked for this many values ahead are there in time.
    constexpr std::size_t values_ahead = 16;
    table_.emplace(bit_keys<std::uint32_t>(), 0, values.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i + values_ahead < values.size())
            table_->prefetch(values[i + values_ahead]);
        table_->find_or_add(values[i]);
    }
}

void value_set::mark(const std::uint32_t *values, vask_row_range rows, bit *contained) const {
    if (!table_) {
        with_best_instruction_set([ =, low = low_, span = span_,
                                    words = words_.data() ]() __attribute__((always_inline)) {
            for (BUN i = rows.begin; i < rows.end; ++i) {
                const std::uint32_t place = values[i] - low;
                // Beyond the span a bit is read that counts nothing.
                const std::uint32_t inside = std::min(place, span);
                const std::uint32_t word = words[inside / word_bits];
                contained[i] = static_cast<bit>(word >> inside % word_bits & (place <= span));
            }
        });
        return;
    }
    constexpr BUN values_ahead = 16;
    for (BUN i = rows.begin; i < rows.end; ++i) {
        if (rows.end - i > values_ahead)
            table_->prefetch(values[i + values_ahead]);
        contained[i] = static_cast<bit>(table_->find(values[i]) != table_->no_code);
    }
}

} // namespace vask
