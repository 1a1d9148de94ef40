// A column's rows as unsigned keys: rows of one key hold equal values.
#pragma once

#include "kernel/column.h"
#include "rows/group_by_index.h"
#include "rows/key_hash.h"
#include "rows/key_window.h"
#include "rows/keys.h"
#include "rows/text_hash.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

namespace vask {

//! Numbers, keyed by their bits.
template <number T>
struct number_keys {
    using value_type = T;
    using key_type = decltype(key_bits(T{}));
    //! As many keys as values.
    static constexpr bool one_key_per_value = true;

    const T *rows;

    explicit number_keys(const BATcol &column) noexcept : rows(rows_of<const T>(column)) {}

    //! Key of the i-th row from the position `row` on. A row loop counts i in 64 bits: a position
    //! of 32 could wrap, and for that the loop would be compiled without vector instructions.
    VASK_ALWAYS_INLINE key_type key(BUN row, std::size_t i) const noexcept {
        return key_bits((rows + row)[i]);
    }
    T value(BUN row) const noexcept { return rows[row]; }
};

//! Texts, keyed by their stored offsets. Equal texts that lie at several places have several keys.
template <class Offset>
struct offset_keys {
    using value_type = str;
    using key_type = Offset;
    static constexpr bool one_key_per_value = false;

    const Offset *rows;
    text_reader texts;

    explicit offset_keys(const BATcol &column) noexcept
        : rows(rows_of<const Offset>(column)), texts(column) {}

    VASK_ALWAYS_INLINE key_type key(BUN row, std::size_t i) const noexcept {
        return (rows + row)[i];
    }
    str value(BUN row) const noexcept { return texts[row]; }

    //! Where the text of the i-th row from a position on lies in the heap.
    VASK_ALWAYS_INLINE std::uint32_t offset(BUN row, std::size_t i) const noexcept {
        return key(row, i) + (sizeof(Offset) < 4 ? narrow_offset_bias : 0);
    }
    VASK_ALWAYS_INLINE str text(BUN row, std::size_t i) const noexcept {
        return texts.at_offset(offset(row, i));
    }
};

//! Indices of keys in a window.
template <class Keys>
index_loader load_indices(Keys keys, key_window<typename Keys::key_type> window) {
    return [=](BUN row, BUN n, std::uint32_t *indices) {
        window.number(keys, row, n, indices);
        return true;
    };
}

//! Keys as they are, in words of Key.
template <class Key, class Keys>
key_loader<Key> load_keys(Keys keys) {
    return [=](BUN row, BUN n, std::uint32_t *, Key *out, bool) {
        if constexpr (sizeof(*keys.rows) == sizeof(Key))
            std::memcpy(out, keys.rows + row, n * sizeof(Key));
        else
            for (std::size_t i = 0; i < n; ++i)
                out[i] = keys.key(row, i);
        return true;
    };
}

//! Texts of a block by what they read, with their hashes. Most lie far from each other and are
//! asked for ahead: 64 texts ahead takes 5 ns a row, 16 ahead 13.
template <class Offset>
void hash_texts(const offset_keys<Offset> &keys, text_hash hash, BUN row, BUN n,
                std::uint32_t *hashes) {
    constexpr std::size_t ahead = 64;
    for (std::size_t i = 0; i < n; ++i) {
        if (i + ahead < n)
            __builtin_prefetch(keys.text(row, i + ahead));
        hashes[i] = hash(keys.text(row, i));
    }
}

//! Texts with their hashes, beside nothing.
template <class Offset>
key_loader<std::uint64_t> load_texts(const offset_keys<Offset> &texts, text_hash hash) {
    return [=](BUN row, BUN n, std::uint32_t *hashes, std::uint64_t *out, bool again) {
        if (!again)
            hash_texts(texts, hash, row, n, hashes);
        for (std::size_t i = 0; i < n; ++i)
            out[i] = text_bits(hashes[i], texts.offset(row, i));
        return true;
    };
}

//! The least key of some rows, and how far the greatest lies above it.
template <class Key>
struct key_span {
    Key least;
    Key span;
};

//! Indices of keys that lie in the span, one other aside; empty where they do not suit the rows.
template <class Keys, class Key = typename Keys::key_type>
index_source index_of_keys(const Keys &keys, key_span<Key> span, const ranged_rows &rows) {
    // The widest span of 64 bits leaves no room for the other key.
    if (span.span >= NO_BUN ||
        !suits_index(std::uint64_t{span.span} + 2, rows.all().size(), rows.ranges.size()))
        return {};
    const key_window<Key> window{span.least, static_cast<std::uint32_t>(span.span)};
    // Reading narrow keys twice costs less than counting and writing at one go.
    return {window.places(), load_indices(keys, window), sizeof(Key) < sizeof(oid)};
}

//! The span of the offsets of the rows. Narrow ones are so few that no row is read.
template <class Offset>
key_span<Offset> span_of_offsets(const offset_keys<Offset> &texts, const ranged_rows &rows) {
    if constexpr (sizeof(Offset) < sizeof(std::uint32_t)) {
        return {0, std::numeric_limits<Offset>::max()};
    } else {
        struct bounds {
            Offset least = std::numeric_limits<Offset>::max();
            Offset most = 0;
        };
        gdk_vector<bounds> found(rows.ranges.size());
        rows.run_ranges([all = texts.rows, &found](std::size_t k, vask_row_range range) {
            found[k] = with_best_instruction_set(
                [ offsets = all + range.begin, n = range.size() ]() __attribute__((always_inline)) {
                    bounds b;
                    for (std::size_t i = 0; i < n; ++i) {
                        b.least = std::min(b.least, offsets[i]);
                        b.most = std::max(b.most, offsets[i]);
                    }
                    return b;
                });
        });
        bounds all;
        for (const bounds &b : found) {
            all.least = std::min(all.least, b.least);
            all.most = std::max(all.most, b.most);
        }
        return {all.least, all.most - all.least};
    }
}

//! Hashes the texts of the span. Of narrow offsets, whose span is not that of rows, no text is
//! known to be the last one.
template <class Offset>
text_hash hash_of_span(const offset_keys<Offset> &texts, key_span<Offset> span) {
    return {sizeof(Offset) < sizeof(std::uint32_t)
                ? texts.texts.heap
                : texts.texts.at_offset(static_cast<std::uint32_t>(span.least + span.span))};
}

//! Calls `body(keys)` with the offset_keys of a text column.
template <class Body>
auto visit_offset_keys(const BATcol &column, Body body) {
    switch (column.width) {
        case 1:
            return body(offset_keys<std::uint8_t>(column));
        case 2:
            return body(offset_keys<std::uint16_t>(column));
        default:
            return body(offset_keys<std::uint32_t>(column));
    }
}

} // namespace vask
