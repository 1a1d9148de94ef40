// Keys of rows that are in groups already: the number of a row's group beside its value.
//
// Groups is a plain struct with `bool number(row, n, numbers)`, which gives the rows row .. row + n
// - 1 their groups as numbers of any kind, and false when one of them has none.
#pragma once

#include "rows/column_keys.h"
#include "rows/group_rows.h"

#include <algorithm>
#include <array>

namespace vask {

//! Values by their keys, in words of Bits: numbers by their bits, texts by where they lie. Numbers
//! of old groups are kept as notes.
template <class Bits, class Groups, class Keys>
auto load_derived(const Groups &groups, const Keys &values) {
    using key_type = numbered_key<Bits>;
    return key_loader<key_type>(
        [=](BUN row, BUN n, std::uint32_t *numbers, key_type *out, bool again) {
            if (!again && !groups.number(row, n, numbers))
                return false;
            for (std::size_t i = 0; i < n; ++i)
                out[i] = key_beside<Bits>(numbers[i], values.key(row, i));
            return true;
        });
}

//! Texts by what they read. Their hashes are kept as notes: finding those again costs more than the
//! numbers of old groups.
template <class Offset, class Groups>
key_loader<wide_key> load_derived_texts(const Groups &groups, const offset_keys<Offset> &texts,
                                        text_hash hash) {
    return [=](BUN row, BUN n, std::uint32_t *hashes, wide_key *out, bool again) {
        std::array<BUN, block_rows> numbers;
        if (!groups.number(row, n, numbers.data()))
            return false;
        if (!again)
            hash_texts(texts, hash, row, n, hashes);
        for (std::size_t i = 0; i < n; ++i)
            out[i] = wide_key::of(text_bits(hashes[i], texts.offset(row, i)), numbers[i]);
        return true;
    };
}

//! Pairs by index, where there are few enough of them: the distance of a key from the least times
//! the number of old groups, and the group's number. Groups is numbered below its count() here.
template <class Groups, class Keys>
index_source index_of_pairs(const Groups &groups, const Keys &keys,
                            key_span<typename Keys::key_type> span, const ranged_rows &rows) {
    // The widest span of 64 bits leaves no room for the other key.
    const std::uint64_t codes = std::min<std::uint64_t>(span.span, NO_BUN) + 2;
    const BUN old = groups.count();
    if (old == 0 || codes > NO_BUN ||
        !suits_index(codes * old, rows.all().size(), rows.ranges.size()))
        return {};
    const key_window<typename Keys::key_type> window{span.least,
                                                     static_cast<std::uint32_t>(span.span)};
    const auto load = [=](BUN row, BUN n, std::uint32_t *indices) {
        std::array<BUN, block_rows> numbers;
        if (!groups.number(row, n, numbers.data()))
            return false;
        window.number(keys, row, n, indices);
        for (std::size_t i = 0; i < n; ++i)
            indices[i] = indices[i] * old + numbers[i];
        return true;
    };
    return {static_cast<std::uint32_t>(codes * old), load};
}

} // namespace vask
