#include "refkernel/algebra/row_groups.h"
#include "refkernel/algebra/work_array.h"

#include <algorithm>
#include <array>
#include <vector>

namespace refkernel::algebra {
namespace {

// Consecutive rows count in different lanes of their value, so that a value that fills a stretch
// of rows does not wait for its own last increment: a column of two values takes 1.0 instead of
// 2.2 ns a row.
constexpr unsigned lanes_of_small_tables = 4;
// 32 KiB of entries, the first-level cache, for a table of which every entry is used.
constexpr std::uint32_t small_table_bound = 1024;
// From here on a table does not stay in the second-level cache, and its entries are fetched ahead
// of their use.
constexpr std::uint32_t prefetch_bound = 1U << 16;
constexpr unsigned prefetch_distance = 16;

// The id of a value's group in the lower half, the rows met in the upper half; 0: not met yet. One
// word, so that a row costs one load and one store beside the id it writes.
using entry = std::uint64_t;
constexpr entry one_row = entry{1} << 32;

oid id_of(entry e) {
    return static_cast<oid>(e);
}
wrd rows_of(entry e) {
    return static_cast<wrd>(e >> 32);
}

template <unsigned Lanes>
class index_table {
public:
    index_table(const grouping_task &task, std::uint32_t bound)
        : task_(task), entries_(work_array<entry>::zeroed(std::size_t{bound} * Lanes)) {}

    template <bool Prefetch>
    void add(BUN row, unsigned rows, const std::uint32_t *indices) {
        entry *const entries = entries_.data();
        oid *const map = task_.map + row;
#pragma GCC unroll 4
        for (unsigned i = 0; i < rows; ++i) {
            if constexpr (Prefetch)
                __builtin_prefetch(&entries[indices[i + prefetch_distance]], 1);
            entry *const lanes = entries + std::size_t{indices[i]} * Lanes;
            entry e = lanes[i % Lanes];
            if (e == 0) [[unlikely]]
                e = open(lanes, indices[i], row + i);
            lanes[i % Lanes] = e + one_row;
            map[i] = id_of(e);
        }
    }

    void write_extents() const {
        const auto groups = static_cast<BUN>(first_rows_.size());
        const extents_rows out = task_.make_extents(groups);
        if (out.ids == nullptr)
            return;
        for (BUN group = 0; group < groups; ++group) {
            out.ids[group] = task_.ids[first_rows_[group]];
            out.counts[group] = 0;
        }
        for (const used_index &used : used_)
            for (unsigned lane = 0; lane < Lanes; ++lane)
                out.counts[used.group] += rows_of(entries_[std::size_t{used.index} * Lanes + lane]);
    }

private:
    struct used_index {
        std::uint32_t index;
        std::uint32_t group;
    };

    // The id for an entry that is met for the first time: that of another lane of its value, of
    // the group that the resolver knows, or of the row.
    [[gnu::noinline]] oid open(const entry *lanes, std::uint32_t index, BUN row) {
        for (unsigned lane = 0; lane < Lanes; ++lane)
            if (lanes[lane] != 0)
                return id_of(lanes[lane]);
        const auto next = static_cast<std::uint32_t>(first_rows_.size());
        const std::uint32_t group = task_.resolve ? task_.resolve(row, next) : next;
        used_.push_back({index, group});
        if (group == next)
            first_rows_.push_back(row);
        return task_.ids[first_rows_[group]];
    }

    const grouping_task &task_;
    work_array<entry> entries_;
    std::vector<used_index> used_;
    std::vector<BUN> first_rows_;
};

template <unsigned Lanes, bool Prefetch>
void group(const grouping_task &task, std::uint32_t bound, const index_loader &load) {
    index_table<Lanes> table(task, bound);
    // What lies beyond a block is only ever prefetched.
    std::array<std::uint32_t, block_rows + prefetch_distance> indices{};
    for (BUN row = 0; row < task.rows; row += block_rows) {
        const unsigned rows = std::min<BUN>(block_rows, task.rows - row);
        load(row, rows, indices.data());
        table.template add<Prefetch>(row, rows, indices.data());
    }
    table.write_extents();
}

} // namespace

void group_by_index(const grouping_task &task, std::uint32_t bound, const index_loader &load) {
    if (bound <= small_table_bound)
        group<lanes_of_small_tables, false>(task, bound, load);
    else if (bound < prefetch_bound)
        group<1, false>(task, bound, load);
    else
        group<1, true>(task, bound, load);
}

} // namespace refkernel::algebra
