// All values of every group, brought together. Row ranges find the groups of their rows and count
// them; the groups are cut into runs of about equally many values; the ranges move their values to
// the runs; and whoever takes up a run sorts it out by group. Moving the values to their groups at
// once would write to as many places as there are groups, more than fit into the caches (median of
// 1e7 doubles in 10,000 groups on two cores: 76 ms, against 64 ms).
#pragma once

#include "kernel/frame.h"
#include "kernel/shared_mark.h"
#include "rows/gdk_vector.h"
#include "rows/group_of_row.h"
#include "rows/huge_pages.h"
#include "rows/scatter.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
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
        R *values = values_.get() + by_group_.begin_of(groups.begin);
        const gdk_block<R> merged = groups.mixed ? vask_merge_groups(groups, values) : nullptr;
        if (groups.mixed)
            values = merged.get();
        for (BUN j = groups.begin; j < groups.end; ++j) {
            const std::size_t n = by_group_.end_of(j) - by_group_.begin_of(j);
            if (!visit(j, std::span<R>(values, n)))
                return false;
            values += n;
        }
        return true;
    }

private:
    //! Groups begin .. end - 1.
    struct run {
        BUN begin;
        BUN end;
        bool mixed; // more than one of them has values
    };

    // With this many values in all groups are worth a task: many small groups share one, a large
    // group has one of its own.
    static constexpr BUN smallest_run = 8192;
    // So many runs that the values of one fit into a cache, and so few that the ends of all do.
    static constexpr BUN most_runs = 256;

    values_by_group(BUN groups, BUN nranges) : by_group_(nranges, groups) {}

    template <class T>
    static gdk_block<T> large_block(std::size_t n) {
        gdk_block<T> block(gdk_allocate<T>(n));
        advise_huge_pages(block.get(), n * sizeof(T));
        return block;
    }

    BUN groups() const noexcept { return static_cast<BUN>(by_group_.buckets()); }

    template <class S>
    bool scatter(const grouped_rows &in, BUN rows, BUN nranges) {
        const BUN first = in.b->info->first;
        const partition_plan plan(*in.b, nranges);
        const slot_table_owner table(*in.extents, rows, nranges);
        const gdk_block<BUN> groups_of_rows = large_block<BUN>(rows);
        shared_mark failed;
        run_partitions(plan, [&, this](std::uint64_t i, vask_row_range range) {
            const auto count = [counts = by_group_.of(i), of_rows = groups_of_rows.get() - first](
                                   BUN row, BUN n, const BUN *numbers) {
                std::copy_n(numbers, n, of_rows + row);
                for (BUN k = 0; k < n; ++k)
                    ++counts[numbers[k]];
            };
            if (!for_each_numbered_block(in, table.get(), range, count))
                failed.set();
        });
        if (failed.is_set())
            return false;
        by_group_.turn_counts_into_offsets();
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

    //! A run ends before a group that is one by itself, and where it has enough values.
    void cut_into_runs(BUN rows) {
        // Few groups can have a run each.
        const BUN enough =
            groups() <= most_runs ? smallest_run : std::max(smallest_run, rows / (most_runs / 2));
        run_of_ = gdk_vector<std::uint16_t>(groups());
        for (BUN j = 0; j < groups();) {
            run made{j, j, false};
            BUN values = 0;
            while (j < groups() && values < enough) {
                const BUN n = by_group_.end_of(j) - by_group_.begin_of(j);
                if (n >= enough && values != 0)
                    break;
                made.mixed |= n != 0 && values != 0;
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
            for (BUN j = 0; j < groups(); ++j)
                by_run.of(range)[run_of_[j]] += by_group_.unwritten_rows(range, j);
        by_run.turn_counts_into_offsets();
        return by_run;
    }

    //! Moves the n values of a range, whose rows belong to `groups`, to their runs.
    template <class S>
    void vask_scatter_range(const S *values, std::size_t n, const BUN *groups,
                            BUN *next) const noexcept {
        R *moved = values_.get();
        const std::uint16_t *run_of = run_of_.data();
        if (!any_mixed_) {
            for (std::size_t i = 0; i < n; ++i)
                moved[next[run_of[groups[i]]]++] = static_cast<R>(values[i]);
            return;
        }
        BUN *members = members_.get();
        const run *runs = runs_.data();
        for (std::size_t i = 0; i < n; ++i) {
            const std::uint16_t k = run_of[groups[i]];
            const BUN at = next[k]++;
            moved[at] = static_cast<R>(values[i]);
            members[at] = groups[i] - runs[k].begin;
        }
    }

    //! The values of a run by group.
    gdk_block<R> vask_merge_groups(const run &groups, const R *values) const {
        const BUN start = by_group_.begin_of(groups.begin);
        const BUN n = by_group_.begin_of(groups.end) - start;
        gdk_block<R> merged(gdk_allocate<R>(n));
        gdk_vector<BUN> ends(groups.end - groups.begin);
        for (BUN j = groups.begin; j < groups.end; ++j)
            ends[j - groups.begin] = by_group_.begin_of(j) - start;
        const BUN *members = members_.get() + start;
        BUN *next = ends.data();
        R *to = merged.get();
        for (BUN at = 0; at < n; ++at)
            to[next[members[at]]++] = values[at];
        return merged;
    }

    scatter_offsets by_group_;
    gdk_vector<run> runs_;
    gdk_vector<std::uint16_t> run_of_; // groups
    bool any_mixed_ = false;
    gdk_block<R> values_;
    gdk_block<BUN> members_; // the values' groups, counted from the first of the run
};

} // namespace vask
