// The row loop of the grouped operators.
#pragma once

#include "aggregates/aggregate.h"
#include "aggregates/state_blocks.h"
#include "kernel/frame.h"
#include "rows/oid_lookup.h"
#include "rows/slot_table.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

namespace vask {

//! A row source that wants to see each block of rows before it is asked for them, say to convert
//! it. Blocks have at most scan_block_rows rows and come in order.
template <class Rows>
concept loads_blocks = requires(Rows rows, vask_row_range block) {
    rows.load(block);
};

//! A row source whose nil test is a call of the kernel's, which sees each row that is asked for, in
//! order and once. It needs no block to be loaded for that.
template <class Rows>
concept asks_kernel = Rows::asks_kernel;

//! A row source that can ask for the memory of rows to come while the n from p on are in use.
template <class Rows>
concept prefetches = requires(const Rows rows, BUN p, BUN n) {
    rows.prefetch(p, n);
};

//! An aggregate whose states seldom change, and which says beforehand whether a value changes one.
template <class Aggregate, class Value>
concept tells_change = requires(typename Aggregate::partial state, Value value) {
    Aggregate::changes(state, value);
};

//! An aggregate that can add a value or nothing without a branch.
template <class Aggregate, class Value>
concept adds_operands = requires(typename Aggregate::partial state, Value value) {
    Aggregate::add_operand(state, Aggregate::operand(value, true), 1);
};

// Long enough to choose a loop by the nils of the block before, short enough for a row source to
// keep a block in the first-level cache.
inline constexpr BUN scan_block_rows = 2048;

//! Calls `f(rows, block)` for the blocks of a range in order, each loaded if the row source wants
//! it.
template <class Rows, class F>
VASK_ALWAYS_INLINE void for_each_block(Rows rows, vask_row_range r, F f) {
    for (BUN p = r.begin; p < r.end;) {
        const vask_row_range block{p, p + std::min(scan_block_rows, r.end - p)};
        if constexpr (loads_blocks<Rows>)
            rows.load(block);
        f(std::as_const(rows), block);
        p = block.end;
    }
}

//! Adds rows to the states of their groups. With one block of states per task, 1e7 rows of 100
//! groups on two cores take 4 ms for int and 5 ms for dbl, at a read speed of 2.4 ms per 80 MB.
//! Spreading neighbouring rows over several blocks gained nothing: the processor forwards a state
//! from one row to the next unless all rows have the same group, and those are taken as runs.
//! Everything is inlined where the object is made: for all that the compiler knows, a store to a
//! state could otherwise change its members, and it would read them again for every row (8 ms).
template <class Aggregate, class Lookup, class Rows>
class group_scan {
public:
    group_scan(Lookup lookup, Rows rows, const oid *gids, BUN groups,
               state_columns<typename Aggregate::partial> states) noexcept
        : lookup_(lookup), rows_(rows), gids_(gids), groups_(groups), states_(states) {}

    //! Adds the rows in order. A row with a value whose group the extents do not hold ends the
    //! scan: the rest of the partition is left out, which is how the operators are defined.
    VASK_ALWAYS_INLINE void run(vask_row_range partition) {
        BUN nils = 0;
        for (BUN p = partition.begin; p < partition.end;) {
            const vask_row_range block{p, p + std::min(scan_block_rows, partition.end - p)};
            if constexpr (loads_blocks<Rows>)
                rows_.load(block);
            const BUN nils_before = std::exchange(nils, 0);
            if (!add_block(block, nils_before, nils))
                return;
            p = block.end;
            if constexpr (tells_seen<Aggregate>) {
                if (nils != 0 && !all_seen_ && ++blocks_ % blocks_between_looks == 0 &&
                    groups_ <= most_groups_to_add_nothing)
                    all_seen_ = states_.all_seen(groups_);
            }
        }
    }

    //! The same from a row that is known to have a value on, for a row source that asks the kernel:
    //! no row is asked for twice, and none after the scan has ended.
    VASK_ALWAYS_INLINE void run_from_value(vask_row_range partition) {
        for (BUN p = partition.begin; p < partition.end;) {
            const vask_row_range block{p, p + std::min(scan_block_rows, partition.end - p)};
            if constexpr (loads_blocks<Rows>)
                rows_.load(block);
            while (p < block.end) {
                // Found before the calls, the slots wait for memory together and not one by one.
                BUN slots[slots_ahead];
                const BUN n = std::min(slots_ahead, block.end - p);
                prefetch(p, n);
                for (BUN i = 0; i < n; ++i)
                    slots[i] = vask_group_slot(lookup_, gids_[p + i]);
                for (BUN i = 0; i < n; ++i, ++p) {
                    if (p != partition.begin && rows_.is_nil(p))
                        continue;
                    if (!add_at(slots[i], p)) [[unlikely]]
                        return;
                }
            }
        }
    }

private:
    // Above one nil in so many rows, a branch per row costs more in mispredictions than gathering
    // the rows with a value in a mask. While a cache holds the states of all groups, adding nothing
    // for a nil costs less than either, however few nils there are.
    static constexpr BUN branch_nil_share = 8;
    static constexpr BUN most_groups_to_add_nothing = 4096;
    // A branch that is seldom taken spares the store, and the next row of the group the wait for it
    // (minimum of 1e7 int in 100 groups: 6 ms, against 8). With more groups the states come from
    // further away and fewer rows fall to each, so the branch is mispredicted more often and found
    // out later.
    static constexpr BUN most_groups_to_branch = 4096;
    // Rows that are tested for being of one group at once.
    static constexpr BUN run_rows = 16;

    static constexpr BUN slots_ahead = 64;

    static constexpr BUN blocks_between_looks = 16;

    //! Picks a loop by the nils of the block before. False at the end of the scan.
    VASK_ALWAYS_INLINE bool add_block(vask_row_range block, BUN nils_before,
                                      BUN &nils) const noexcept {
        if constexpr (adds_operands<Aggregate, decltype(rows_[block.begin])>) {
            if (nils_before != 0 && groups_ <= most_groups_to_add_nothing)
                return all_seen_ ? add_operands<true>(block, nils)
                                 : add_operands<false>(block, nils);
        }
        return nils_before > block.size() / branch_nil_share ? add_live_rows(block, nils)
                                                             : add_rows(block, nils);
    }

    VASK_ALWAYS_INLINE bool add_row(BUN p) const noexcept {
        return add_at(vask_group_slot(lookup_, gids_[p]), p);
    }

    //! False when there is no such group.
    VASK_ALWAYS_INLINE bool add_at(BUN slot, BUN p) const noexcept {
        if (slot >= groups_) [[unlikely]]
            return false;
        auto state = states_.load(slot);
        if constexpr (tells_change<Aggregate, decltype(rows_[p])>) {
            if (groups_ <= most_groups_to_branch && !Aggregate::changes(state, rows_[p]))
                return true;
        }
        Aggregate::add(state, rows_[p]);
        states_.store(slot, state);
        return true;
    }

    //! Asks for rows that come after the n from p on.
    VASK_ALWAYS_INLINE void prefetch(BUN p, BUN n) const noexcept {
        prefetch_ahead(gids_, p, n);
        if constexpr (prefetches<Rows>)
            rows_.prefetch(p, n);
    }

    //! Whether n rows from p on have one group. Looks at a few first: that is all it takes where
    //! groups alternate.
    template <BUN n>
    VASK_ALWAYS_INLINE bool one_group(BUN p) const noexcept {
        constexpr std::size_t third = n / 3;
        const oid *gids = gids_ + p;
        if (((gids[0] ^ gids[third]) | (gids[0] ^ gids[2 * third]) | (gids[0] ^ gids[n - 1])) != 0)
            return false;
        oid difference = 0;
        for (BUN i = 0; i < n; ++i)
            difference |= gids[i] ^ gids[0];
        return difference == 0;
    }

    //! Adds the rows p .. p + n - 1 of one group, keeping its state in registers. False when it is
    //! unknown.
    template <BUN n>
    VASK_ALWAYS_INLINE bool add_run(BUN p, BUN &nils) const noexcept {
        const BUN slot = vask_group_slot(lookup_, gids_[p]);
        if (slot >= groups_) [[unlikely]]
            return false;
        auto state = states_.load(slot);
        for (BUN i = 0; i < n; ++i) {
            if (rows_.is_nil(p + i))
                ++nils;
            else
                Aggregate::add(state, rows_[p + i]);
        }
        states_.store(slot, state);
        return true;
    }

    VASK_ALWAYS_INLINE bool add_unless_nil(BUN p, BUN &nils) const noexcept {
        if (rows_.is_nil(p)) [[unlikely]] {
            ++nils;
            return true;
        }
        return add_row(p);
    }

    //! False at the end of the scan.
    VASK_ALWAYS_INLINE bool add_rows(vask_row_range block, BUN &nils) const noexcept {
        BUN p = block.begin;
        for (; block.end - p >= run_rows; p += run_rows) {
            prefetch(p, run_rows);
            // An unknown group goes the way row by row: nil rows before it must not end the scan.
            if (one_group<run_rows>(p) && add_run<run_rows>(p, nils))
                continue;
            for (BUN i = 0; i < run_rows; ++i)
                if (!add_unless_nil(p + i, nils)) [[unlikely]]
                    return false;
        }
        for (; p < block.end; ++p)
            if (!add_unless_nil(p, nils))
                return false;
        return true;
    }

    static constexpr BUN mask_rows = 64;

    //! add_rows() without a branch on nil. The nil tests and choices of some rows are done first,
    //! in a loop that the compiler turns into vector instructions. Where each group has seen a
    //! value, that needs no telling (sum of 1e7 rows in 100 groups: 4.5 ms, against 6.5).
    template <bool all_seen>
    VASK_ALWAYS_INLINE bool add_operands(vask_row_range block, BUN &nils) const noexcept {
        for (BUN p = block.begin; p < block.end; p += mask_rows) {
            const BUN n = std::min(mask_rows, block.end - p);
            prefetch(p, n);
            decltype(Aggregate::operand(rows_[p], true)) operands[mask_rows];
            std::uint8_t live[mask_rows];
            const std::size_t first = p;
            for (std::size_t i = 0; i < n; ++i) {
                const bool is_value = !rows_.is_nil(first + i);
                operands[i] = Aggregate::operand(rows_[first + i], is_value);
                live[i] = is_value;
            }
            BUN values = 0;
            for (std::size_t i = 0; i < n; ++i)
                values += live[i];
            nils += n - values;
            if (n == mask_rows && one_group<mask_rows>(p)) {
                const BUN slot = vask_group_slot(lookup_, gids_[p]);
                if (slot < groups_) {
                    auto state = states_.load(slot);
                    for (BUN i = 0; i < mask_rows; ++i)
                        Aggregate::add_operand(state, operands[i], live[i]);
                    states_.store(slot, state);
                    continue;
                }
            }
            const oid *gids = gids_ + p;
            for (std::size_t i = 0; i < n; ++i) {
                const BUN slot = vask_group_slot(lookup_, gids[i]);
                if (slot >= groups_) [[unlikely]] {
                    // Only a row with a value ends the scan.
                    if (live[i] != 0)
                        return false;
                    continue;
                }
                auto state = states_.template load<all_seen>(slot);
                if constexpr (tells_change<Aggregate, decltype(rows_[p])>) {
                    if (!Aggregate::changes(state, operands[i])) [[likely]]
                        continue;
                }
                Aggregate::add_operand(state, operands[i], live[i]);
                states_.template store<all_seen>(slot, state);
            }
        }
        return true;
    }

    //! Bit i is set when row p + i has a value; i < n.
    VASK_ALWAYS_INLINE std::uint64_t live_mask(BUN p, BUN n) const noexcept {
        std::uint8_t live[mask_rows];
        if (n == mask_rows) {
            for (BUN i = 0; i < mask_rows; ++i)
                live[i] = !rows_.is_nil(p + i);
        } else {
            for (BUN i = 0; i < mask_rows; ++i)
                live[i] = i < n && !rows_.is_nil(p + i);
        }
        std::uint64_t mask = 0;
        for (BUN i = 0; i < mask_rows; i += 8) {
            // Eight bytes of 0 or 1 into eight bits: the product brings each into the top byte.
            std::uint64_t bytes;
            std::memcpy(&bytes, live + i, sizeof bytes);
            mask |= ((bytes * 0x0102040810204080U) >> 56) << i;
        }
        return mask;
    }

    //! add_rows() without a branch on nil per row.
    VASK_ALWAYS_INLINE bool add_live_rows(vask_row_range block, BUN &nils) const noexcept {
        for (BUN p = block.begin; p < block.end; p += mask_rows) {
            const BUN n = std::min(mask_rows, block.end - p);
            prefetch(p, n);
            std::uint64_t live = live_mask(p, n);
            nils += n - static_cast<BUN>(std::popcount(live));
            if (n == mask_rows && live != 0 && one_group<mask_rows>(p)) {
                const BUN slot = vask_group_slot(lookup_, gids_[p]);
                if (slot >= groups_) [[unlikely]]
                    return false;
                auto state = states_.load(slot);
                for (; live != 0; live &= live - 1)
                    Aggregate::add(state, rows_[p + static_cast<BUN>(std::countr_zero(live))]);
                states_.store(slot, state);
            }
            for (; live != 0; live &= live - 1)
                if (!add_row(p + static_cast<BUN>(std::countr_zero(live))))
                    return false;
        }
        return true;
    }

    Lookup lookup_;
    Rows rows_;
    const oid *gids_;
    BUN groups_;
    state_columns<typename Aggregate::partial> states_;
    BUN blocks_ = 0;
    bool all_seen_ = false;
};

//! The position of the first row with a value, or the end of the range.
template <class Rows>
BUN first_value(Rows rows, vask_row_range r) {
    for (BUN p = r.begin; p < r.end; ++p) {
        if constexpr (loads_blocks<Rows> && !asks_kernel<Rows>) {
            if ((p - r.begin) % scan_block_rows == 0)
                rows.load({p, p + std::min(scan_block_rows, r.end - p)});
        }
        if (!rows.is_nil(p))
            return p;
    }
    return r.end;
}

//! What a task does with its partition, after it has its blocks. The hash of the extents is built
//! when the first value is met and not before, whether or not `table` then spares its use: the
//! kernel sees the build.
template <class Aggregate, class Rows>
void scan_partition(const Rows &rows, const BAT &map, BAT &extents, const slot_table *table,
                    state_columns<typename Aggregate::partial> states, vask_row_range partition) {
    // Rows beyond the map have no group, and the first with a value would end the scan.
    partition.end = std::min(partition.end, end_position(map));
    partition.begin = first_value(rows, partition);
    if (partition.size() == 0)
        return;
    const oid_lookup lookup(extents);
    if (!lookup.built())
        return;
    const oid *gids = rows_of<const oid>(*map.tail);
    const BUN groups = extents.info->count;
    const auto scan_with = [&]<class Lookup>(const Lookup &slots) {
        group_scan<Aggregate, Lookup, Rows> scan(slots, rows, gids, groups, states);
        if constexpr (asks_kernel<Rows>)
            scan.run_from_value(partition);
        else
            scan.run(partition);
    };
    if (table != nullptr)
        scan_with(*table);
    else
        scan_with(lookup);
}

} // namespace vask
