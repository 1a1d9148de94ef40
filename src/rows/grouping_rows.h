// Giving every row the id of its group: what the ways of doing it share.
//
// A group is named by the head of its first row, and groups come in the order of their first rows.
// There are three ways to find the group of a row's key:
//
//   group_by_index     keys that lie close together index an array
//   group_by_table     a table of keys for each range of rows, merged range by range
//   group_by_buckets   rows are dealt out by the hash of their keys to buckets that fit the caches
//
// Each takes keys a block of rows at a time from a loader, so that none is compiled for a type of
// column, and gives the same map and the same extents, whatever the number of ranges.
#pragma once

#include "kernel/column.h"
#include "rows/gdk_vector.h"
#include "rows/row_blocks.h"

#include <cstddef>
#include <cstdint>
#include <functional>

namespace vask {

//! The rows to group, whose positions ascend without gaps.
struct grouping_rows : ranged_rows {
    oid_reader heads;
    //! The map's cells, by position. While rows are grouped they hold numbers of all kinds.
    oid *cells;
};

//! Writes the keys of the rows row .. row + n - 1, n at most block_rows. Equal keys mean equal
//! values. False when a row has no key. Called from tasks.
//!
//! `notes` has a word per row, in which a loader can leave what it would have to find again: rows
//! that are dealt out are loaded twice, first with `again` false, then with it true and the notes
//! as they were left.
template <class Key>
using key_loader = std::function<bool(BUN row, BUN n, std::uint32_t *notes, Key *keys, bool again)>;

//! The same for keys below a known bound.
using index_loader = std::function<bool(BUN row, BUN n, std::uint32_t *indices)>;

//! Where two keys can stand for one value, or the groups of ranges have to be brought together: the
//! number of the group of a row's value, `next` for a new one. Asked for the first row of each key
//! of each range, in the order of ranges and rows, on the calling thread. Empty: every key of a
//! single range is a group of its own.
using group_resolver = std::function<std::uint32_t(BUN row, std::uint32_t next)>;

struct new_group {
    oid id;
    BUN count;
};

//! Where the rows of the extents go. Null: they are not written; counts alone can be left out.
struct extents_rows {
    oid *ids = nullptr;
    wrd *counts = nullptr;
};

//! What becomes of the groups.
struct group_sink {
    //! Takes new groups, in no particular order; from tasks, that is several times at once. False
    //! when that fails. Can be empty.
    std::function<bool(std::size_t task, const new_group *groups, std::size_t n)> take;
    //! Called before, with a task's number, below that of the ranges, and how many rows its groups
    //! have in all. False when that fails. Can be empty: tasks can then have any numbers.
    std::function<bool(std::size_t task, BUN rows)> begin;
    //! Makes room for so many groups, once, on the calling thread, when all have been taken. False
    //! when there is none.
    std::function<bool(BUN groups, extents_rows &rows)> make_room;
};

enum class grouping_outcome : std::uint8_t {
    done,
    too_many_keys, // for this way; the map's cells hold rubbish, and no group has been taken
    row_without_key,
    failed // the sink
};

} // namespace vask
