#include "table/whole_distinct.h"

#include "table/kernel_column.h"
#include "table/parallel.h"

#include <bit>
#include <concepts>
#include <span>
#include <vector>

#include <tbb/enumerable_thread_specific.h>

namespace vask::table {

using refkernel::bat;

std::optional<std::uint64_t> different_within(const bat &values, value_bounds bounds) {
    constexpr std::uint64_t word_bits = 64;
    // Of each thread.
    constexpr std::uint64_t most_bits = std::uint64_t{1} << 26;
    if (bounds.is_empty())
        return std::nullopt;
    const auto least = static_cast<std::uint64_t>(bounds.low);
    const std::uint64_t span = static_cast<std::uint64_t>(bounds.high) - least;
    if (span >= most_bits)
        return std::nullopt;
    return visit_values(
        values, [&]<class T>(std::span<const T> all) -> std::optional<std::uint64_t> {
            if constexpr (std::signed_integral<T>) {
                if (span / word_bits > all.size())
                    return std::nullopt;
                const std::size_t words = span / word_bits + 1;
                const std::vector<std::uint64_t> none(words);
                tbb::enumerable_thread_specific<std::vector<std::uint64_t>> marks(none);
                for_rows(all.size(), [&](std::size_t begin, std::size_t end) {
                    std::uint64_t *const own = marks.local().data();
                    for (std::size_t row = begin; row < end; ++row) {
                        const std::uint64_t at = static_cast<std::uint64_t>(lng{all[row]}) - least;
                        const std::uint64_t mark = std::uint64_t{1} << at % word_bits;
                        // Only the nil lies outside.
                        if (at <= span && (own[at / word_bits] & mark) == 0)
                            own[at / word_bits] |= mark;
                    }
                });
                std::uint64_t different = 0;
                for (std::size_t word = 0; word < words; ++word) {
                    std::uint64_t joined = 0;
                    for (const std::vector<std::uint64_t> &own : marks)
                        joined |= own[word];
                    different += static_cast<std::uint64_t>(std::popcount(joined));
                }
                return different;
            } else {
                return std::nullopt;
            }
        });
}

} // namespace vask::table
