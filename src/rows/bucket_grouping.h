// Grouping in buckets, for any kind of keys.
#pragma once

#include "kernel/cancelled.h"
#include "kernel/hostile.h"
#include "rows/grouping_rows.h"
#include "rows/huge_pages.h"
#include "rows/key_table.h"
#include "rows/scatter.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <numeric>

namespace vask {

// Of so many rows or half of them, a bucket's table just leaves the second-level cache. Dealing
// rows out takes 4 ns a row to 512 buckets and 6.5 to 2048, whose ends leave the first-level cache;
// the smaller tables save 1.5.
inline constexpr BUN bucket_rows = unless_hostile<BUN>(1 << 15, 1);
// More places to write to at once leave the second-level cache, and the address cache with it.
inline constexpr BUN most_buckets = 1 << 12;
// Groups that a bucket's table has room for at first: with so many slots two keys seldom meet,
// which would be a branch that the processor cannot foresee.
inline constexpr std::size_t groups_foreseen = bucket_rows / 4;
// Rows ahead of which the streams of the buckets are asked for: there are too many for the
// processor to see them.
inline constexpr std::size_t dealt_rows_fetched_ahead = 16;

inline unsigned bucket_bits(BUN rows) noexcept {
    return static_cast<unsigned>(
        std::countr_zero(std::bit_ceil(std::clamp(rows / bucket_rows, BUN{1}, most_buckets))));
}

//! A row in its bucket, without padding: key and row side by side are one stream of stores for each
//! bucket. With an array for each, 1e7 rows of 1e6 scattered values take a third longer.
template <class Key>
struct dealt_row {
    static constexpr std::size_t word_bytes = 4;
    std::array<std::uint32_t, sizeof(Key) / word_bytes> words; // of the key
    BUN row;

    VASK_ALWAYS_INLINE Key key() const noexcept { return std::bit_cast<Key>(words); }
};

//! The keys of some of them.
template <class Key>
struct dealt_keys {
    const dealt_row<Key> *rows;

    VASK_ALWAYS_INLINE Key operator[](std::size_t i) const noexcept { return rows[i].key(); }
};

//! Deals the rows out to buckets by the hashes of their keys, gives each bucket a table of its own,
//! and takes the ids back to the rows.
template <class Kind>
class bucket_grouping {
public:
    using key_type = typename Kind::key_type;

    bucket_grouping(const grouping_rows &rows, const Kind &kind, const key_loader<key_type> &load)
        : rows_(rows),
          kind_(kind),
          load_(load),
          bits_(bucket_bits(rows.all().size())),
          offsets_(rows.ranges.size(), std::size_t{1} << bits_),
          buckets_(large_block<std::uint16_t>(rows.all().size())),
          by_bucket_(large_block<dealt>(rows.all().size())) {}

    grouping_outcome run(const group_sink &sink) {
        if (!vask_distribute_rows())
            return grouping_outcome::row_without_key;
        const gdk_vector<BUN> begun = number_groups(sink);
        extents_rows extents;
        if (failed_ != 0 ||
            !sink.make_room(std::accumulate(begun.begin(), begun.end(), BUN{0}), extents))
            return grouping_outcome::failed;
        write_back(extents, begun);
        return grouping_outcome::done;
    }

private:
    using dealt = dealt_row<key_type>;
    using words = decltype(dealt::words);

    //! Finds the buckets of n rows and counts them. All that the loop needs is in locals, which no
    //! store can change.
    static void find_buckets(Kind kind, unsigned bits, const key_type *keys, BUN n,
                             std::uint16_t *buckets, BUN *counts) noexcept {
        for (BUN k = 0; k < n; ++k) {
            buckets[k] = static_cast<std::uint16_t>(leading_bits(kind.hash(keys[k]), bits));
            ++counts[buckets[k]];
        }
    }

    //! The buckets of the rows from one on.
    std::uint16_t *buckets_from(BUN row) const noexcept {
        return buckets_.get() + (row - rows_.all().begin);
    }

    //! Brings the rows of each bucket together, in ascending order, with their keys. False at a row
    //! without a key.
    bool vask_distribute_rows() {
        rows_.run_ranges([this](std::size_t i, vask_row_range range) {
            BUN *counts = offsets_.of(i);
            std::array<key_type, block_rows> keys;
            const bool all = all_blocks(range, [&, this](BUN row, BUN n) {
                if (!load_(row, n, rows_.cells + row, keys.data(), false))
                    return false;
                find_buckets(kind_, bits_, keys.data(), n, buckets_from(row), counts);
                return true;
            });
            if (!all)
                fail();
        });
        if (failed_ != 0)
            return false;
        offsets_.turn_counts_into_offsets();
        rows_.run_ranges([this](std::size_t i, vask_row_range range) {
            BUN *next = offsets_.of(i);
            dealt *to = by_bucket_.get();
            std::array<key_type, block_rows> keys;
            static_cast<void>(all_blocks(range, [&, this](BUN row, BUN n) {
                if (!load_(row, n, rows_.cells + row, keys.data(), true))
                    return false;
                const std::uint16_t *buckets = buckets_from(row);
                for (BUN k = 0; k < n; ++k)
                    to[next[buckets[k]]++] = {std::bit_cast<words>(keys[k]), row + k};
                return true;
            }));
        });
        return true;
    }

    //! Numbers the groups of all buckets, in tasks over runs of buckets. How many groups begin in
    //! each range of rows.
    gdk_vector<BUN> number_groups(const group_sink &sink) {
        // More tasks than ranges even out what buckets cost.
        constexpr std::size_t tasks_per_range = 4;
        const std::size_t ranges = rows_.ranges.size();
        const std::size_t n = sink.begin ? ranges : tasks_per_range * ranges;
        gdk_vector<BUN> begun(n * ranges);
        rows_.run(n, [&, this](std::size_t i) {
            bucket_table table(kind_, bits_);
            const std::size_t begin = offsets_.cut(i, n);
            const std::size_t end = offsets_.cut(i + 1, n);
            if (sink.begin && begin != end &&
                !sink.begin(i, offsets_.end_of(end - 1) - offsets_.begin_of(begin))) {
                fail();
                return;
            }
            for (std::size_t bucket = begin; bucket < end; ++bucket) {
                end_if_cancelled();
                vask_refine_group(bucket, table);
                count_begun(table.groups, begun.data() + i * ranges);
                if (sink.take && !take(sink, i, table)) {
                    fail();
                    return;
                }
            }
        });
        gdk_vector<BUN> all(ranges);
        for (std::size_t i = 0; i < begun.size(); ++i)
            all[i % ranges] += begun[i];
        return all;
    }

    //! A group of a bucket.
    struct bucket_group {
        BUN row;   // its first one
        BUN place; // of that row among those of all buckets
        BUN count;
    };

    struct bucket_table {
        key_table<Kind> keys;
        gdk_vector<bucket_group> groups;
        gdk_vector<new_group> taken;

        bucket_table(const Kind &kind, unsigned bits) : keys(kind, bits, groups_foreseen) {}
    };

    //! Puts each row's first row of its group in the row's place, and each group's count in place
    //! of the first word of its first row's key.
    void vask_refine_group(std::size_t bucket, bucket_table &table) const {
        const BUN begin = offsets_.begin_of(bucket);
        const BUN n = offsets_.end_of(bucket) - begin;
        dealt *rows = by_bucket_.get() + begin;
        std::array<std::uint32_t, block_rows> codes;
        table.keys.clear();
        table.groups.clear();
        for (BUN done = 0; done < n; done += block_rows) {
            const BUN size = std::min(block_rows, n - done);
            table.keys.find_or_add(dealt_keys<key_type>{rows + done}, size, codes.data());
            // As with the keys, what is new is no branch.
            std::uint32_t known = static_cast<std::uint32_t>(table.groups.size());
            bucket_group *groups = table.groups.room_for(size);
            for (BUN k = 0; k < size; ++k) {
                const std::uint32_t code = codes[k];
                const bool is_new = code == known;
                groups[known] = {rows[done + k].row, done + k, 0};
                known += is_new;
                bucket_group &group = groups[code];
                ++group.count;
                rows[done + k].row = group.row;
            }
            table.groups.grow_to(known);
        }
        for (const bucket_group &group : table.groups)
            rows[group.place].words[0] = group.count;
    }

    void count_begun(const gdk_vector<bucket_group> &groups, BUN *begun) const noexcept {
        const std::size_t ranges = rows_.ranges.size();
        // Groups of a bucket come in the order of their first rows.
        const bucket_group *from = groups.begin();
        for (std::size_t range = 0; range < ranges; ++range) {
            const BUN end = rows_.ranges[range].end;
            const bucket_group *to = std::partition_point(
                from, groups.end(), [end](const bucket_group &group) { return group.row < end; });
            begun[range] += static_cast<BUN>(to - from);
            from = to;
        }
    }

    bool take(const group_sink &sink, std::size_t task, bucket_table &table) const {
        table.taken.clear();
        for (const bucket_group &group : table.groups)
            table.taken.push_back({rows_.heads[group.row], group.count});
        return sink.take(task, table.taken.data(), table.taken.size());
    }

    //! Gives each row's cell its id, and writes the groups' rows of the extents in the order of
    //! first rows.
    void write_back(extents_rows extents, const gdk_vector<BUN> &begun) {
        rows_.run_ranges([&, this](std::size_t i, vask_row_range range) {
            gdk_vector<BUN> next = offsets_.begins_of(i);
            BUN *places = next.data();
            const dealt *from = by_bucket_.get();
            const oid_reader heads = rows_.heads;
            oid *cells = rows_.cells;
            BUN group = std::accumulate(begun.begin(), begun.begin() + i, BUN{0});
            for_each_block(range, [&](BUN block, BUN n) {
                // Of the groups that begin with a row of the block. Whether one does is no branch.
                std::array<oid, block_rows> ids;
                std::array<wrd, block_rows> counts;
                std::size_t found = 0;
                const std::uint16_t *buckets = buckets_from(block);
                for (BUN row = block; row < block + n; ++row) {
                    const dealt *place = from + places[*buckets++]++;
                    __builtin_prefetch(place + dealt_rows_fetched_ahead);
                    const oid id = heads[place->row];
                    cells[row] = id;
                    ids[found] = id;
                    counts[found] = place->words[0];
                    found += place->row == row;
                }
                if (extents.ids == nullptr)
                    return;
                std::copy_n(ids.begin(), found, extents.ids + group);
                if (extents.counts != nullptr)
                    std::copy_n(counts.begin(), found, extents.counts + group);
                group += static_cast<BUN>(found);
            });
        });
    }

    void fail() noexcept { std::atomic_ref(failed_).store(1, std::memory_order_relaxed); }

    const grouping_rows &rows_;
    const Kind &kind_;
    const key_loader<key_type> &load_;
    unsigned bits_;
    scatter_offsets offsets_;
    gdk_block<std::uint16_t> buckets_; // by row
    gdk_block<dealt> by_bucket_;
    bte failed_ = 0;
};

} // namespace vask
