#include "distinct/pair_count.h"

#include "distinct/pair_parts.h"
#include "distinct/pairs.h"
#include "rows/open_addressing.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>

namespace vask {

namespace {

//! The parts of a call's pairs. Equal pairs are in one part, and the pairs of a group in all: what
//! a part holds does not depend on how large the groups are, and all tasks count a large one.
class part_plan {
public:
    explicit part_plan(BUN rows)
        : parts_(std::bit_ceil(std::clamp<std::uint64_t>(rows / part_rows, 1, most_parts))) {}

    std::size_t parts() const noexcept { return parts_; }

    //! By the top bits of the hash; the sets go by the low ones.
    VASK_ALWAYS_INLINE std::size_t part_of(std::uint64_t hash) const noexcept {
        return static_cast<std::size_t>((hash >> 32) * parts_ >> 32);
    }

private:
    // The set of so many pairs stays in the second-level cache. Between a quarter of it and four
    // times as many there is no difference.
    static constexpr std::uint64_t part_rows = 8192;
    // Each task keeps a line of up to 192 bytes of each part in the cache.
    static constexpr std::uint64_t most_parts = std::uint64_t{1} << 14;

    std::size_t parts_;
};

//! Deals out the pairs of a range's rows. False when the rows' groups cannot be found.
template <class Source, class Pair>
bool deal_rows(const grouped_values &inputs, const slot_table *table, vask_row_range range,
               const Source &source, part_plan plan, pair_parts<Pair> &dealt) {
    const bool found =
        for_each_slot_block(inputs, table, range, [=, &dealt](BUN row, BUN n, const BUN *slots) {
            for (BUN i = 0; i < n; ++i) {
                if (slots[i] == row_slots::no_slot)
                    continue;
                const Pair pair = source.pair_of(row + i, slots[i]);
                dealt.add(plan.part_of(pair.hash()), pair);
            }
        });
    dealt.complete();
    return found;
}

//! Counts the different pairs of the parts begin .. end - 1 by slot.
template <class Kind>
void count_parts(const Kind &kind, const gdk_vector<pair_parts<typename Kind::pair>> &dealt,
                 std::size_t begin, std::size_t end, std::uint32_t *counts) {
    // A set with many more buckets than pairs seldom looks at two. As the parts' pairs are many or
    // few alike, the last part tells how many buckets that is; repeated pairs take none.
    constexpr std::uint32_t buckets_per_pair = 4;
    constexpr std::uint32_t most_foreseen = std::uint32_t{1} << 20;
    open_addressing_table<typename Kind::keys> set;
    for (std::size_t part = begin; part < end; ++part) {
        const std::uint32_t foreseen = std::min(set.size(), most_foreseen);
        set.clear();
        set.grow_to(buckets_per_pair * foreseen);
        for (const pair_parts<typename Kind::pair> &pairs : dealt)
            pairs.for_each(part, [&](const typename Kind::pair &pair) {
                counts[pair.slot] += set.insert(kind.key_of(pair)).is_new;
            });
    }
}

//! Counts all parts, in tasks with counters of their own, and adds up.
template <class Kind>
void count_dealt(const Kind &kind, const gdk_vector<pair_parts<typename Kind::pair>> &dealt,
                 part_plan plan, std::uint64_t ntasks, BUN groups, wrd *counts) {
    gdk_vector<gdk_block<std::uint32_t>> found(ntasks);
    task_set tasks;
    for (std::uint64_t i = 0; i < ntasks; ++i)
        tasks.spawn([=, &dealt, &found] {
            found[i].reset(gdk_allocate_zeroed<std::uint32_t>(groups));
            count_parts(kind, dealt, plan.parts() * i / ntasks, plan.parts() * (i + 1) / ntasks,
                        found[i].get());
        });
    tasks.wait();
    run_row_loop(groups, [=, &found](vask_row_range r) {
        for (const gdk_block<std::uint32_t> &part : found)
            for (BUN j = r.begin; j < r.end; ++j)
                counts[j] += part[j];
    });
}

} // namespace

template <class T>
bool count_by_pairs(const grouped_values &inputs, const slot_table *table, std::uint64_t nranges,
                    wrd *counts) {
    using source = pair_source<T>;
    using kind = typename source::kind;
    // Rows that make a task worth its start.
    constexpr std::uint64_t task_rows = 8192;
    const BAT &b = *inputs.b;
    const BUN rows = b.info->count;
    const source values(*b.tail);
    const partition_plan ranges(b, nranges);
    const part_plan plan(rows);
    gdk_vector<pair_parts<typename kind::pair>> dealt(nranges);
    bte ok = 1;
    task_set tasks;
    for (std::uint64_t i = 0; i < nranges; ++i) {
        const vask_row_range range = ranges.partition(i);
        dealt[i] = pair_parts<typename kind::pair>(plan.parts(), range.size());
        tasks.spawn([=, &inputs, &ok, &own = dealt[i]] {
            // Tasks may clear it at the same time: all of them store the same 0.
            if (!deal_rows(inputs, table, range, values, plan, own))
                std::atomic_ref(ok).store(0, std::memory_order_relaxed);
        });
    }
    tasks.wait();
    if (ok != 0)
        count_dealt<kind>(values, dealt, plan,
                          std::clamp<std::uint64_t>(rows / task_rows, 1, nranges),
                          inputs.groups->info->count, counts);
    return ok != 0;
}

template bool count_by_pairs<bte>(const grouped_values &, const slot_table *, std::uint64_t, wrd *);
template bool count_by_pairs<sht>(const grouped_values &, const slot_table *, std::uint64_t, wrd *);
template bool count_by_pairs<std::int32_t>(const grouped_values &, const slot_table *,
                                           std::uint64_t, wrd *);
template bool count_by_pairs<lng>(const grouped_values &, const slot_table *, std::uint64_t, wrd *);
template bool count_by_pairs<flt>(const grouped_values &, const slot_table *, std::uint64_t, wrd *);
template bool count_by_pairs<dbl>(const grouped_values &, const slot_table *, std::uint64_t, wrd *);
template bool count_by_pairs<str>(const grouped_values &, const slot_table *, std::uint64_t, wrd *);

} // namespace vask
