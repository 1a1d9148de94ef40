#include "table/validity.h"

#include <bit>

namespace vask::table {

void copy_bits_with_nils(const std::uint8_t *values, std::int64_t first_value,
                         const std::uint8_t *validity, std::int64_t first_bit, std::int64_t rows,
                         std::int8_t nil, std::int8_t *to) {
    for_row_ranges(rows, [=](std::int64_t begin, std::int64_t end) {
        with_best_instruction_set([=]() __attribute__((always_inline)) {
            std::uint64_t nils = 0;
            std::memset(&nils, static_cast<unsigned char>(nil), sizeof nils);
            for (std::int64_t row = begin; row < end; row += word_bits) {
                const std::int64_t n = std::min(word_bits, end - row);
                const std::uint64_t word = load_bits(values, first_value + row, n);
                const std::uint64_t valid = validity == nullptr
                                                ? ~std::uint64_t{0}
                                                : load_bits(validity, first_bit + row, n);
                std::uint64_t bytes[word_bits / 8];
                for (unsigned i = 0; i < word_bits / 8; ++i) {
                    const std::uint64_t kept = bits_to_bytes(valid >> 8 * i & 0xff) * 0xff;
                    bytes[i] = (bits_to_bytes(word >> 8 * i & 0xff) & kept) | (nils & ~kept);
                }
                std::memcpy(to + row, bytes, static_cast<std::size_t>(n));
            }
        });
    });
}

std::int64_t count_bits(const std::uint8_t *bits, std::int64_t first_bit, std::int64_t rows) {
    std::atomic<std::int64_t> count{0};
    for_row_ranges(rows, [&](std::int64_t begin, std::int64_t end) {
        const std::int64_t here = with_best_instruction_set([=]() __attribute__((always_inline)) {
            std::int64_t ones = 0;
            for (std::int64_t row = begin; row < end; row += word_bits)
                ones +=
                    std::popcount(load_bits(bits, first_bit + row, std::min(word_bits, end - row)));
            return ones;
        });
        count.fetch_add(here, std::memory_order_relaxed);
    });
    return count.load(std::memory_order_relaxed);
}

} // namespace vask::table
