// Serial grouping of rows by a key, apart from where the keys come from: a caller hands over the
// keys of a block of rows at a time, and each of the four ways below writes a group id per row
// and then one row per group, in order of first occurrence.
//
// The keys travel through a block that stays in the first-level cache. That costs about 0.3 ns a
// row against loops instantiated for every pair of key type and table, and leaves one loop per
// table.
#ifndef REFKERNEL_ALGEBRA_ROW_GROUPS_H
#define REFKERNEL_ALGEBRA_ROW_GROUPS_H

#include "refkernel/columns.h"
#include "vask/refkernel/contract.h"

#include <algorithm>
#include <cstdint>
#include <functional>

namespace refkernel::algebra {

//! Rows per block of keys: 8 KiB of 64-bit keys.
inline constexpr unsigned block_rows = 1024;

//! Writes the keys of the rows row .. row + rows - 1, rows at most block_rows, counted from the
//! first row of the column. Equal keys mean equal values.
using key_loader = std::function<void(BUN row, unsigned rows, std::uint64_t *keys)>;

//! The same with keys below a known bound, which can index a table.
using index_loader = std::function<void(BUN row, unsigned rows, std::uint32_t *indices)>;

//! For columns in which two keys can stand for one value: the number of the group that the row
//! belongs to, `next` for a new group. Asked once for each new key.
using group_resolver = std::function<std::uint32_t(BUN row, std::uint32_t next)>;

//! Where the rows of the histogram go; both null: nowhere.
struct extents_rows {
    oid *ids = nullptr;
    wrd *counts = nullptr;
};

//! Called once, with the number of groups.
using extents_maker = std::function<extents_rows(BUN groups)>;

//! Oids by row: those of a head name the groups, by the head value of a group's first row.
struct row_ids {
    const oid *stored; // null: void
    oid seqbase;

    oid operator[](BUN row) const noexcept {
        if (stored != nullptr)
            return stored[row];
        return seqbase == oid_nil ? oid_nil : seqbase + row;
    }

    //! Turns rows into their ids in place.
    void name(oid *rows, BUN count) const noexcept {
        if (stored != nullptr)
            for (BUN i = 0; i < count; ++i)
                rows[i] = stored[rows[i]];
        else if (seqbase == oid_nil)
            std::fill_n(rows, count, oid_nil);
        else
            for (BUN i = 0; i < count; ++i)
                rows[i] += seqbase;
    }
};

//! The oids of a stored or void column, counted from the BAT's first row.
inline row_ids ids_of(const BATcol &column, const BATinfo &info) noexcept {
    return {is_void(column) ? nullptr : elements<const oid>(column) + info.first, column.seqbase};
}

//! What every way of grouping works on. `map` gets one id per row.
struct grouping_task {
    BUN rows;
    row_ids ids;
    oid *map;
    extents_maker make_extents;
    group_resolver resolve; // empty: every new key is a new group
};

// Each of these throws std::bad_alloc, and passes on what the loaders and the maker throw; the
// map and the extents then hold rubbish.

//! Groups by a table indexed by the key: for keys below a bound that memory and caches allow.
void group_by_index(const grouping_task &task, std::uint32_t bound, const index_loader &load);

//! Groups by a hash table over any keys; turns to partitions by itself when the groups become
//! too many for the caches, unless the task has a resolver.
void group_by_hash(const grouping_task &task, const key_loader &load);

//! Groups in partitions of the hash, each small enough for the caches. Takes no resolver.
void group_by_partitions(const grouping_task &task, const key_loader &load);

//! Groups a column whose equal values lie next to each other. `same_as_previous` settles whether a
//! row with another key than the row before has the same value all the same; empty: never.
void group_by_runs(const grouping_task &task, const key_loader &load,
                   const std::function<bool(BUN row)> &same_as_previous);

} // namespace refkernel::algebra

#endif
