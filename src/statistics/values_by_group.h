// All values of every group, brought together. Row ranges find the groups of their rows and count
// them, of very many groups by buckets of neighbours; the buckets are cut into runs of about
// equally many values; the ranges move their values to the runs; and whoever takes up a run sorts
// it out by group. Moving the values to their groups at once would write to as many places as there
// are groups, more than fit into the caches (median of 1e7 doubles in 10,000 groups on two cores:
// 76 ms, against 64 ms).
#pragma once

#include "kernel/frame.h"
#include "kernel/hostile.h"
#include "kernel/shared_mark.h"
#include "rows/gdk_vector.h"
#include "rows/group_of_row.h"
#include "rows/huge_pages.h"
#include "rows/scatter.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <optional>
#include <span>

namespace vask {

//! The values of all rows as Rs, a run of groups after the other. Group j is row j of the extents.
template <class R>
class values_by_group {
public:
    //! Values stored as S of all rows, in `nranges` ranges, at most one per row. Nothing is there
    //! where a row has no group; throws when out of memory.
    template <class S>
    static std::optional<values_by_group> vask_scatter_groups(const grouped_rows &in, BUN nranges) {
        const BUN rows = in.b->info->count;
        values_by_group made(in.extents->info->count, nranges);
        if (rows != 0 && (nranges == 0 || !made.template scatter<S>(in, rows, nranges)))
            return std::nullopt;
        if (rows == 0)
            made.cut_into_runs(0);
        return made;
    }

    std::size_t runs() const noexcept { return runs_.size(); }

    //! Calls `visit(j, values)` for the groups of run i in ascending order. Stops at the first
    //! false; returns the last result. It may overwrite the values. Runs can be visited at the same
    //! time; throws when out of memory.
    template <class Visit>
    bool visit_run(std::size_t i, Visit visit) {
        const run &groups = runs_[i];
        const BUN first = groups.begin << shift_;
        const BUN last = std::min(groups.end << shift_, groups_);
        R *values = values_.get() + by_bucket_.begin_of(groups.begin);
        const gdk_vector<BUN> ends = ends_of_groups(groups, first, last);
        const gdk_block<R> merged =
            groups.mixed ? vask_merge_groups(groups, values, ends) : nullptr;
        if (groups.mixed)
            values = merged.get();
        BUN begin = 0;
        for (BUN j = first; j < last; ++j) {
            const BUN end = ends[j - first];
            if (!visit(j, std::span<R>(values + begin, end - begin)))
                return false;
            begin = end;
        }
        return true;
    }

private:
    //! Buckets begin .. end - 1.
    struct run {
        BUN begin;
        BUN end;
        bool mixed; // more than one of their groups may have values
    };

    // With this many values in all groups are worth a task: many small groups share one, a large
    // group has one of its own.
    static constexpr BUN smallest_run = 8192;
    // So many runs that the values of one fit into a cache, and so few that the ends of all do.
    static constexpr BUN most_runs = 256;
    // A range's counts stay in the second-level cache; of 1e7 groups all ranges' counts by group
    // would be more memory than the values.
    static constexpr BUN most_buckets = unless_hostile<BUN>(BUN{1} << 16, 2);

    values_by_group(BUN groups, BUN nranges)
        : groups_(groups),
          shift_(
              static_cast<unsigned>(std::bit_width((groups == 0 ? 0 : groups - 1) / most_buckets))),
          by_bucket_(nranges, groups == 0 ? 0 : ((groups - 1) >> shift_) + 1) {}

    BUN buckets() const noexcept { return static_cast<BUN>(by_bucket_.buckets()); }

    template <class S>
    bool scatter(const grouped_rows &in, BUN rows, BUN nranges) {
        const BUN first = in.b->info->first;
        const partition_plan plan(*in.b, nranges);
        const slot_table_owner table(*in.extents, rows, nranges);
        const gdk_block<BUN> groups_of_rows = large_block<BUN>(rows);
        shared_mark failed;
        run_partitions(plan, [&, this](std::uint64_t i, vask_row_range range) {
            const auto count = [counts = by_bucket_.of(i), shift = shift_,
                                of_rows = groups_of_rows.get() - first](BUN row, BUN n,
                                                                        const BUN *numbers) {
                std::copy_n(numbers, n, of_rows + row);
                for (BUN k = 0; k < n; ++k)
                    ++counts[numbers[k] >> shift];
            };
            if (!for_each_numbered_block(in, table.get(), range, count))
                failed.set();
        });
        if (failed.is_set())
            return false;
        by_bucket_.turn_counts_into_offsets();
        cut_into_runs(rows);
        scatter_offsets by_run = offsets_by_run(nranges);
        values_ = large_block<R>(rows);
        if (any_mixed_)
            members_ = large_block<BUN>(rows);
        const S *values = rows_of<const S>(*in.b->tail);
        run_partitions(plan, [&, this, values, first](std::uint64_t i, vask_row_range range) {
            for_each_block(range, [&](BUN row, BUN n) {
                vask_scatter_range(values + row, n, &groups_of_rows[row - first], by_run.of(i));
            });
        });
        return true;
    }

    //! A run ends before a bucket that is one by itself, and where it has enough values.
    void cut_into_runs(BUN rows) {
        // Few buckets can have a run each.
        const BUN enough =
            buckets() <= most_runs ? smallest_run : std::max(smallest_run, rows / (most_runs / 2));
        run_of_ = gdk_vector<std::uint16_t>(buckets());
        for (BUN j = 0; j < buckets();) {
            run made{j, j, false};
            BUN values = 0;
            while (j < buckets() && values < enough) {
                const BUN n = by_bucket_.end_of(j) - by_bucket_.begin_of(j);
                if (n >= enough && values != 0)
                    break;
                made.mixed |= n != 0 && (values != 0 || shift_ != 0);
                values += n;
                run_of_[j++] = static_cast<std::uint16_t>(runs_.size());
            }
            made.end = j;
            any_mixed_ |= made.mixed;
            runs_.push_back(made);
        }
    }

    scatter_offsets offsets_by_run(BUN nranges) {
        scatter_offsets by_run(nranges, runs_.size());
        for (BUN range = 0; range < nranges; ++range)
            for (BUN j = 0; j < buckets(); ++j)
                by_run.of(range)[run_of_[j]] += by_bucket_.unwritten_rows(range, j);
        by_run.turn_counts_into_offsets();
        return by_run;
    }

    //! Moves the n values of a range, whose rows belong to `groups`, to their runs.
    template <class S>
    void vask_scatter_range(const S *values, std::size_t n, const BUN *groups,
                            BUN *next) const noexcept {
        R *moved = values_.get();
        const std::uint16_t *run_of = run_of_.data();
        const unsigned shift = shift_;
        if (!any_mixed_) { // so that buckets are groups
            for (std::size_t i = 0; i < n; ++i)
                moved[next[run_of[groups[i]]]++] = static_cast<R>(values[i]);
            return;
        }
        BUN *members = members_.get();
        const run *runs = runs_.data();
        for (std::size_t i = 0; i < n; ++i) {
            const std::uint16_t k = run_of[groups[i] >> shift];
            const BUN at = next[k]++;
            moved[at] = static_cast<R>(values[i]);
            members[at] = groups[i] - (runs[k].begin << shift);
        }
    }

    //! Where the values of each of a run's groups end, counted from the run's first value.
    gdk_vector<BUN> ends_of_groups(const run &of, BUN first, BUN last) const {
        const BUN start = by_bucket_.begin_of(of.begin);
        gdk_vector<BUN> ends(last - first);
        if (shift_ == 0) {
            for (BUN j = first; j < last; ++j)
                ends[j - first] = by_bucket_.end_of(j) - start;
            return ends;
        }
        const BUN n = by_bucket_.begin_of(of.end) - start;
        if (n == 0)
            return ends;
        const BUN *members = members_.get() + start;
        for (BUN at = 0; at < n; ++at)
            ++ends[members[at]];
        std::partial_sum(ends.begin(), ends.end(), ends.begin());
        return ends;
    }

    //! The values of a run by group.
    gdk_block<R> vask_merge_groups(const run &groups, const R *values,
                                   const gdk_vector<BUN> &ends) const {
        const BUN start = by_bucket_.begin_of(groups.begin);
        const BUN n = by_bucket_.begin_of(groups.end) - start;
        gdk_block<R> merged(gdk_allocate<R>(n));
        gdk_vector<BUN> begins(ends.size());
        std::copy(ends.begin(), ends.end() - 1, begins.begin() + 1);
        const BUN *members = members_.get() + start;
        BUN *next = begins.data();
        R *to = merged.get();
        for (BUN at = 0; at < n; ++at)
            to[next[members[at]]++] = values[at];
        return merged;
    }

    BUN groups_;
    unsigned shift_; // a bucket has 2^shift groups
    scatter_offsets by_bucket_;
    gdk_vector<run> runs_;
    gdk_vector<std::uint16_t> run_of_; // buckets
    bool any_mixed_ = false;
    gdk_block<R> values_;
    gdk_block<BUN> members_; // the values' groups, counted from the first of the run
};

} // namespace vask
