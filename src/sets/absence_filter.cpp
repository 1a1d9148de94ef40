#include "sets/absence_filter.h"

#include <algorithm>
#include <bit>

namespace vask {

bool absence_filter::pays(const oid_position_map &map, std::uint64_t left_count,
                          const std::uint32_t *right, std::uint64_t right_count) noexcept {
    constexpr std::uint64_t samples = 1024;
    if (right_count < samples)
        return false;
    std::uint64_t wasted = 0;
    for (std::uint64_t i = 0; i < samples; ++i) {
        const std::uint32_t value = right[right_count / samples * i];
        if (map.find(value) == nullptr)
            wasted += map.detour(value);
    }
    // In steps of a walk: entering a value costs about one, asking for one a third.
    const double saved = static_cast<double>(wasted) / samples * static_cast<double>(right_count);
    return saved > static_cast<double>(left_count) + static_cast<double>(right_count) / 3;
}

void absence_filter::enter(const oid_position_map &map, const std::uint32_t *left,
                           std::uint64_t rows) {
    const unsigned slots_log2 = static_cast<unsigned>(std::countr_zero(map.bucket_count()));
    const unsigned bits_log2 = std::clamp(slots_log2 + bits_per_slot_log2, 5U, 31U);
    words_ = static_cast<std::uint32_t *>(
        std::calloc((std::size_t{1} << bits_log2) / word_bits, sizeof(std::uint32_t)));
    if (words_ == nullptr)
        return;
    shift_ = 32 - bits_log2;
    for (std::uint64_t i = 0; i < rows; ++i) {
        const std::uint32_t bit = bit_of(left[i]);
        words_[bit / word_bits] |= std::uint32_t{1} << (bit % word_bits);
    }
}

std::size_t absence_filter::select(const std::uint32_t *values, std::size_t n,
                                   std::uint32_t *maybe_present) const noexcept {
    const std::uint32_t *const words = words_;
    std::size_t selected = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint32_t value = values[i];
        const std::uint32_t bit = bit_of(value);
        maybe_present[selected] = value;
        selected += words[bit / word_bits] >> (bit % word_bits) & 1;
    }
    return selected;
}

} // namespace vask
