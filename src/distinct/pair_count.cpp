#include "distinct/pair_count.h"

#include "kernel/element_types.h"
#include "kernel/shared_mark.h"
#include "rows/bucket_lists.h"
#include "rows/column_keys.h"
#include "rows/key_table.h"
#include "rows/range_tasks.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>

namespace vask {

namespace {

//! The values of a range's rows, each with the number of its group as a key.
template <class Kind>
using vask_value_list = bucket_lists<typename Kind::key_type>;

//! The different pairs of a bucket.
template <class Kind>
using vask_distinct_set = key_table<Kind>;

//! The buckets of a call's pairs. Equal pairs are in one bucket, and the pairs of a group in all:
//! what a bucket holds does not depend on how large the groups are, and all tasks count a large
//! one.
class bucket_plan {
public:
    explicit bucket_plan(BUN rows)
        : rows_(rows),
          bits_(static_cast<unsigned>(std::countr_zero(
              std::bit_ceil(std::clamp(rows / bucket_rows, BUN{1}, most_buckets))))) {}

    //! Leading bits of the hashes that are the same in a bucket.
    unsigned bits() const noexcept { return bits_; }
    std::size_t buckets() const noexcept { return std::size_t{1} << bits_; }

    //! Rows of a bucket, about.
    std::size_t bucket_size() const noexcept { return rows_ >> bits_; }

    VASK_ALWAYS_INLINE std::size_t bucket_of(std::uint64_t hash) const noexcept {
        return static_cast<std::size_t>(leading_bits(hash, bits_));
    }

private:
    // The set of so many pairs stays in the second-level cache. Between a quarter of it and four
    // times as many there is no difference.
    static constexpr BUN bucket_rows = 8192;
    // Each task keeps a line of up to 192 bytes of each bucket in the cache.
    static constexpr BUN most_buckets = 1 << 14;

    BUN rows_;
    unsigned bits_;
};

//! Values by their bits, beside the numbers of their groups.
template <number T>
struct number_pairs {
    number_keys<T> values;

    void load_block(BUN, BUN) noexcept {}
    VASK_ALWAYS_INLINE auto key(BUN row, std::size_t i, BUN number) const noexcept {
        return key_beside<value_bits<T>>(number, values.key(row, i));
    }
};

template <class Offset>
struct text_pairs {
    offset_keys<Offset> texts;
    text_hash hash;
    std::array<std::uint32_t, block_rows> hashes;

    text_pairs(const offset_keys<Offset> &column, text_hash of_texts) noexcept
        : texts(column), hash(of_texts) {}

    void load_block(BUN row, BUN n) { hash_texts(texts, hash, row, n, hashes.data()); }
    VASK_ALWAYS_INLINE wide_key key(BUN row, std::size_t i, BUN number) const noexcept {
        return wide_key::of(text_bits(hashes[i], texts.offset(row, i)), number);
    }
};

//! Deals out the pairs of a range's rows. False when the rows' groups cannot be found.
template <class Kind, class Pairs>
bool deal_rows(const grouped_rows &inputs, const slot_table *table, vask_row_range range,
               const Kind &kind, Pairs pairs, bucket_plan plan, vask_value_list<Kind> &dealt) {
    const bool found = for_each_numbered_block(
        inputs, table, range, [=, &dealt](BUN row, BUN n, const BUN *numbers) mutable {
            pairs.load_block(row, n);
            for (std::size_t i = 0; i < n; ++i) {
                if (numbers[i] == no_group)
                    continue;
                const typename Kind::key_type key = pairs.key(row, i, numbers[i]);
                dealt.add(plan.bucket_of(kind.hash(key)), key);
            }
        });
    dealt.complete();
    return found;
}

//! Adds the number of different values in a bucket to the counts of their groups.
template <class Kind>
void vask_count_list(const gdk_vector<vask_value_list<Kind>> &dealt, std::size_t bucket,
                     vask_distinct_set<Kind> &pairs, std::uint32_t *counts) {
    pairs.clear();
    for (const vask_value_list<Kind> &list : dealt)
        list.for_each(bucket, [&](const typename Kind::key_type &key) {
            const std::uint32_t known = pairs.size();
            counts[number_beside(key)] += pairs.find_or_add(key) == known;
        });
}

//! Counts all buckets, in tasks with counters of their own, and adds up.
template <class Kind>
void count_dealt(const Kind &kind, const gdk_vector<vask_value_list<Kind>> &dealt, bucket_plan plan,
                 std::uint64_t ntasks, BUN groups, wrd *counts) {
    gdk_vector<gdk_block<std::uint32_t>> found(ntasks);
    run_numbered(ntasks, [&](std::size_t i) {
        found[i].reset(gdk_allocate_zeroed<std::uint32_t>(groups));
        // With many more slots than pairs a look seldom meets another.
        vask_distinct_set<Kind> pairs(kind, plan.bits(), 2 * plan.bucket_size());
        for (std::size_t bucket = plan.buckets() * i / ntasks;
             bucket < plan.buckets() * (i + 1) / ntasks; ++bucket)
            vask_count_list<Kind>(dealt, bucket, pairs, found[i].get());
    });
    run_row_loop(groups, [=, &found](vask_row_range r) {
        for (const gdk_block<std::uint32_t> &part : found)
            for (BUN j = r.begin; j < r.end; ++j)
                counts[j] += part[j];
    });
}

template <class Kind, class Pairs>
bool count_pairs(const grouped_rows &inputs, const slot_table *table, std::uint64_t nranges,
                 const Kind &kind, const Pairs &pairs, wrd *counts) {
    // Rows that make a task worth its start.
    constexpr std::uint64_t task_rows = 8192;
    const BUN rows = inputs.b->info->count;
    const partition_plan ranges(*inputs.b, nranges);
    const bucket_plan plan(rows);
    gdk_vector<vask_value_list<Kind>> dealt(nranges);
    for (std::uint64_t i = 0; i < nranges; ++i)
        dealt[i] = vask_value_list<Kind>(plan.buckets(), ranges.partition(i).size());
    shared_mark failed;
    run_partitions(ranges, [&](std::uint64_t i, vask_row_range range) {
        if (!deal_rows(inputs, table, range, kind, pairs, plan, dealt[i]))
            failed.set();
    });
    if (failed.is_set())
        return false;
    count_dealt(kind, dealt, plan, std::clamp<std::uint64_t>(rows / task_rows, 1, nranges),
                inputs.extents->info->count, counts);
    return true;
}

} // namespace

bool count_by_pairs(const grouped_rows &inputs, const slot_table *table, std::uint64_t nranges,
                    wrd *counts) {
    const BATcol &tail = *inputs.b->tail;
    const auto count_texts = [&](const auto &texts) {
        const auto ranges = vask_row_ranges(*inputs.b, static_cast<std::uint32_t>(nranges));
        const auto span = span_of_offsets(texts, ranged_rows{ranges, run_as_tasks});
        return count_pairs(inputs, table, nranges, text_content_keys<wide_key>{text_reader(tail)},
                           text_pairs(texts, hash_of_span(texts, span)), counts);
    };
    return visit_keyed_class(storage_of(tail), false, [&]<class T>(std::type_identity<T>) {
        if constexpr (std::same_as<T, str>)
            return visit_offset_keys(tail, count_texts);
        else
            return count_pairs(inputs, table, nranges, bit_keys<numbered_key<value_bits<T>>>{},
                               number_pairs<T>{number_keys<T>(tail)}, counts);
    });
}

} // namespace vask
