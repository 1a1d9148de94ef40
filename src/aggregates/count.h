// The number of values as an aggregate, whole-column and grouped.
#pragma once

#include "aggregates/aggregate.h"
#include "aggregates/result_types.h"
#include "kernel/frame.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <tuple>
#include <type_traits>

namespace vask {

//! The rows of a text column, which are nil when their bytes are those of the nil text up to its
//! end: where the nil is the empty text, empty texts are nil.
struct text_rows {
    text_reader texts;
    const char *nil;

    explicit text_rows(const BAT &b) noexcept
        : texts(*b.tail), nil(static_cast<const char *>(BATatoms[b.tail->type].atom_null)) {}

    VASK_ALWAYS_INLINE static bool is_nil_text(const char *text, const char *nil) noexcept {
        while (*text == *nil) {
            if (*nil == '\0')
                return true;
            ++text;
            ++nil;
        }
        return false;
    }

    VASK_ALWAYS_INLINE bool is_nil(std::size_t p) const noexcept {
        return is_nil_text(texts[static_cast<BUN>(p)], nil);
    }
    VASK_ALWAYS_INLINE const char *operator[](std::size_t p) const noexcept {
        return texts[static_cast<BUN>(p)];
    }
};

//! Counts the rows that are not nil, of any row source. A NaN counts unless it is the nil.
struct count {
    using result = count_result<wrd>;
    using accumulator = wrd;
    struct partial {
        wrd value;
        static constexpr auto fields() noexcept { return std::tuple(&partial::value); }
    };

    template <class T>
    VASK_ALWAYS_INLINE static void add(partial &p, const T &) noexcept {
        ++p.value;
    }

    template <class T>
    VASK_ALWAYS_INLINE static std::uint8_t operand(const T &, bool is_value) noexcept {
        return is_value;
    }
    VASK_ALWAYS_INLINE static void add_operand(partial &p, std::uint8_t,
                                               std::uint8_t is_value) noexcept {
        p.value += is_value;
    }

    VASK_ALWAYS_INLINE static void merge(partial &total, const partial &part) noexcept {
        total.value += part.value;
    }

    template <class T>
    VASK_ALWAYS_INLINE static partial scan(column_rows<T> column, vask_row_range r) noexcept {
        // Blocks that a counter as wide as an element can count, so that a vector holds as many
        // counters as elements.
        using counter = std::conditional_t<
            sizeof(T) == 1, std::uint8_t,
            std::conditional_t<sizeof(T) == 2, std::uint16_t,
                               std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>>;
        constexpr std::size_t block = std::numeric_limits<counter>::max();
        const T *rows = column.rows + r.begin;
        const T nil = column.nil;
        const std::size_t n = r.size();
        partial result{0};
        for (std::size_t i = 0; i < n; i += std::min(block, n - i)) {
            counter values = 0;
            for (std::size_t j = i, end = i + std::min(block, n - i); j < end; ++j)
                values = static_cast<counter>(values + (rows[j] != nil));
            result.value += static_cast<wrd>(values);
        }
        return result;
    }

    VASK_ALWAYS_INLINE static partial scan(text_rows column, vask_row_range r) noexcept {
        wrd values = 0;
        for (BUN p = r.begin; p < r.end; ++p)
            values += !column.is_nil(p);
        return {values};
    }
};

} // namespace vask
