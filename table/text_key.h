// Texts as keys of 16 bytes, loaded from Arrow arrays.
#pragma once

#include "rows/isa.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace vask::table {

//! A text of up to 15 bytes as a whole: its bytes, zeros behind them, and its length as the last
//! byte. Of a longer text a hash and the length: equal texts have equal keys, and those of equal
//! keys have to be compared.
struct text_key {
    std::uint64_t low;
    std::uint64_t high;

    bool operator==(const text_key &) const = default;

    //! Whether equal keys are equal texts.
    bool is_whole_text() const noexcept { return high >> 56 != long_text_mark; }

    std::uint64_t length() const noexcept {
        return is_whole_text() ? high >> 56 : high & ~std::uint64_t{0} >> 8;
    }

    static constexpr std::uint64_t longest_whole = 15;
    static constexpr std::uint64_t long_text_mark = 0xff;
};
static_assert(std::endian::native == std::endian::little, "the last byte of a key is its highest");

template <class T>
VASK_ALWAYS_INLINE T load_unaligned(const void *from) noexcept {
    T result;
    std::memcpy(&result, from, sizeof result);
    return result;
}

//! Hashes by products of 128 bits folded to 64. The two secrets are drawn at random for each
//! process, so nobody can prepare texts of equal hashes.
class text_hash {
public:
    //! `kept_bits`: of the hashes, so that tests can make many texts meet. The others are 1: what
    //! meets does so at the end of a table.
    explicit text_hash(std::uint32_t kept_bits);

    VASK_ALWAYS_INLINE std::uint32_t operator()(text_key key) const noexcept {
        return static_cast<std::uint32_t>(folded(key.low ^ first_, key.high ^ second_) >> 32) |
               ~kept_bits_;
    }

    //! The same hash with more bits; its upper ones are those of the other.
    VASK_ALWAYS_INLINE std::uint64_t of_64_bits(text_key key) const noexcept {
        return folded(key.low ^ first_, key.high ^ second_) |
               ~(std::uint64_t{kept_bits_} << 32 | kept_bits_);
    }

    //! The key of a text of at least 16 bytes.
    text_key key_of_long(const char *text, std::uint64_t n) const noexcept {
        constexpr std::uint64_t step = 16;
        std::uint64_t hash = first_ ^ n;
        for (std::uint64_t i = 0; i + step < n; i += step)
            hash = mixed(hash, text + i);
        // The last 16 bytes, which can overlap the ones before.
        hash = mixed(hash, text + n - step);
        hash |= ~(std::uint64_t{kept_bits_} << 32 | kept_bits_);
        return {hash, text_key::long_text_mark << 56 | (n & ~std::uint64_t{0} >> 8)};
    }

private:
    __extension__ typedef unsigned __int128 product;

    VASK_ALWAYS_INLINE static std::uint64_t folded(std::uint64_t a, std::uint64_t b) noexcept {
        const product p = static_cast<product>(a) * b;
        return static_cast<std::uint64_t>(p) ^ static_cast<std::uint64_t>(p >> 64);
    }
    VASK_ALWAYS_INLINE std::uint64_t mixed(std::uint64_t hash, const char *at) const noexcept {
        return folded(hash ^ load_unaligned<std::uint64_t>(at),
                      second_ ^ load_unaligned<std::uint64_t>(at + 8));
    }

    std::uint64_t first_;
    std::uint64_t second_;
    std::uint32_t kept_bits_;
};

//! The first n bytes of 16, zeros behind them, and n as the last; n is at most 15.
VASK_ALWAYS_INLINE text_key short_key_of(text_key bytes, std::uint64_t n) noexcept {
    static constexpr auto kept = [] {
        std::array<text_key, 16> masks{};
        for (unsigned i = 0; i < 16; ++i)
            masks[i] = {i < 8 ? (std::uint64_t{1} << 8 * i) - 1 : ~std::uint64_t{0},
                        i < 8 ? 0 : (std::uint64_t{1} << 8 * (i - 8)) - 1};
        return masks;
    }();
    return {bytes.low & kept[n].low, (bytes.high & kept[n].high) | n << 56};
}

//! The key of a text of at most 15 bytes. Reads 16.
VASK_ALWAYS_INLINE text_key short_key_reading_on(const char *text, std::uint64_t n) noexcept {
    return short_key_of(
        {load_unaligned<std::uint64_t>(text), load_unaligned<std::uint64_t>(text + 8)}, n);
}

//! The same, reading the text alone.
inline text_key short_key(const char *text, std::uint64_t n) noexcept {
    const std::uint64_t length = n << 56;
    if (n > 8)
        return {load_unaligned<std::uint64_t>(text),
                load_unaligned<std::uint64_t>(text + n - 8) >> 8 * (16 - n) | length};
    if (n == 8)
        return {load_unaligned<std::uint64_t>(text), length};
    if (n >= 4) // two words that overlap
        return {load_unaligned<std::uint32_t>(text) |
                    std::uint64_t{load_unaligned<std::uint32_t>(text + n - 4)} << 8 * (n - 4),
                length};
    std::uint64_t bytes = 0;
    for (std::uint64_t i = 0; i < n; ++i)
        bytes |= std::uint64_t{static_cast<unsigned char>(text[i])} << 8 * i;
    return {bytes, length};
}

//! Texts by offsets.
template <class Offset>
class offset_texts {
public:
    offset_texts(const void *offsets, std::int64_t rows, const char *bytes) noexcept
        : offsets_(static_cast<const Offset *>(offsets)), bytes_(bytes) {
        const auto begin = static_cast<std::int64_t>(offsets_[0]);
        const auto end = static_cast<std::int64_t>(offsets_[rows]);
        first_ = static_cast<std::uint64_t>(begin);
        span_ = end > begin ? static_cast<std::uint64_t>(end) - first_ : 0;
        read_on_span_ = span_ > 15 ? span_ - 15 : 0;
    }

    //! False if the offsets are malformed.
    VASK_ALWAYS_INLINE bool load(std::int64_t row, const text_hash &hash,
                                 text_key &key) const noexcept {
        const std::uint64_t from = begin_of(row) - first_;
        const std::uint64_t n = begin_of(row + 1) - begin_of(row);
        // 16 bytes that begin in front of the last 15 end within the chunk's.
        if (n <= text_key::longest_whole && from < read_on_span_) [[likely]] {
            key = short_key_reading_on(bytes_ + begin_of(row), n);
            return true;
        }
        if (from > span_ || n > span_ - from)
            return false;
        key = n <= text_key::longest_whole ? short_key(bytes_ + begin_of(row), n)
                                           : hash.key_of_long(bytes_ + begin_of(row), n);
        return true;
    }

    std::string_view operator[](std::int64_t row) const noexcept {
        return {bytes_ + begin_of(row), begin_of(row + 1) - begin_of(row)};
    }

private:
    VASK_ALWAYS_INLINE std::uint64_t begin_of(std::int64_t row) const noexcept {
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(offsets_[row]));
    }

    const Offset *offsets_;
    const char *bytes_;
    std::uint64_t first_;        // offset of the chunk's first byte
    std::uint64_t span_;         // bytes of the chunk
    std::uint64_t read_on_span_; // bytes from which 16 can be read
};

//! Texts by views of 16 bytes: the length, then either up to 12 bytes of text, or its first four
//! and the number of a buffer and an offset in it.
class view_texts {
public:
    view_texts(const void *views, const void *const *buffers) noexcept
        : views_(static_cast<const char *>(views)), buffers_(buffers) {}

    //! False if the view is malformed.
    VASK_ALWAYS_INLINE bool load(std::int64_t row, const text_hash &hash,
                                 text_key &key) const noexcept {
        const std::uint32_t n = length_of(row);
        if (n <= longest_inline) [[likely]] {
            key = short_key_of({load_unaligned<std::uint64_t>(view(row) + 4),
                                load_unaligned<std::uint32_t>(view(row) + 12)},
                               n);
            return true;
        }
        if (field(row, 0) < 0 || field(row, 2) < 0 || field(row, 3) < 0)
            return false;
        key = n <= text_key::longest_whole ? short_key(far_text(row), n)
                                           : hash.key_of_long(far_text(row), n);
        return true;
    }

    std::string_view operator[](std::int64_t row) const noexcept {
        const std::uint32_t n = length_of(row);
        return {n <= longest_inline ? view(row) + 4 : far_text(row), n};
    }

private:
    static constexpr std::uint32_t longest_inline = 12;

    VASK_ALWAYS_INLINE const char *view(std::int64_t row) const noexcept {
        return views_ + 16 * row;
    }
    VASK_ALWAYS_INLINE std::uint32_t length_of(std::int64_t row) const noexcept {
        return load_unaligned<std::uint32_t>(view(row));
    }
    //! The i-th of the view's four integers.
    std::int32_t field(std::int64_t row, std::size_t i) const noexcept {
        return load_unaligned<std::int32_t>(view(row) + 4 * i);
    }
    const char *far_text(std::int64_t row) const noexcept {
        return static_cast<const char *>(buffers_[field(row, 2)]) + field(row, 3);
    }

    const char *views_;
    const void *const *buffers_;
};

//! Texts wherever they lie.
class far_texts {
public:
    explicit far_texts(const void *texts) noexcept
        : texts_(static_cast<const std::string_view *>(texts)) {}

    VASK_ALWAYS_INLINE bool load(std::int64_t row, const text_hash &hash,
                                 text_key &key) const noexcept {
        const std::string_view text = texts_[row];
        key = text.size() <= text_key::longest_whole ? short_key(text.data(), text.size())
                                                     : hash.key_of_long(text.data(), text.size());
        return true;
    }

    std::string_view operator[](std::int64_t row) const noexcept { return texts_[row]; }

private:
    const std::string_view *texts_;
};

} // namespace vask::table
