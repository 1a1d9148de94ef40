// Keys of a refinement: a row's old group beside its value.
//
// Groups is a plain struct with `bool number(row, n, numbers)`, which gives the rows row .. row + n
// - 1 their old groups as numbers of any kind, and false when one of them has none.
#pragma once

#include "grouping/table/custom_mask.h"
#include "rows/column_keys.h"
#include "rows/group_of_row.h"
#include "rows/group_rows.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <type_traits>

namespace vask {

//! Old groups by their ids.
struct groups_by_id {
    const grouped_rows *old;

    bool number(BUN row, BUN n, BUN *numbers) const {
        const oid *ids = map_rows(*old).ids(row, n, numbers);
        if (ids != nullptr && ids != numbers)
            std::copy_n(ids, n, numbers);
        return ids != nullptr;
    }
};

//! Old groups by their rows in the old extents.
struct groups_by_row {
    const grouped_rows *old;
    const slot_table *table; // of the old extents, or null

    BUN count() const noexcept { return old->extents->info->count; }

    bool number(BUN row, BUN n, BUN *numbers) const {
        map_rows map(*old);
        return table != nullptr
                   ? number_rows(map, *table, *old->extents, row, n, numbers)
                   : number_rows(map, oid_lookup(*old->extents), *old->extents, row, n, numbers);
    }
};

//! Numbers by their bits. Numbers of old groups are kept as notes.
template <class T, class Groups>
auto load_derived(const Groups &groups, const number_keys<T> &values) {
    using key_type = numbered_key<value_bits<T>>;
    return key_loader<key_type>(
        [=](BUN row, BUN n, std::uint32_t *numbers, key_type *out, bool again) {
            if (!again && !groups.number(row, n, numbers))
                return false;
            for (std::size_t i = 0; i < n; ++i)
                out[i] = key_beside<value_bits<T>>(numbers[i], values.key(row, i));
            return true;
        });
}

//! Numbers as comparisons see them: -0.0 is 0.0, and a NaN is like no other, for which its row
//! stands where the old group would.
template <std::floating_point T, class Groups>
auto load_derived_by_number(const Groups &groups, const number_keys<T> &values) {
    using key_type = numbered_key<value_bits<T>>;
    return key_loader<key_type>(
        [=](BUN row, BUN n, std::uint32_t *numbers, key_type *out, bool again) {
            if (!again && !groups.number(row, n, numbers))
                return false;
            for (std::size_t i = 0; i < n; ++i) {
                const T value = (values.rows + row)[i];
                const bool nan = value != value;
                const T same = nan ? std::numeric_limits<T>::quiet_NaN() : value + T(0);
                out[i] = key_beside<value_bits<T>>(nan ? row + static_cast<BUN>(i) : numbers[i],
                                                   key_bits(same));
            }
            return true;
        });
}

//! Texts by where they lie.
template <class Offset, class Groups>
key_loader<std::uint64_t> load_derived_places(const Groups &groups,
                                              const offset_keys<Offset> &texts) {
    return [=](BUN row, BUN n, std::uint32_t *numbers, std::uint64_t *out, bool again) {
        if (!again && !groups.number(row, n, numbers))
            return false;
        for (std::size_t i = 0; i < n; ++i)
            out[i] = key_beside<std::uint32_t>(numbers[i], texts.key(row, i));
        return true;
    };
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
//! the number of old groups, and the group's number.
template <class Keys>
std::optional<index_source> index_of_pairs(const groups_by_row &groups, const Keys &keys,
                                           key_span<typename Keys::key_type> span,
                                           const grouping_rows &rows) {
    // The widest span of 64 bits leaves no room for the other key.
    const std::uint64_t codes = std::min<std::uint64_t>(span.span, NO_BUN) + 2;
    const BUN old = groups.count();
    if (old == 0 || codes > NO_BUN ||
        !suits_index(codes * old, rows.all().size(), rows.ranges.size()))
        return std::nullopt;
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
    return index_source{static_cast<std::uint32_t>(codes * old), load};
}

//! The same for a column of integers, whose values are scanned.
template <std::integral T>
std::optional<index_source> index_of_integers(const groups_by_row &groups, const BAT &b,
                                              const grouping_rows &rows) {
    const value_range<T> values = scan_values<T>(b);
    using key_type = typename number_keys<T>::key_type;
    return index_of_pairs(groups, number_keys<T>(*b.tail),
                          {key_bits(values.least),
                           static_cast<key_type>(key_bits(values.max) - key_bits(values.least))},
                          rows);
}

} // namespace vask
