#include "refkernel/algebra/key_hash.h"
#include "refkernel/algebra/row_groups.h"
#include "refkernel/algebra/work_array.h"

#include <algorithm>
#include <array>
#include <bit>
#include <vector>

namespace refkernel::algebra {
namespace {

// Rows of a partition, about: a table with a slot for each of them, half a megabyte, stays in the
// second-level cache.
constexpr BUN partition_rows = 1U << 14;
// More write streams than these slow the scattering down more than larger tables slow down the
// probing.
constexpr std::uint32_t max_partitions = 1U << 11;
// Slots that a partition's table starts with at most. A partition can hold many rows and few
// groups, above all the one with the column's commonest value.
constexpr std::size_t max_first_capacity = std::size_t{1} << 15;

// While the rows of all partitions are read in turn, each of these streams is fetched this many
// rows ahead: they are too many for the machine to see them.
constexpr BUN stream_prefetch = 24;

//! The rows of a column cut by the hash of their keys. Within a partition they keep their order.
struct partitioned_rows {
    unsigned bits;
    work_array<std::uint16_t> partition_of; // by row
    std::vector<BUN> begins;                // of each partition; one more for the end
    // Partition after partition, with room to be fetched ahead.
    work_array<std::uint64_t> keys;
    work_array<BUN> rows;
};

partitioned_rows partition(const grouping_task &task, const key_loader &load) {
    const auto partitions =
        std::clamp(std::bit_floor(task.rows / partition_rows), 2U, max_partitions);
    partitioned_rows out{
        static_cast<unsigned>(std::countr_zero(partitions)),
        work_array<std::uint16_t>::uninitialised(task.rows), std::vector<BUN>(partitions + 1),
        work_array<std::uint64_t>::uninitialised(std::size_t{task.rows} + stream_prefetch),
        work_array<BUN>::uninitialised(std::size_t{task.rows} + stream_prefetch)};
    const unsigned shift = 64 - out.bits;
    std::array<std::uint64_t, block_rows> keys;
    for (BUN row = 0; row < task.rows; row += block_rows) {
        const unsigned rows = std::min<BUN>(block_rows, task.rows - row);
        load(row, rows, keys.data());
        for (unsigned i = 0; i < rows; ++i) {
            const auto p = static_cast<std::uint16_t>(key_hash(keys[i]) >> shift);
            out.partition_of[row + i] = p;
            ++out.begins[p + 1U];
        }
    }
    for (std::uint32_t p = 0; p < partitions; ++p)
        out.begins[p + 1] += out.begins[p];
    std::vector<BUN> ends(out.begins);
    for (BUN row = 0; row < task.rows; row += block_rows) {
        const unsigned rows = std::min<BUN>(block_rows, task.rows - row);
        load(row, rows, keys.data());
        for (unsigned i = 0; i < rows; ++i) {
            const BUN place = ends[out.partition_of[row + i]]++;
            out.keys[place] = keys[i];
            out.rows[place] = row + i;
        }
    }
    return out;
}

struct slot {
    std::uint64_t key;
    BUN first_row;
    std::uint32_t number; // of the group within the partition, from 1; 0: free
};

//! Groups one partition after another in one reused table.
class partition_table {
public:
    explicit partition_table(unsigned hash_bits_used) : used_bits_(hash_bits_used) {}

    //! Replaces each row by the first row of its group, and the first keys, which have been read by
    //! then, by the numbers of rows of the groups. The result is the number of groups.
    BUN group(std::uint64_t *keys, BUN *rows, BUN count) {
        reset(std::min(std::bit_ceil(std::size_t{count} + count / 2 + 1), max_first_capacity));
        BUN groups = 0;
        for (BUN i = 0; i < count; ++i) {
            const std::uint64_t key = keys[i];
            slot *s = find(key);
            if (s->number == 0) {
                if (groups >= capacity_ / 4 * 3) [[unlikely]] {
                    grow();
                    s = find(key);
                }
                keys[groups++] = 0;
                *s = {key, rows[i], groups};
            }
            ++keys[s->number - 1];
            rows[i] = s->first_row;
        }
        return groups;
    }

private:
    // The slot that holds the key or is free for it.
    slot *find(std::uint64_t key) noexcept {
        std::size_t place = key_hash(key) << used_bits_ >> shift_;
        slot *const slots = slots_.data();
        while (slots[place].key != key && slots[place].number != 0)
            place = (place + 1) & (capacity_ - 1);
        // A free slot's key is 0 and can look like the key: the number tells.
        return &slots[place];
    }

    void reset(std::size_t capacity) {
        if (capacity > slots_.size())
            slots_ = work_array<slot>::zeroed(capacity);
        else
            std::fill_n(slots_.data(), capacity, slot{});
        set_capacity(capacity);
    }

    [[gnu::noinline]] void grow() {
        work_array<slot> old = work_array<slot>::zeroed(capacity_ * 4);
        std::swap(old, slots_);
        const std::size_t old_capacity = capacity_;
        set_capacity(capacity_ * 4);
        for (std::size_t i = 0; i < old_capacity; ++i)
            if (old[i].number != 0)
                *find(old[i].key) = old[i];
    }

    void set_capacity(std::size_t capacity) noexcept {
        capacity_ = capacity;
        shift_ = static_cast<unsigned>(64 - std::countr_zero(capacity));
    }

    unsigned used_bits_;
    work_array<slot> slots_;
    std::size_t capacity_ = 0;
    unsigned shift_ = 0;
};

//! Walks the rows in their own order and takes each row's result from its partition's stream.
void collect(const grouping_task &task, const partitioned_rows &parts, const extents_rows &out) {
    std::vector<BUN> cursors(parts.begins);
    std::vector<BUN> group_cursors(parts.begins);
    BUN groups = 0;
    for (BUN block = 0; block < task.rows; block += block_rows) {
        const BUN end = block + std::min<BUN>(block_rows, task.rows - block);
        for (BUN row = block; row < end; ++row) {
            const std::uint16_t p = parts.partition_of[row];
            const BUN place = cursors[p]++;
            __builtin_prefetch(&parts.rows[place + stream_prefetch]);
            const BUN first_row = parts.rows[place];
            task.map[row] = first_row;
            // A partition's groups stand in the order of their first rows.
            if (first_row == row && out.ids != nullptr) {
                const BUN group = group_cursors[p]++;
                __builtin_prefetch(&parts.keys[group + stream_prefetch]);
                out.ids[groups] = task.ids[row];
                out.counts[groups] = static_cast<wrd>(parts.keys[group]);
                ++groups;
            }
        }
        task.ids.name(task.map + block, end - block);
    }
}

} // namespace

void group_by_partitions(const grouping_task &task, const key_loader &load) {
    partitioned_rows parts = partition(task, load);
    partition_table table(parts.bits);
    BUN groups = 0;
    for (std::size_t p = 0; p + 1 < parts.begins.size(); ++p) {
        const BUN begin = parts.begins[p];
        groups += table.group(parts.keys.data() + begin, parts.rows.data() + begin,
                              parts.begins[p + 1] - begin);
    }
    collect(task, parts, task.make_extents(groups));
}

} // namespace refkernel::algebra
