// Numbering the rows of a range by their groups' entries in a table.
//
// Walking a chain of the table for every row costs 5 ns. A memo of the keys seen tells an entry in
// 1 to 3 ns, and the table is asked only about keys that are new. The numbers wait in the cells
// that the ids go to.
#pragma once

#include "grouping/table/group_table.h"
#include "kernel/column.h"
#include "kernel/frame.h"
#include "rows/key_memo.h"
#include "rows/row_blocks.h"
#include "rows/row_counts.h"

#include <algorithm>
#include <array>
#include <utility>

namespace vask {

//! The entry of a new key's value; a new one, with the row's head value, if the table has none.
//! `is_new`: no row before had the value, and the table need not be asked.
template <class T>
std::uint32_t entry_of(vask_group_table<T> &table, const T &value, std::uint32_t hash,
                       const oid_reader &heads, BUN row, bool is_new) {
    if (is_new)
        return table.append({value, heads[row], 0, NO_BUN, hash});
    const auto *known = table.probe(value, hash);
    return known != nullptr ? table.number_of(known)
                            : table.insert({value, heads[row], 0, NO_BUN, hash});
}

template <class Keys>
struct numbering_by_memo {
    using value_type = typename Keys::value_type;

    Keys keys;

    //! Adds the groups of the rows to an empty table and counts them. `cells`, the rows' places in
    //! the map, become the numbers of the rows' entries.
    void build(vask_group_table<value_type> &table, const oid_reader &heads, row_range rows,
               oid *cells) const {
        state now{table, heads, memo_limit(rows.size())};
        row_counts counts(first_groups);
        for_each_block(rows, [&](BUN row, BUN n) {
            oid *numbers = cells + (row - rows.begin);
            if (!now.recall(keys, row, n, numbers))
                number_unknown(now, row, n, numbers);
            now.judge_memo(row + n - rows.begin);
            if (table.entries().size() > counts.numbers()) {
                add_counts(table, counts);
                counts = row_counts(2 * table.entries().size());
            }
            counts.add(numbers, n, [](std::uint32_t, std::size_t) {});
        });
        add_counts(table, counts);
    }

private:
    static constexpr std::size_t first_groups = 256;
    // New keys whose buckets are fetched together, so that the misses overlap.
    static constexpr std::size_t batch_rows = 16;

    // A memo of so many keys of 8 bytes takes 16 to 32 MB. The road is meant for fewer; a column
    // whose sample misled its choice goes on with the table alone for the keys that come later.
    static constexpr std::size_t most_keys = std::size_t{1} << 18;

    //! Keys of which there can be more than groups, since every row may have its text stored anew,
    //! are remembered up to one for eight rows.
    static std::size_t memo_limit(std::size_t rows) noexcept {
        return std::min(Keys::one_key_per_value ? rows : rows / 8, most_keys);
    }

    struct state {
        vask_group_table<value_type> &table;
        const oid_reader &heads;
        std::size_t limit;
        key_memo<typename Keys::key_type> memo{};
        bool recalls = true;
        // Where every value has but one key, and the memo holds all keys so far, one that it does
        // not hold is new, and entries need not be found in the table.
        bool complete = Keys::one_key_per_value;

        bool recall(const Keys &source, BUN row, BUN n, std::uint32_t *numbers) const {
            if (recalls)
                return memo.recall(source, row, n, numbers);
            std::fill_n(numbers, n, unknown_number);
            return false;
        }

        std::uint32_t recall(typename Keys::key_type key) const noexcept {
            return recalls ? memo.recall(key) : unknown_number;
        }

        void remember(typename Keys::key_type key, std::uint32_t entry) {
            if (memo.size() < limit)
                memo.remember(key, entry);
            else
                rely_on_table();
        }

        void rely_on_table() noexcept {
            if (std::exchange(complete, false))
                table.link_appended();
        }

        //! Gives the memo up if hardly any row found its key in it by the time that it was full.
        void judge_memo(std::size_t rows) {
            if (memo.size() == limit && rows < limit + limit / 4) {
                memo = {};
                limit = 0;
                recalls = false;
                rely_on_table();
            }
        }
    };

    static void add_counts(vask_group_table<value_type> &table, const row_counts &counts) {
        const std::size_t n = std::min(counts.numbers(), table.entries().size());
        for (std::size_t i = 0; i < n; ++i)
            table.entries()[i].count += counts[i];
    }

    //! Numbers the rows of a block that the memo does not know, in row order, so that entries come
    //! in the order of first occurrence.
    void number_unknown(state &now, BUN row, BUN n, std::uint32_t *numbers) const {
        std::array<BUN, batch_rows> batch;
        std::size_t pending = 0;
        for (BUN i = 0; i < n; ++i) {
            if (numbers[i] == unknown_number)
                batch[pending++] = i;
            if (pending == batch_rows || (pending != 0 && i + 1 == n)) {
                number_batch(now, row, batch.data(), pending, numbers);
                pending = 0;
            }
        }
    }

    void number_batch(state &now, BUN row, const BUN *batch, std::size_t n,
                      std::uint32_t *numbers) const {
        std::array<value_type, batch_rows> values;
        std::array<std::uint32_t, batch_rows> hashes;
        for (std::size_t j = 0; j < n; ++j) {
            values[j] = keys.value(row + batch[j]);
            hashes[j] = vask_group_entry<value_type>::hash(values[j]);
            now.table.prefetch(hashes[j]);
        }
        for (std::size_t j = 0; j < n; ++j) {
            const BUN i = batch[j];
            // A row before it may have had the same key.
            std::uint32_t entry = now.recall(keys.key(row, i));
            if (entry == unknown_number) {
                entry = entry_of(now.table, values[j], hashes[j], now.heads, row + i, now.complete);
                now.remember(keys.key(row, i), entry);
            }
            numbers[i] = entry;
        }
    }
};

} // namespace vask
