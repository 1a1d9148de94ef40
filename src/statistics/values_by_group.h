// All values of every group, brought together. Row ranges find the groups of their rows and count
// them; the groups are cut into runs of about equally many values; the ranges move their values to
// the runs; and whoever takes up a run sorts it out by group. Moving the values to their groups at
// once would write to as many places as there are groups, more than fit into the caches (median of
// 1e7 doubles in 10,000 groups on two cores: 76 ms, against 64 ms).
#pragma once

#include "rows/gdk_vector.h"
#include "rows/huge_pages.h"
#include "statistics/group_rows.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace vask {

//! Room for n elements that are written or read at random.
template <class T>
gdk_block<T> large_block(std::size_t n) {
    T *block = gdk_allocate<T>(n);
    advise_huge_pages(block, n * sizeof(T));
    return gdk_block<T>(block);
}

//! The values of all rows as Rs, a run of groups after the other. Group j is row j of the extents.
template <class R>
class values_by_group {
public:
    explicit values_by_group(BUN groups) : starts_(std::size_t{groups} + 1) {}

    //! Takes up the values, stored as S, of all rows; one range per thread. False on failure;
    //! throws when out of memory.
    template <class S>
    bool gather(const grouped_rows &in) {
        const BUN count = in.b->info->count;
        if (count == 0) {
            cut_into_runs(0);
            return true;
        }
        const BUN nranges = vask_range_count(*in.b);
        if (nranges == 0)
            return false;
        const BUN first = in.b->info->first;
        const partition_plan plan(*in.b, nranges);
        const gdk_block<BUN> groups = large_block<BUN>(count);
        gdk_vector<gdk_vector<BUN>> counts(nranges);
        const bool good = visit_grouped_rows(
            in, plan,
            [&, n = this->groups()](std::uint64_t i, vask_row_range r, const auto &finder) {
                counts[i] = gdk_vector<BUN>(n);
                return count_groups(finder, r, &groups[r.begin - first], counts[i].data());
            });
        if (!good)
            return false;
        add_up(counts);
        cut_into_runs(count);
        place_ranges(counts);
        values_ = large_block<R>(count);
        if (any_mixed_)
            members_ = large_block<BUN>(count);
        const S *values = rows_of<const S>(*in.b->tail);
        run_partitions(plan, [&, values, first](std::uint64_t i, vask_row_range r) {
            move_values(values + r.begin, r.size(), &groups[r.begin - first], counts[i].data());
        });
        return true;
    }

    std::size_t runs() const noexcept { return runs_.size(); }

    //! Calls `visit(j, values)` for the groups of run i in ascending order, until it gives false;
    //! what it gave last. It may overwrite the values. Runs can be visited at the same time; throws
    //! when out of memory.
    template <class Visit>
    bool visit_run(std::size_t i, Visit visit) {
        const run &groups = runs_[i];
        R *values = values_.get() + starts_[groups.begin];
        gdk_block<R> sorted_out;
        gdk_vector<BUN> ends(groups.mixed ? groups.end - groups.begin : 0);
        if (groups.mixed) {
            const BUN start = starts_[groups.begin];
            const BUN n = starts_[groups.end] - start;
            sorted_out = gdk_block<R>(gdk_allocate<R>(n));
            for (BUN j = groups.begin; j < groups.end; ++j)
                ends[j - groups.begin] = starts_[j] - start;
            const BUN *members = members_.get() + start;
            BUN *next = ends.data();
            R *to = sorted_out.get();
            for (BUN at = 0; at < n; ++at)
                to[next[members[at]]++] = values[at];
            values = to;
        }
        for (BUN j = groups.begin; j < groups.end; ++j) {
            const std::size_t n = starts_[j + 1] - starts_[j];
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

    BUN groups() const noexcept { return static_cast<BUN>(starts_.size() - 1); }

    //! Stores the group of every row in r, behind `groups`, and counts the rows of each. False at a
    //! row without a group.
    template <class Finder>
    static bool count_groups(const Finder &finder, vask_row_range r, BUN *groups, BUN *counts) {
        for (BUN p = r.begin; p < r.end; ++p) {
            const BUN group = finder(p);
            if (group == NO_BUN)
                return false;
            *groups++ = group;
            ++counts[group];
        }
        return true;
    }

    void add_up(const gdk_vector<gdk_vector<BUN>> &counts) noexcept {
        BUN at = 0;
        for (BUN j = 0; j < groups(); ++j) {
            starts_[j] = at;
            for (const gdk_vector<BUN> &range : counts)
                at += range[j];
        }
        starts_[groups()] = at;
    }

    //! A run ends before a group that is one by itself, and where it has enough values.
    void cut_into_runs(BUN rows) {
        // Few groups can have a run each.
        const BUN enough =
            groups() <= most_runs ? smallest_run : std::max(smallest_run, rows / (most_runs / 2));
        for (BUN j = 0; j < groups();) {
            run made{j, j, false};
            BUN values = 0;
            while (j < groups() && values < enough) {
                const BUN n = starts_[j + 1] - starts_[j];
                if (n >= enough && values != 0)
                    break;
                made.mixed |= n != 0 && values != 0;
                values += n;
                ++j;
            }
            made.end = j;
            any_mixed_ |= made.mixed;
            runs_.push_back(made);
        }
    }

    //! `counts[i][j]` is the number of values that range i has for group j, and `counts[i][k]`
    //! becomes where it begins to put those for run k.
    void place_ranges(gdk_vector<gdk_vector<BUN>> &counts) {
        run_of_ = gdk_vector<std::uint16_t>(groups());
        for (std::size_t k = 0; k < runs_.size(); ++k) {
            BUN at = starts_[runs_[k].begin];
            for (BUN j = runs_[k].begin; j < runs_[k].end; ++j)
                run_of_[j] = static_cast<std::uint16_t>(k);
            for (gdk_vector<BUN> &range : counts) {
                BUN n = 0;
                for (BUN j = runs_[k].begin; j < runs_[k].end; ++j)
                    n += range[j];
                range[k] = at;
                at += n;
            }
        }
    }

    //! Moves the values of a range, the rows of which belong to `groups`, to the places kept for
    //! them.
    template <class S>
    void move_values(const S *values, std::size_t n, const BUN *groups, BUN *next) noexcept {
        R *moved = values_.get();
        const std::uint16_t *run_of = run_of_.data();
        if (!any_mixed_) {
            for (std::size_t i = 0; i < n; ++i)
                moved[next[run_of[groups[i]]]++] = static_cast<R>(values[i]);
            return;
        }
        BUN *members = members_.get();
        for (std::size_t i = 0; i < n; ++i) {
            const std::uint16_t k = run_of[groups[i]];
            const BUN at = next[k]++;
            moved[at] = static_cast<R>(values[i]);
            members[at] = groups[i] - runs_[k].begin;
        }
    }

    gdk_vector<BUN> starts_; // of the groups' values; one more than there are groups
    gdk_vector<run> runs_;
    gdk_vector<std::uint16_t> run_of_; // groups
    bool any_mixed_ = false;
    gdk_block<R> values_;
    gdk_block<BUN> members_; // the values' groups, counted from the first of the run
};

} // namespace vask
