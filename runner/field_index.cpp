#include "field_index.h"

#include "rows/isa.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <limits>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace vask::runner {
namespace {

constexpr std::size_t block_bytes = 64;

//! A bit for each byte of a block.
struct block_masks {
    std::uint64_t ends;      // separators and "\n"
    std::uint64_t line_ends; // "\n"
    std::uint64_t returns;   // "\r"
    std::uint64_t quotes;
};

//! Blocks whose masks are made at one go: they stay in the first-level cache until they are read.
constexpr std::size_t group_blocks = 32;

struct wanted_bytes {
    char separator;
    char quote;
};

#if defined(__x86_64__)

// Intrinsics belong to the function whose instruction set is named, so there is one for each.

__attribute__((target("avx512f,avx512bw"))) void
find_bytes_avx512(const char *text, std::size_t blocks, wanted_bytes wanted, block_masks *to) {
    const __m512i separators = _mm512_set1_epi8(wanted.separator);
    const __m512i quotes = _mm512_set1_epi8(wanted.quote);
    for (std::size_t i = 0; i < blocks; ++i) {
        const __m512i bytes = _mm512_loadu_si512(text + i * block_bytes);
        const std::uint64_t line_ends = _mm512_cmpeq_epi8_mask(bytes, _mm512_set1_epi8('\n'));
        to[i] = {_mm512_cmpeq_epi8_mask(bytes, separators) | line_ends, line_ends,
                 _mm512_cmpeq_epi8_mask(bytes, _mm512_set1_epi8('\r')),
                 _mm512_cmpeq_epi8_mask(bytes, quotes)};
    }
}

__attribute__((target("avx2"))) inline std::uint64_t equal_avx2(const __m256i *halves, char c) {
    const __m256i wanted = _mm256_set1_epi8(c);
    const auto bits = [](int mask) { return static_cast<std::uint32_t>(mask); };
    return bits(_mm256_movemask_epi8(_mm256_cmpeq_epi8(halves[0], wanted))) |
           std::uint64_t{bits(_mm256_movemask_epi8(_mm256_cmpeq_epi8(halves[1], wanted)))} << 32;
}

__attribute__((target("avx2"))) void find_bytes_avx2(const char *text, std::size_t blocks,
                                                     wanted_bytes wanted, block_masks *to) {
    for (std::size_t i = 0; i < blocks; ++i) {
        const auto *const block = reinterpret_cast<const __m256i *>(text + i * block_bytes);
        const __m256i halves[2] = {_mm256_loadu_si256(block), _mm256_loadu_si256(block + 1)};
        const std::uint64_t line_ends = equal_avx2(halves, '\n');
        to[i] = {equal_avx2(halves, wanted.separator) | line_ends, line_ends,
                 equal_avx2(halves, '\r'), equal_avx2(halves, wanted.quote)};
    }
}

#endif

//! The bytes of a block that are `c`, eight at a time.
std::uint64_t equal_bytes(const char *block, char c) {
    constexpr std::uint64_t each = 0x0101010101010101;
    constexpr std::uint64_t low_bits = 0x7f * each;
    std::uint64_t result = 0;
    for (unsigned i = 0; i < block_bytes / sizeof result; ++i) {
        std::uint64_t word = 0;
        std::memcpy(&word, block + i * sizeof word, sizeof word);
        const std::uint64_t other = word ^ (each * static_cast<unsigned char>(c));
        // The highest bit of each byte that is 0 in `other`.
        const std::uint64_t equal = ~(((other & low_bits) + low_bits) | other | low_bits);
        // The product brings the bits of the eight bytes together.
        result |= ((equal >> 7) * 0x0102040810204080 >> 56) << 8 * i;
    }
    return result;
}
static_assert(std::endian::native == std::endian::little, "the first byte of a word is its lowest");

void find_bytes_by_words(const char *text, std::size_t blocks, wanted_bytes wanted,
                         block_masks *to) {
    for (std::size_t i = 0; i < blocks; ++i) {
        const char *const block = text + i * block_bytes;
        const std::uint64_t line_ends = equal_bytes(block, '\n');
        to[i] = {equal_bytes(block, wanted.separator) | line_ends, line_ends,
                 equal_bytes(block, '\r'), equal_bytes(block, wanted.quote)};
    }
}

using byte_finder = void(const char *, std::size_t, wanted_bytes, block_masks *);

byte_finder *best_byte_finder() {
#if defined(__x86_64__)
    switch (best_instruction_set()) {
        case instruction_set::avx512:
            return find_bytes_avx512;
        case instruction_set::avx2:
            return find_bytes_avx2;
        case instruction_set::baseline:
            break;
    }
#endif
    return find_bytes_by_words;
}

//! Entries behind the last one that write_places may touch.
constexpr std::size_t written_on = 16;

//! Appends the places of the set bits. Writes eight at a time, as the number of bits is not
//! foreseen by the branch predictor and their count mostly below.
VASK_ALWAYS_INLINE void write_places(std::uint64_t bits, std::uint32_t base, std::uint32_t *to) {
    const int count = std::popcount(bits);
    const auto write_eight = [&](std::uint32_t * at) __attribute__((always_inline)) {
        for (int i = 0; i < 8; ++i) {
            at[i] = base + static_cast<std::uint32_t>(std::countr_zero(bits));
            bits &= bits - 1;
        }
    };
    write_eight(to);
    if (count > 8) [[unlikely]]
        write_eight(to + 8);
    if (count > 16) [[unlikely]]
        for (std::uint32_t *at = to + 16; bits != 0; bits &= bits - 1)
            *at++ = base + static_cast<std::uint32_t>(std::countr_zero(bits));
}

} // namespace

bool field_index::find_ends(std::string_view text, char separator, char quote) {
    byte_finder *const find_bytes = best_byte_finder();
    return with_best_instruction_set([&]() __attribute__((always_inline)) {
        std::array<block_masks, group_blocks> masks;
        std::array<char, block_bytes> last{};
        std::uint64_t returned = 0; // the byte before a block is "\r"
        std::uint32_t *const ends = ends_.get() + 1;
        std::size_t found = 0;
        std::size_t line_ends = 0;
        std::uint64_t any_returns = 0;
        for (std::size_t at = 0; at < text.size();) {
            std::size_t blocks = std::min((text.size() - at) / block_bytes, group_blocks);
            const char *from = text.data() + at;
            if (blocks == 0) {
                std::copy(text.begin() + static_cast<std::ptrdiff_t>(at), text.end(), last.begin());
                from = last.data();
                blocks = 1;
            }
            find_bytes(from, blocks, {separator, quote}, masks.data());
            std::uint64_t quotes = 0;
            std::uint64_t lone_returns = 0;
            for (std::size_t i = 0; i < blocks; ++i) {
                const block_masks &mask = masks[i];
                quotes |= quote == '\0' ? 0 : mask.quotes;
                lone_returns |= (mask.returns << 1 | returned) & ~mask.line_ends;
                returned = mask.returns >> (block_bytes - 1);
                any_returns |= mask.returns;
                write_places(mask.ends, static_cast<std::uint32_t>(at + i * block_bytes),
                             ends + found);
                found += static_cast<std::size_t>(std::popcount(mask.ends));
                line_ends += static_cast<std::size_t>(std::popcount(mask.line_ends));
            }
            if ((quotes | lone_returns) != 0)
                return false;
            at += blocks * block_bytes;
        }
        has_returns_ = any_returns != 0;
        found_ = found;
        line_ends_ = line_ends;
        return returned == 0;
    });
}

// Of one column, a blank line has the number of fields that a record has.
bool field_index::has_blank_line() const noexcept {
    for (std::size_t i = 0; columns_ == 1 && i < records_; ++i)
        if (field(i, 0).empty())
            return true;
    return false;
}

bool field_index::build(std::string_view text, char separator, char quote) {
    if (text.empty() || text.size() >= std::numeric_limits<std::uint32_t>::max())
        return false;
    const std::size_t most_ends = text.size() + 2 + written_on;
    if (room_ < most_ends) {
        room_ = most_ends;
        ends_ = std::make_unique_for_overwrite<std::uint32_t[]>(room_);
    }
    ends_[0] = std::numeric_limits<std::uint32_t>::max(); // the place before place 0
    if (!find_ends(text, separator, quote))
        return false;
    if (text.back() != '\n') {
        ends_[++found_] = static_cast<std::uint32_t>(text.size());
        ++line_ends_;
    }
    text_ = text.data();
    records_ = line_ends_;
    if (found_ != records_ * columns_)
        return false;
    // As there are as many line ends as records, no other field ends a line.
    for (std::size_t i = 0; i + 1 < records_; ++i)
        if (text[ends_[(i + 1) * columns_]] != '\n')
            return false;
    return !has_blank_line();
}

} // namespace vask::runner
