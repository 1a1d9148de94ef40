// The k-th largest of every group for a small k: the k largest are kept while the rows go by, so
// that the values need not be brought together.
#pragma once

#include "rows/gdk_vector.h"
#include "rows/huge_pages.h"
#include "statistics/group_rows.h"
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
        const std::size_t size = k * in.e->info->count;
        shared_mark met_filler;
        const bool good = visit_grouped_rows(
            in, plan, [&, values, k, size](std::uint64_t i, vask_row_range r, const auto &finder) {
                kept_[i] = gdk_block<key>(gdk_allocate<key>(size));
                key *kept = kept_[i].get();
                advise_huge_pages(kept, size * sizeof(key));
                std::fill_n(kept, size, filler);
                const auto keep_k = [&](auto constant_k) {
                    return keep(finder, values, r, constant_k, kept, met_filler);
                };
                switch (k) {
                    case 1:
                        return keep_k(constant<1>{});
                    case 2:
                        return keep_k(constant<2>{});
                    default:
                        return keep_k(k);
                }
            });
        if (!good)
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

    //! The row loop. Groups are found some rows ahead, so that many wait for memory together.
    template <class Finder, class K>
    static bool keep(const Finder &finder, const T *values, vask_row_range r, K k, key *kept,
                     shared_mark &met_filler) {
        constexpr BUN rows_ahead = 64;
        const Finder find = finder;
        key *of_group[rows_ahead];
        bool any_filler = false;
        for (BUN p = r.begin; p < r.end;) {
            const BUN n = std::min(rows_ahead, r.end - p);
            for (BUN i = 0; i < n; ++i) {
                const BUN group = find(p + i);
                if (group == NO_BUN)
                    return false;
                of_group[i] = kept + std::size_t{group} * k;
                __builtin_prefetch(of_group[i], 1);
            }
            for (BUN i = 0; i < n; ++i, ++p) {
                const key taken = order_key(values[p]);
                any_filler |= taken == filler;
                take(of_group[i], k, taken);
            }
        }
        if (any_filler)
            met_filler.set();
        return true;
    }

    std::size_t k_ = 0;
    gdk_vector<gdk_block<key>> kept_;
};

} // namespace vask
