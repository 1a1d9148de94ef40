// Refinement of few groups by few values: every pair of them has a counter.
#pragma once

#include "grouping/buckets/pair_codes.h"
#include "grouping/buckets/refined_extents.h"
#include "grouping/derive/derive_rows.h"
#include "kernel/column.h"
#include "kernel/frame.h"
#include "rows/gdk_vector.h"
#include "rows/old_groups.h"
#include "rows/range_tasks.h"
#include "rows/row_blocks.h"
#include "rows/row_counts.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <numeric>
#include <utility>
#include <vector>

namespace vask {

enum class counting_outcome { done, too_many_pairs, failed };

//! Refinement by counting: the rows are numbered by pair and counted by number, in each range by
//! itself; the ranges are merged, and the numbers, which wait in the new map's cells, turned into
//! ids. No row is moved: 1e7 rows of 100 groups and 100 values take 13 to 16 ms on two threads,
//! where distributing them over the groups takes 65.
template <class Codes>
class pair_counts {
public:
    //! At most so many pairs get counters, in each of so many ranges: clearing and merging them
    //! stays a part of what the rows cost.
    static std::size_t most_pairs(BUN rows, std::size_t ranges) noexcept {
        constexpr std::size_t rows_per_counter = 2;
        return rows / rows_per_counter / ranges;
    }

    //! `ranges` are those of all of b's rows, and there are some; `make_codes()` gives a range's
    //! copy of Codes. Throws like gdk_vector and std::vector.
    template <class MakeCodes>
    pair_counts(const BAT &b, const BAT &grp, const old_groups &groups,
                const gdk_vector<vask_row_range> &ranges, MakeCodes make_codes)
        : b_(b),
          grp_(grp),
          groups_(groups),
          ranges_(ranges),
          most_pairs_(most_pairs(b.info->count, ranges_.size())) {
        locals_.reserve(ranges_.size());
        for (std::size_t i = 0; i < ranges_.size(); ++i)
            locals_.push_back({make_codes()});
    }

    //! Writes cells and heads of the new map and appends the new groups to `ext`, those of an old
    //! group side by side, and puts them in order of id where ids follow the rows. Where there are
    //! too many pairs, only cells have been written.
    counting_outcome run(BAT &map, bool synced, BAT &ext) {
        const counting_outcome outcome = count(map, synced);
        if (outcome != counting_outcome::done)
            return outcome;
        merge();
        if (!append_refined(ext, in_order_of_old_groups()))
            return counting_outcome::failed;
        write(ext);
        return outcome;
    }

private:
    static constexpr BUN no_row = std::numeric_limits<BUN>::max();

    struct range_counts {
        Codes codes;
        row_counts counts{0};
        gdk_vector<BUN> firsts{};              // rows, by number
        gdk_vector<std::uint32_t> all_codes{}; // codes of all ranges, by the range's own
    };

    struct new_group {
        oid id;
        BUN count;
    };

    //! Ids and counts by number. Apart, so that the ids alone fill the caches while the map is
    //! written.
    struct pair_table {
        gdk_vector<oid> ids; // first rows until all ranges are merged
        gdk_vector<BUN> counts;

        pair_table() = default;
        explicit pair_table(std::size_t numbers) : ids(numbers), counts(numbers) {}
    };

    std::size_t number_of(std::size_t code, BUN group) const noexcept {
        return code * groups_.count() + group;
    }

    counting_outcome count(BAT &map, bool synced) {
        bte failed = 0;
        bte too_many = 0;
        run_ranges(ranges_, [&, this](std::size_t i, vask_row_range range) {
            const std::atomic_ref gives_up(too_many);
            const map_rows parents(b_, map, synced);
            range_counts &local = locals_[i];
            const bool complete = all_blocks(range, [&](BUN row, BUN n) {
                std::array<oid, block_rows> room{};
                std::array<BUN, block_rows> parent;
                const oid *ids = find_parents(parents, row, n, room.data());
                if (ids == nullptr || !groups_.number(ids, n, parent.data())) {
                    std::atomic_ref(failed).store(1, std::memory_order_relaxed);
                    return false;
                }
                if (!count_block(local, row, n, parent.data()))
                    gives_up.store(1, std::memory_order_relaxed);
                return gives_up.load(std::memory_order_relaxed) == 0;
            });
            static_cast<void>(complete);
        });
        if (failed != 0)
            return counting_outcome::failed;
        return too_many != 0 ? counting_outcome::too_many_pairs : counting_outcome::done;
    }

    //! False when there are too many pairs.
    bool count_block(range_counts &local, BUN row, BUN n, const BUN *parents) const {
        std::array<std::uint32_t, block_rows> codes;
        local.codes.number(row, n, codes.data());
        const std::size_t numbers = number_of(local.codes.count(), 0);
        if (numbers > most_pairs_)
            return false;
        if (numbers > local.firsts.size())
            widen(local, Codes::one_for_all ? numbers : std::min(2 * numbers, most_pairs_));
        oid *cells = map_cells(grp_, b_) + row;
        const BUN groups = groups_.count();
        for (std::size_t i = 0; i < n; ++i)
            cells[i] = codes[i] * groups + parents[i];
        BUN *firsts = local.firsts.data();
        local.counts.add(cells, n, [=](std::uint32_t number, std::size_t i) {
            if (firsts[number] == no_row)
                firsts[number] = row + static_cast<BUN>(i);
        });
        return true;
    }

    static void widen(range_counts &local, std::size_t numbers) {
        gdk_vector<BUN> firsts(numbers);
        std::fill(std::copy(local.firsts.begin(), local.firsts.end(), firsts.begin()), firsts.end(),
                  no_row);
        local.firsts = std::move(firsts);
        local.counts = row_counts(numbers, local.counts);
    }

    //! Brings the codes of the ranges together; gives how many there are.
    std::size_t number_codes() {
        std::uint32_t next = locals_.front().codes.count();
        if constexpr (!Codes::one_for_all) {
            next = 0;
            typename Codes::resolver resolver(locals_.front().codes);
            for (range_counts &local : locals_) {
                local.all_codes = gdk_vector<std::uint32_t>(local.codes.count());
                for (std::uint32_t code = 0; code < local.codes.count(); ++code)
                    if (is_used(local, code)) {
                        local.all_codes[code] = resolver.find(local.codes, code, next);
                        next += local.all_codes[code] == next;
                    }
            }
        }
        return next;
    }

    bool is_used(const range_counts &local, std::uint32_t code) const noexcept {
        const BUN *firsts = local.firsts.data() + number_of(code, 0);
        return std::any_of(firsts, firsts + groups_.count(), [](BUN row) { return row != no_row; });
    }

    static std::size_t all_code(const range_counts &local, std::size_t code) noexcept {
        if constexpr (Codes::one_for_all)
            return code;
        else
            return local.all_codes[code];
    }

    //! Merges the ranges' counts, in ascending order, so that the first range that has a pair
    //! begins its group. There its rows can have several codes, in any order, so that the least of
    //! their first rows decides the id.
    void merge() {
        codes_ = number_codes();
        pairs_ = pair_table(number_of(codes_, 0));
        begun_ = gdk_vector<BUN>(ranges_.size() * groups_.count());
        const oid_reader heads(*b_.head, b_);
        run_row_loop(groups_.count(), [&, this](row_range groups) {
            for (std::size_t i = 0; i < ranges_.size(); ++i) {
                const range_counts &local = locals_[i];
                BUN *begun = begun_.data() + i * groups_.count();
                for (std::size_t code = 0; code < local.codes.count(); ++code) {
                    const std::size_t into = number_of(all_code(local, code), 0);
                    for (BUN group = groups.begin; group < groups.end; ++group) {
                        const std::size_t number = number_of(code, group);
                        const auto count = static_cast<BUN>(local.counts[number]);
                        if (count == 0)
                            continue;
                        BUN &total = pairs_.counts[into + group];
                        BUN &first = pairs_.ids[into + group];
                        if (total == 0) {
                            first = local.firsts[number];
                            ++begun[group];
                        } else {
                            first = std::min(first, local.firsts[number]);
                        }
                        total += count;
                    }
                }
            }
            for (std::size_t code = 0; code < codes_; ++code)
                for (BUN group = groups.begin; group < groups.end; ++group)
                    if (const std::size_t number = number_of(code, group);
                        pairs_.counts[number] != 0)
                        pairs_.ids[number] = heads[pairs_.ids[number]];
        });
    }

    gdk_vector<new_group> in_order_of_old_groups() const {
        gdk_vector<BUN> next(groups_.count());
        BUN place = 0;
        for (BUN group = 0; group < groups_.count(); ++group) {
            next[group] = place;
            for (std::size_t i = 0; i < ranges_.size(); ++i)
                place += begun_[i * groups_.count() + group];
        }
        gdk_vector<new_group> ordered(place);
        run_row_loop(groups_.count(), [&, this](row_range groups) {
            for (std::size_t code = 0; code < codes_; ++code)
                for (BUN group = groups.begin; group < groups.end; ++group)
                    if (const std::size_t number = number_of(code, group);
                        pairs_.counts[number] != 0)
                        ordered[next[group]++] = {pairs_.ids[number], pairs_.counts[number]};
        });
        return ordered;
    }

    void write(const BAT &ext) const {
        const bool ordered = ids_follow_rows(b_);
        run_ranges(ranges_, [this, ordered, &ext](std::size_t i, vask_row_range range) {
            // A range's own numbers are turned into those of all ranges on the way.
            pair_table own;
            if constexpr (!Codes::one_for_all)
                own = own_pairs(locals_[i]);
            const pair_table &pairs = Codes::one_for_all ? pairs_ : own;
            const BUN *begun = begun_.data();
            const std::size_t groups = groups_.count();
            ordered_extents extents;
            if (ordered)
                extents = {ext, b_, range.low, std::accumulate(begun, begun + i * groups, BUN{0}),
                           std::accumulate(begun + i * groups, begun + (i + 1) * groups, BUN{0})};
            oid *cells = map_cells(grp_, b_);
            all_blocks(range, [&](BUN row, BUN n) {
                write_block(pairs, cells + row, row, n, extents);
                return true;
            });
            copy_heads(b_, grp_, range);
        });
    }

    pair_table own_pairs(const range_counts &local) const {
        pair_table own(number_of(local.codes.count(), 0));
        for (std::size_t code = 0; code < local.codes.count(); ++code) {
            const std::size_t from = number_of(all_code(local, code), 0);
            std::copy_n(&pairs_.ids[from], groups_.count(), &own.ids[number_of(code, 0)]);
            std::copy_n(&pairs_.counts[from], groups_.count(), &own.counts[number_of(code, 0)]);
        }
        return own;
    }

    static void write_block(const pair_table &pairs, oid *cells, BUN row, BUN n,
                            ordered_extents &extents) {
        const oid *ids = pairs.ids.data();
        if (extents.left() != 0) {
            const BUN *counts = pairs.counts.data();
            for (BUN i = 0; i < n; ++i)
                extents.meet(row + i, ids[cells[i]], counts[cells[i]]);
        }
        for (std::size_t i = 0; i < n; ++i)
            cells[i] = ids[cells[i]];
    }

    const BAT &b_;
    const BAT &grp_;
    const old_groups &groups_;
    const gdk_vector<vask_row_range> &ranges_;
    std::size_t most_pairs_;
    std::vector<range_counts> locals_;
    std::size_t codes_ = 0;
    pair_table pairs_;      // of all ranges, by number
    gdk_vector<BUN> begun_; // new groups of each old one that begin in each range
};

} // namespace vask
