#include "refkernel/algebra/key_hash.h"
#include "refkernel/algebra/row_groups.h"
#include "refkernel/algebra/work_array.h"

#include <algorithm>
#include <array>
#include <bit>
#include <vector>

namespace refkernel::algebra {
namespace {

constexpr std::size_t first_capacity = 4096;
// A table of this many groups still profits from the caches; with more, grouping in partitions
// wins although it starts from the first row again.
constexpr std::size_t cached_groups = std::size_t{1} << 18;
// Above this many slots the table is larger than the second-level cache and slots are fetched
// ahead of their use; below, that costs more than it hides.
constexpr std::size_t prefetch_capacity = std::size_t{1} << 15;
constexpr unsigned prefetch_distance = 16;

struct slot {
    std::uint64_t key;
    std::uint32_t number; // the group's number + 1; 0: free
    oid id;
};

//! Open addressing with linear probing, at most half full at the end of a block.
class hash_table {
public:
    explicit hash_table(const grouping_task &task) : task_(task) { resize(first_capacity); }

    std::size_t groups() const noexcept { return first_rows_.size(); }

    void add(BUN row, unsigned rows, const std::uint64_t *keys) {
        // Room for a block of new keys, so that the row loop need not look. Several keys can be of
        // one group: texts that stand in the heap more than once.
        if (2 * (used_slots_ + rows) > slots_.size())
            resize(std::bit_ceil(4 * (used_slots_ + rows)));
        counts_.resize(groups() + rows);
        if (slots_.size() > prefetch_capacity)
            add_block<true>(row, rows, keys);
        else
            add_block<false>(row, rows, keys);
    }

    void write_extents() const {
        const auto count = static_cast<BUN>(groups());
        const extents_rows out = task_.make_extents(count);
        if (out.ids == nullptr)
            return;
        for (BUN group = 0; group < count; ++group) {
            out.ids[group] = task_.ids[first_rows_[group]];
            out.counts[group] = counts_[group];
        }
    }

private:
    template <bool Prefetch>
    void add_block(BUN row, unsigned rows, const std::uint64_t *keys) {
        // What lies beyond the block is only ever prefetched.
        std::array<std::size_t, block_rows + prefetch_distance> places{};
        for (unsigned i = 0; i < rows; ++i)
            places[i] = place_of(keys[i]);
        slot *const slots = slots_.data();
        std::uint32_t *const counts = counts_.data();
        oid *const map = task_.map + row;
        const std::size_t mask = slots_.size() - 1;
        for (unsigned i = 0; i < rows; ++i) {
            if constexpr (Prefetch)
                __builtin_prefetch(&slots[places[i + prefetch_distance]]);
            const std::uint64_t key = keys[i];
            slot *s = &slots[places[i]];
            while (s->key != key || s->number == 0) {
                if (s->number == 0) {
                    open(*s, key, row + i);
                    break;
                }
                s = &slots[static_cast<std::size_t>(s - slots + 1) & mask];
            }
            ++counts[s->number - 1];
            map[i] = s->id;
        }
    }

    std::size_t place_of(std::uint64_t key) const noexcept { return key_hash(key) >> shift_; }

    [[gnu::noinline]] void open(slot &s, std::uint64_t key, BUN row) {
        const auto next = static_cast<std::uint32_t>(groups());
        const std::uint32_t group = task_.resolve ? task_.resolve(row, next) : next;
        if (group == next)
            first_rows_.push_back(row);
        s = {key, group + 1, task_.ids[first_rows_[group]]};
        ++used_slots_;
    }

    void resize(std::size_t capacity) {
        work_array<slot> old = work_array<slot>::zeroed(capacity);
        std::swap(old, slots_);
        shift_ = static_cast<unsigned>(64 - std::countr_zero(capacity));
        const std::size_t mask = capacity - 1;
        for (std::size_t i = 0; i < old.size(); ++i) {
            if (old[i].number != 0) {
                std::size_t place = place_of(old[i].key);
                while (slots_[place].number != 0)
                    place = (place + 1) & mask;
                slots_[place] = old[i];
            }
        }
    }

    const grouping_task &task_;
    work_array<slot> slots_;
    unsigned shift_ = 0;
    std::size_t used_slots_ = 0;
    std::vector<BUN> first_rows_;
    std::vector<std::uint32_t> counts_; // with room for the groups of the running block
};

} // namespace

void group_by_hash(const grouping_task &task, const key_loader &load) {
    {
        hash_table table(task);
        std::array<std::uint64_t, block_rows> keys;
        BUN row = 0;
        while (row < task.rows && (table.groups() <= cached_groups || task.resolve)) {
            const unsigned rows = std::min<BUN>(block_rows, task.rows - row);
            load(row, rows, keys.data());
            table.add(row, rows, keys.data());
            row += rows;
        }
        if (row == task.rows) {
            table.write_extents();
            return;
        }
    }
    group_by_partitions(task, load);
}

} // namespace refkernel::algebra
