// Serial grouping of rows by their old groups and their values.
#ifndef REFKERNEL_ALGEBRA_PAIR_GROUPS_H
#define REFKERNEL_ALGEBRA_PAIR_GROUPS_H

#include "refkernel/algebra/column_values.h"
#include "refkernel/algebra/serial_rows.h"
#include "rows/pair_keys.h"
#include "vask/refkernel/contract.h"

#include <algorithm>
#include <concepts>
#include <optional>

namespace refkernel::algebra {

//! The values of a void column: every row its own, or all the nil.
struct void_values {
    bool nil;

    std::uint32_t key(BUN row, std::size_t i) const noexcept {
        return nil ? 0 : row + static_cast<BUN>(i);
    }
};

//! Old groups by their ids, which tell them apart as numbers do.
struct groups_by_id {
    const oid *ids; // by position

    bool number(BUN row, BUN n, BUN *numbers) const {
        std::copy_n(ids + row, n, numbers);
        return true;
    }
};

//! Calls `f(keys, look)` with the keys of the pairs. `look(numbered, rows)` looks at all values: it
//! gives the keys their index, if there is one, for old groups that are numbered below a count(),
//! and tells whether a pair takes no more than 64 bits.
template <class F>
void visit_pair_keys(const BAT &b, const groups_by_id &groups, F f) {
    const BATcol &tail = *b.tail;
    if (is_void(tail)) {
        vask::grouping_keys<std::uint64_t, vask::bit_keys<std::uint64_t>> keys;
        keys.load = vask::load_derived<std::uint32_t>(groups, void_values{tail.seqbase == oid_nil});
        keys.load_for_buckets = keys.load;
        f(keys, [](const auto &, const auto &) { return true; });
    } else if (!tail.varsized) {
        visit_numbers(tail, [&]<class T>(const vask::number_keys<T> &values) {
            using key_type = vask::numbered_key<vask::value_bits<T>>;
            vask::grouping_keys<key_type, vask::bit_keys<key_type>> keys;
            keys.load = keys.load_for_buckets =
                vask::load_derived<vask::value_bits<T>>(groups, values);
            f(keys, [&]([[maybe_unused]] const auto &numbered,
                        [[maybe_unused]] const vask::ranged_rows &rows) {
                if constexpr (std::integral<T>)
                    if (const auto span = span_of_values<T>(b, b.info->count)) {
                        keys.index = vask::index_of_pairs(numbered, values, *span, rows);
                        return true;
                    }
                return sizeof(T) < 8;
            });
        });
    } else {
        vask::visit_offset_keys(tail, [&](const auto &texts) {
            const serial_rows all(b.info->first, b.info->count);
            const auto span = vask::span_of_offsets(texts, all.get());
            const auto look_for = [&](auto &keys) {
                return [&](const auto &numbered, const vask::ranged_rows &rows) {
                    keys.index = vask::index_of_pairs(numbered, texts, span, rows);
                    return true;
                };
            };
            const auto load = vask::load_derived<std::uint32_t>(groups, texts);
            if (holds_each_text_once(tail)) {
                vask::grouping_keys<std::uint64_t, vask::bit_keys<std::uint64_t>> keys;
                keys.load = keys.load_for_buckets = load;
                f(keys, look_for(keys));
                return;
            }
            vask::grouping_keys<std::uint64_t, vask::text_content_keys<vask::wide_key>> keys(
                {vask::text_reader(tail)});
            keys.one_index_per_value = false;
            keys.load = load;
            keys.load_for_buckets =
                vask::load_derived_texts(groups, texts, vask::hash_of_span(texts, span));
            keys.resolve = vask::resolve_by_keys(keys.kind, keys.load_for_buckets);
            f(keys, look_for(keys));
        });
    }
}

} // namespace refkernel::algebra

#endif
