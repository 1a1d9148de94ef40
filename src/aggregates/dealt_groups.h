// Grouped aggregation of many groups, whose states the caches cannot hold: rows are dealt out to
// buckets of groups that lie side by side in the extents, and the buckets are aggregated one by
// one. A group's rows keep their order, and its partitions are merged in ascending order, so every
// sum is what the scan of the rows in place gives, to the bit.
#pragma once

#include "aggregates/group_scan.h"
#include "kernel/shared_mark.h"
#include "rows/gdk_vector.h"
#include "rows/huge_pages.h"
#include "rows/range_tasks.h"
#include "rows/scatter.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <optional>
#include <type_traits>

namespace vask {

//! Whether dealing the rows out costs less than missing the caches at each of them. `span`: how far
//! the greatest id lies above the least. A bucket has a slot for each id of its span: with 256 ids
//! per group dealing takes a quarter of the time, with 4096 ten times as long.
inline bool suits_dealing(BUN rows, BUN groups, std::uint32_t span) noexcept {
    constexpr BUN fewest_groups = 1 << 18;
    constexpr BUN most_groups_per_row = 2;
    constexpr std::uint32_t most_ids_per_group = 256;
    return groups >= fewest_groups && groups / most_groups_per_row <= rows &&
           span / groups <= most_ids_per_group;
}

template <class Aggregate, class Rows>
class dealt_groups {
public:
    //! The map's tail and the extents' head are stored, and there are groups.
    dealt_groups(const Rows &rows, const partition_plan &plan, const BAT &map, BAT &extents)
        : rows_(rows),
          plan_(plan),
          gids_(rows_of<const oid>(*map.tail)),
          map_end_(end_position(map)),
          extents_(extents),
          ids_(rows_of<const oid>(*extents.head)),
          groups_(extents.info->count),
          span_(ids_[groups_ - 1] - ids_[0]),
          shift_(bucket_shift(span_, groups_)),
          offsets_(plan.nparts, (span_ >> shift_) + 1) {}

    //! Hands each group's partial to `finish(j, total)`, from tasks; whether any call gave true.
    //! Nothing where the rows have to be scanned in place: where the ids do not ascend, or where a
    //! row has a group that the extents do not hold, behind which rows must not count. Some groups
    //! may have been finished by then. Throws like gdk_vector.
    template <class Finish>
    std::optional<bool> run(Finish finish) {
        if (!ids_ascend() || !deal())
            return std::nullopt;
        shared_mark any;
        const std::size_t n = tasks_per_partition * plan_.nparts;
        run_numbered(n, [&, this](std::size_t i) {
            bucket_states states;
            bool mine = false;
            const std::size_t end = offsets_.cut(i + 1, n);
            for (std::size_t bucket = offsets_.cut(i, n); bucket < end && !unknown_.is_set();
                 ++bucket)
                mine |= aggregate(bucket, states, finish);
            if (mine)
                any.set();
        });
        return unknown_.is_set() ? std::nullopt : std::optional(any.is_set());
    }

private:
    using partial = typename Aggregate::partial;
    using value_type = std::remove_cvref_t<decltype(std::declval<const Rows &>()[BUN{}])>;

    static constexpr std::size_t tasks_per_partition = 4;

    //! The ids of a bucket agree but for so many low bits. States and slots of about 4096 groups
    //! stay in the second-level cache; more places to write to at once than 4096 do not.
    static unsigned bucket_shift(std::uint32_t span, BUN groups) noexcept {
        constexpr BUN bucket_groups = 4096;
        constexpr BUN most_buckets = 4096;
        const auto bits = static_cast<unsigned>(
            std::bit_width(std::clamp(groups / bucket_groups, BUN{1}, most_buckets) - 1));
        const auto span_bits = static_cast<unsigned>(std::bit_width(span));
        return span_bits > bits ? span_bits - bits : 0;
    }

    bool ids_ascend() const {
        shared_mark broken;
        run_row_loop(groups_ - 1, [&, ids = ids_](vask_row_range r) {
            bool ascends = true;
            for (BUN j = r.begin; j < r.end; ++j)
                ascends &= ids[j] < ids[j + 1];
            if (!ascends)
                broken.set();
        });
        return !broken.is_set();
    }

    //! Calls `visit(p, id)` for the rows of a partition that have a value, with how far the id of
    //! the row's group lies above the least. False at a row whose group lies outside.
    template <class Visit>
    bool visit_rows(vask_row_range partition, Visit visit) const {
        bool known = true;
        for_each_block(rows_, partition, [&](const Rows &rows, vask_row_range block) {
            for (BUN p = block.begin; p < block.end && known; ++p) {
                if (rows.is_nil(p))
                    continue;
                const std::uint32_t id = gids_[p] - ids_[0];
                known = id <= span_;
                if (known)
                    visit(rows, p, id);
            }
        });
        return known;
    }

    vask_row_range partition(std::size_t part) const noexcept {
        const vask_row_range range = plan_.partition(part);
        // Rows beyond the map have no group.
        return {range.begin, std::min(range.end, map_end_)};
    }

    bool deal() {
        run_numbered(plan_.nparts, [this](std::size_t part) {
            BUN *counts = offsets_.of(part);
            vask_row_range range = partition(part);
            range.begin = first_value(rows_, range);
            if (range.size() == 0)
                return;
            // The kernel sees the build, whether or not the hash is used.
            const oid_lookup lookup(extents_);
            if (!lookup.built() ||
                !visit_rows(range, [=, shift = shift_](const Rows &, BUN, std::uint32_t id) {
                    ++counts[id >> shift];
                }))
                unknown_.set();
        });
        if (unknown_.is_set())
            return false;
        offsets_.turn_counts_into_offsets();
        const std::size_t n = offsets_.begin_of(offsets_.buckets());
        dealt_ids_ = large_block<std::uint32_t>(n);
        values_ = large_block<value_type>(n);
        run_numbered(plan_.nparts, [this](std::size_t part) {
            BUN *next = offsets_.of(part);
            static_cast<void>(
                visit_rows(partition(part),
                           [=, shift = shift_, ids = dealt_ids_.get(),
                            values = values_.get()](const Rows &rows, BUN p, std::uint32_t id) {
                               const BUN to = next[id >> shift]++;
                               ids[to] = id;
                               values[to] = rows[p];
                           }));
        });
        return true;
    }

    //! The states of a bucket's groups, kept by a task for all of its buckets.
    struct bucket_states {
        gdk_vector<std::uint32_t> slots; // by id: a group's number in the bucket, plus one
        gdk_vector<partial> of_partition;
        gdk_vector<partial> totals;

        template <class T>
        static void clear(gdk_vector<T> &array, std::size_t n) {
            if (array.size() < n)
                array = gdk_vector<T>(n);
            else
                std::fill_n(array.begin(), n, T{});
        }
    };

    template <class Finish>
    bool aggregate(std::size_t bucket, bucket_states &states, Finish &finish) {
        const auto base = static_cast<std::uint32_t>(bucket << shift_);
        const std::size_t ids =
            std::min<std::size_t>(std::size_t{1} << shift_, std::size_t{span_} - base + 1);
        const oid *first = std::lower_bound(ids_, ids_ + groups_, ids_[0] + base);
        const oid *end = bucket + 1 == offsets_.buckets()
                             ? ids_ + groups_
                             : std::lower_bound(first, ids_ + groups_,
                                                ids_[0] + base + static_cast<std::uint32_t>(ids));
        const auto n = static_cast<std::size_t>(end - first);
        bucket_states::clear(states.slots, ids);
        bucket_states::clear(states.totals, n);
        for (std::size_t j = 0; j < n; ++j)
            states.slots[first[j] - ids_[0] - base] = static_cast<std::uint32_t>(j) + 1;
        for (std::size_t part = 0; part < plan_.nparts; ++part) {
            bucket_states::clear(states.of_partition, n);
            const BUN begin = part == 0 ? offsets_.begin_of(bucket) : offsets_.of(part - 1)[bucket];
            if (!add_rows({begin, offsets_.of(part)[bucket]}, base, states)) {
                unknown_.set();
                return false;
            }
            for (std::size_t j = 0; j < n; ++j)
                merge_partial<Aggregate>(states.totals[j], states.of_partition[j]);
        }
        bool any = false;
        for (std::size_t j = 0; j < n; ++j)
            any |= finish(static_cast<BUN>(first - ids_) + static_cast<BUN>(j), states.totals[j]);
        return any;
    }

    //! False at a row whose group the extents do not hold.
    bool add_rows(vask_row_range dealt, std::uint32_t base, bucket_states &states) const noexcept {
        const std::uint32_t *ids = dealt_ids_.get();
        const value_type *values = values_.get();
        const std::uint32_t *slots = states.slots.data() - base;
        partial *of_partition = states.of_partition.data();
        for (BUN i = dealt.begin; i < dealt.end; ++i) {
            const std::uint32_t slot = slots[ids[i]];
            if (slot == 0) [[unlikely]]
                return false;
            Aggregate::add(of_partition[slot - 1], values[i]);
        }
        return true;
    }

    const Rows &rows_;
    const partition_plan &plan_;
    const oid *gids_;
    BUN map_end_;
    BAT &extents_;
    const oid *ids_;
    BUN groups_;
    std::uint32_t span_; // from the least id to the greatest
    unsigned shift_;
    scatter_offsets offsets_;
    gdk_block<std::uint32_t> dealt_ids_;
    gdk_block<value_type> values_;
    shared_mark unknown_;
};

} // namespace vask
