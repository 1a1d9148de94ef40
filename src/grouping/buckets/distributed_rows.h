// The rows of a column gathered by old group.
#pragma once

#include "grouping/buckets/refined_extents.h"
#include "grouping/derive/derive_rows.h"
#include "rows/gdk_vector.h"
#include "rows/old_groups.h"
#include "rows/range_tasks.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>

namespace vask {

//! A row among those of its old group. The key comes along: it is read in row order, where values
//! lie side by side, and not group by group. Both in one place, so that distributing has one write
//! stream per group and not two: a quarter less time with 10,000 groups.
template <class Key>
struct distributed_row {
    BUN position;                                     // in the end the id of the row's new group
    std::array<BUN, sizeof(Key) / sizeof(BUN)> words; // in parts, for rows without padding

    VASK_ALWAYS_INLINE Key key() const noexcept { return std::bit_cast<Key>(words); }
    VASK_ALWAYS_INLINE void set_key(Key key) noexcept {
        words = std::bit_cast<decltype(words)>(key);
    }
};

//! The rows of one old group, in ascending order of position.
template <class Key>
struct vask_group_rows {
    distributed_row<Key> *begin;
    distributed_row<Key> *end;
};

//! Distributes the rows of a column over its old groups, and takes what became of the rows back to
//! the new map. A counting sort: each range counts its rows by group, then writes them to where the
//! counts of all groups and ranges put them. In between the cells of the new map keep each row's
//! group, so that a group is looked up once per row; and a refined row's cell is filled from the
//! row's place among the sorted ones by walking the rows in order once more. Beside one growing
//! array per group and range, joined in the end, this takes half the memory, and it never jumps
//! from row to row.
class row_distribution {
public:
    //! `grp` is the new map, `ranges` are those of all of b's rows, and there are some. Throws like
    //! gdk_vector.
    row_distribution(const BAT &b, const BAT &grp, const old_groups &groups,
                     const gdk_vector<vask_row_range> &ranges);

    //! Finds the old group of every row and with it the row's place. False when a row has no place
    //! in the map, or when its group is not in the histogram.
    bool find_groups(BAT &map, bool synced);

    //! Writes every row with its key to its place, once find_groups has succeeded. Rows of one
    //! group come in ascending order of position.
    template <class Keys>
    void write_rows(const Keys &keys, distributed_row<typename Keys::key_type> *to) {
        run_ranges(ranges_, [this, keys, to](std::size_t i, vask_row_range range) {
            BUN *next = next_places(i);
            const oid *cells = cells_;
            for (BUN row = range.low; row <= range.high; ++row) {
                if (range.high - row >= fetched_ahead)
                    __builtin_prefetch(to + next[cells[row + fetched_ahead]], 1);
                auto &place = to[next[cells[row]]++];
                place.position = row;
                place.set_key(keys.key(row));
            }
        });
    }

    //! Gives each row's cell of the new map the id that the row came to have at its place, and
    //! copies the head. Under ids that follow the rows, the rows of `ext` are put in order: then
    //! `begun` says how many groups begin in each range, and a group's first row has its count for
    //! a key. Once, after write_rows; the places mean nothing any more then.
    template <class Key>
    void write_back(const distributed_row<Key> *rows, const BAT &ext,
                    const gdk_vector<BUN> &begun) {
        run_ranges(ranges_, [this, rows, &ext, &begun](std::size_t i, vask_row_range range) {
            // A range's rows of a group begin where those of the range before end.
            BUN *next = i == 0 ? places_.data() : next_places(i - 1);
            oid *cells = cells_;
            ordered_extents extents = extents_of(ext, begun, i);
            for (BUN row = range.low; row <= range.high; ++row) {
                if (range.high - row >= fetched_ahead)
                    __builtin_prefetch(rows + next[cells[row + fetched_ahead]]);
                const distributed_row<Key> &written = rows[next[cells[row]]++];
                cells[row] = written.position;
                extents.meet(row, written.position, static_cast<BUN>(written.key()));
            }
            copy_heads(*b_, *grp_, range);
        });
    }

    std::size_t ranges() const noexcept { return ranges_.size(); }
    BUN groups() const noexcept { return groups_.count(); }
    //! The places of a group's rows, once they are written.
    BUN begin_of(BUN group) const noexcept { return places_[group]; }
    BUN end_of(BUN group) const noexcept { return places_[group + 1]; }

    //! Adds the groups of an old one, in ascending order of id, to those that begin in each range.
    //! Only under ids that follow the rows.
    template <class Group>
    void count_begun(const Group *first, const Group *last, gdk_vector<BUN> &begun) const {
        const oid seqbase = b_->head->seqbase;
        const BUN range_rows = ranges_[0].size();
        while (first != last) {
            const BUN range =
                std::min((first->id - seqbase) / range_rows, static_cast<BUN>(ranges_.size() - 1));
            const Group *end = last;
            if (range + 1 < ranges_.size())
                end = std::partition_point(first, last, [=](const Group &group) {
                    return group.id - seqbase < (range + 1) * range_rows;
                });
            begun[range] += static_cast<BUN>(end - first);
            first = end;
        }
    }

private:
    // With many groups every row's place is out of the near caches. Its line is asked for so many
    // rows before: the place may be some rows further on by then, but hardly in another line.
    static constexpr BUN fetched_ahead = 16;

    // Per range a number for each group: first the rows of the group in the range, then the place
    // of the range's next row of the group, in the end the place behind the last one. Those of the
    // last range stand first, and in front of them a 0: by then they are the groups' ends, and so
    // the numbers one before are where the groups begin.
    BUN *next_places(std::size_t range) noexcept {
        return places_.data() + 1 + (range + 1) % ranges_.size() * groups();
    }

    void turn_counts_into_places() noexcept;
    ordered_extents extents_of(const BAT &ext, const gdk_vector<BUN> &begun,
                               std::size_t range) const noexcept;

    const BAT *b_;
    const BAT *grp_;
    const old_groups &groups_;
    oid *cells_;
    const gdk_vector<vask_row_range> &ranges_;
    gdk_vector<BUN> places_;
};

} // namespace vask
