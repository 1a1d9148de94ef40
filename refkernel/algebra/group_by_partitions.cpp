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
// A table has room for this many times the rows of a usual partition, so that probing for a new key
// seldom meets another; the row loop waits for the branch that tells.
constexpr std::size_t slots_per_row = 2;

// While the rows of all partitions are read in turn, each of these streams is fetched this many
// rows ahead: they are too many for the machine to see them.
constexpr std::size_t stream_prefetch = 16;

/*
 * The rows of a column cut by the hash of their keys. Within a partition they keep their order.
 *
 * A row is three words at first: its key and its row number. An array for each would double the
 * streams that are written in turn and cost three times as much at 512 partitions. Grouped, a row
 * is two words: the first row of its group and, if it is that row, the rows of the group. They
 * overwrite the three words from the partition's begin on, behind the rows yet to be read.
 */
struct partitioned_rows {
    static constexpr std::size_t words = 3;
    static constexpr std::size_t grouped_words = 2;

    unsigned bits;
    work_array<std::uint16_t> partition_of; // by row
    std::vector<std::size_t> begins;        // of each partition; one more for the end
    work_array<std::uint32_t> rows;
};

partitioned_rows partition(const grouping_task &task, const key_loader &load) {
    const auto partitions =
        std::clamp(std::bit_floor(task.rows / partition_rows), 2U, max_partitions);
    partitioned_rows out{static_cast<unsigned>(std::countr_zero(partitions)),
                         work_array<std::uint16_t>::uninitialised(task.rows),
                         std::vector<std::size_t>(partitions + 1),
                         work_array<std::uint32_t>::uninitialised(partitioned_rows::words *
                                                                  (task.rows + stream_prefetch))};
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
    std::vector<std::size_t> ends(out.begins);
    for (BUN row = 0; row < task.rows; row += block_rows) {
        const unsigned rows = std::min<BUN>(block_rows, task.rows - row);
        load(row, rows, keys.data());
        for (unsigned i = 0; i < rows; ++i) {
            std::uint32_t *const place =
                out.rows.data() + partitioned_rows::words * ends[out.partition_of[row + i]]++;
            place[0] = static_cast<std::uint32_t>(keys[i]);
            place[1] = static_cast<std::uint32_t>(keys[i] >> 32);
            place[2] = row + i;
        }
    }
    return out;
}

struct slot {
    std::uint64_t key;
    BUN first_row;
    std::uint32_t first; // where that row stands among all partitions' rows, from 1
};

/*
 * Groups one partition after another in one table. Slots are not cleared in between: one whose
 * first row stands before the partition is free. The table grows only for a column of so many rows
 * that the partitions are larger than planned.
 */
class partition_table {
public:
    partition_table(const partitioned_rows &parts, std::size_t rows)
        : used_bits_(parts.bits),
          slots_(
              work_array<slot>::zeroed(std::bit_ceil(slots_per_row * (rows >> parts.bits) + 1))) {
        set_shift();
    }

    //! Turns the rows of a partition into grouped rows. The result is the number of groups.
    BUN group(std::uint32_t *rows, std::size_t begin, std::size_t count) {
        begin_ = static_cast<std::uint32_t>(begin);
        BUN groups = 0;
        for (std::uint32_t i = 0; i < count; ++i) {
            const std::uint32_t *const row = rows + partitioned_rows::words * i;
            const std::uint64_t key = std::uint64_t{row[1]} << 32 | row[0];
            std::uint32_t *const grouped = rows + partitioned_rows::grouped_words * i;
            slot *s = find(key);
            if (is_free(*s)) {
                if (groups >= slots_.size() / 4 * 3) [[unlikely]] {
                    grow();
                    s = find(key);
                }
                ++groups;
                *s = {key, row[2], begin_ + i + 1};
                grouped[1] = 0;
            }
            grouped[0] = s->first_row;
            ++rows[partitioned_rows::grouped_words * (s->first - 1 - begin_) + 1];
        }
        return groups;
    }

private:
    bool is_free(const slot &s) const noexcept { return s.first <= begin_; }

    // The slot that holds the key or is free for it, in which any key can stand.
    slot *find(std::uint64_t key) noexcept {
        std::size_t place = key_hash(key) << used_bits_ >> shift_;
        slot *const slots = slots_.data();
        while (slots[place].key != key && !is_free(slots[place]))
            place = (place + 1) & (slots_.size() - 1);
        return &slots[place];
    }

    [[gnu::noinline]] void grow() {
        work_array<slot> old = work_array<slot>::zeroed(slots_.size() * 4);
        std::swap(old, slots_);
        set_shift();
        for (std::size_t i = 0; i < old.size(); ++i)
            if (!is_free(old[i]))
                *find(old[i].key) = old[i];
    }

    void set_shift() noexcept {
        shift_ = static_cast<unsigned>(64 - std::countr_zero(slots_.size()));
    }

    unsigned used_bits_;
    work_array<slot> slots_;
    unsigned shift_ = 0;
    std::uint32_t begin_ = 0;
};

//! Walks the rows in their own order and takes each row's result from its partition's stream.
void collect(const grouping_task &task, const partitioned_rows &parts, const extents_rows &out) {
    std::vector<const std::uint32_t *> streams;
    for (const std::size_t begin : parts.begins)
        streams.push_back(parts.rows.data() + partitioned_rows::words * begin);
    BUN groups = 0;
    for (BUN block = 0; block < task.rows; block += block_rows) {
        const BUN end = block + std::min<BUN>(block_rows, task.rows - block);
        for (BUN row = block; row < end; ++row) {
            const std::uint32_t *&stream = streams[parts.partition_of[row]];
            __builtin_prefetch(stream + partitioned_rows::grouped_words * stream_prefetch);
            task.map[row] = stream[0];
            if (stream[0] == row && out.ids != nullptr) {
                out.ids[groups] = task.ids[row];
                out.counts[groups] = stream[1];
                ++groups;
            }
            stream += partitioned_rows::grouped_words;
        }
        task.ids.name(task.map + block, end - block);
    }
}

} // namespace

void group_by_partitions(const grouping_task &task, const key_loader &load) {
    partitioned_rows parts = partition(task, load);
    partition_table table(parts, task.rows);
    BUN groups = 0;
    for (std::size_t p = 0; p + 1 < parts.begins.size(); ++p) {
        const std::size_t begin = parts.begins[p];
        groups += table.group(parts.rows.data() + partitioned_rows::words * begin, begin,
                              parts.begins[p + 1] - begin);
    }
    collect(task, parts, task.make_extents(groups));
}

} // namespace refkernel::algebra
