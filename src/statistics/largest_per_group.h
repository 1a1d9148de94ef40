// The k-th largest of every group for a small k: the k largest are kept while the rows go by, so
// that the values need not be brought together.
#pragma once

#include "kernel/shared_mark.h"
#include "rows/gdk_vector.h"
#include "rows/group_of_row.h"
#include "rows/huge_pages.h"
#include "statistics/order_key.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace vask {

//! The largest keys of every group, from each range of rows. Where a group has fewer, the lowest of
//! all keys fills up; no value may have that key.
template <class T>
class largest_per_group {
    using key = order_key_t<T>;
    template <std::size_t k>
    using constant = std::integral_constant<std::size_t, k>;

public:
    //! As many of the widest keys as a cache line holds.
    static constexpr std::size_t most_kept = 8;

    //! Whether there are ranges of rows, and k of every group and range are no more than the values
    //! themselves.
    static bool is_worthwhile(lng k, BUN groups, BUN ranges, BUN rows) noexcept {
        return ranges != 0 && k <= static_cast<lng>(most_kept) &&
               static_cast<std::uint64_t>(k) * groups * ranges <= rows;
    }

    enum class outcome { done, failed, met_filler };

    //! Keeps the k largest of every group of the rows; `nranges` is not 0. With `met_filler` they
    //! mean nothing.
    outcome gather(const grouped_rows &in, std::size_t k, BUN nranges) {
        k_ = k;
        kept_ = gdk_vector<gdk_block<key>>(nranges);
        const partition_plan plan(*in.b, nranges);
        const T *values = rows_of<const T>(*in.b->tail);
        const std::size_t size = k * in.extents->info->count;
        const slot_table_owner table(*in.extents, in.b->info->count, nranges);
        shared_mark failed;
        shared_mark met_filler;
        run_partitions(plan, [&, values, k, size](std::uint64_t i, vask_row_range range) {
            kept_[i] = large_block<key>(size);
            key *kept = kept_[i].get();
            std::fill_n(kept, size, filler);
            const auto keep_block = [=, &met_filler](BUN row, BUN n, const BUN *groups) {
                const T *block = values + row;
                if (k == 1   ? keep(block, groups, n, constant<1>{}, kept)
                    : k == 2 ? keep(block, groups, n, constant<2>{}, kept)
                             : keep(block, groups, n, k, kept))
                    met_filler.set();
            };
            if (!for_each_numbered_block(in, table.get(), range, keep_block))
                failed.set();
        });
        if (failed.is_set())
            return outcome::failed;
        return met_filler.is_set() ? outcome::met_filler : outcome::done;
    }

    //! The k-th largest of group j, or `nil` if it has fewer values. Overwrites what was kept of
    //! this group: to be asked for once.
    T answer(std::size_t j, T nil) noexcept {
        key *all = kept_[0].get() + j * k_;
        for (std::size_t i = 1; i < kept_.size(); ++i)
            for (std::size_t rank = 0; rank < k_; ++rank)
                take(all, k_, kept_[i][j * k_ + rank]);
        return all[0] == filler ? nil : from_order_key<T>(all[0]);
    }

private:
    static constexpr key filler = std::numeric_limits<key>::min();

    //! std::max without a branch, which compilers put in its place.
    VASK_ALWAYS_INLINE static key larger(key a, key b) noexcept {
        return static_cast<key>(a ^ ((a ^ b) & -static_cast<key>(a < b)));
    }

    //! Takes a key in among k ascending ones, if it is larger than one of them, and the smallest
    //! out. One or two are updated without a branch, which would be mispredicted in one of so many
    //! rows as a group has.
    template <class K>
    VASK_ALWAYS_INLINE static void take(key *kept, K k, key taken) noexcept {
        if constexpr (std::is_same_v<K, constant<1>>) {
            kept[0] = larger(kept[0], taken);
            return;
        } else if constexpr (std::is_same_v<K, constant<2>>) {
            const key second = kept[0];
            const key first = kept[1];
            kept[0] = larger(second, static_cast<key>(first ^ taken ^ larger(first, taken)));
            kept[1] = larger(first, taken);
            return;
        }
        if (taken <= kept[0])
            return;
        std::size_t i = 1;
        for (; i < k && kept[i] < taken; ++i)
            kept[i - 1] = kept[i];
        kept[i - 1] = taken;
    }

    //! The row loop over a block. The groups' keys are asked for some rows ahead, so that many wait
    //! for memory together. Whether a value has the filler's key.
    template <class K>
    static bool keep(const T *values, const BUN *groups, BUN n, K k, key *kept) noexcept {
        constexpr BUN rows_ahead = 64;
        bool any_filler = false;
        for (BUN done = 0; done < n; done += rows_ahead) {
            const BUN end = std::min(n, done + rows_ahead);
            for (BUN i = done; i < end; ++i)
                __builtin_prefetch(kept + std::size_t{groups[i]} * k, 1);
            for (BUN i = done; i < end; ++i) {
                const key taken = order_key(values[i]);
                any_filler |= taken == filler;
                take(kept + std::size_t{groups[i]} * k, k, taken);
            }
        }
        return any_filler;
    }

    std::size_t k_ = 0;
    gdk_vector<gdk_block<key>> kept_;
};

} // namespace vask
