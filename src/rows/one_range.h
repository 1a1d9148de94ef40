// Groups of a single range of rows: nobody else counts, so a row gets its id when it is counted.
#pragma once

#include "rows/gdk_vector.h"
#include "rows/grouping_rows.h"
#include "rows/huge_pages.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace vask {

//! The groups of rows that are numbered 0 .. numbers - 1. The id and the count of a number share a
//! word, so a row costs one load and one store besides the id that it writes: 1e7 ints of 1e6
//! values take 71 ms, with an array for each 96. Throws like gdk_vector.
class one_range_groups {
public:
    //! An empty resolver says that every number is a group of its own.
    one_range_groups(const grouping_rows &rows, const group_resolver &resolve, std::size_t numbers)
        : rows_(rows), resolve_(resolve) {
        resize(numbers);
        // Memory that no group comes to use is never touched.
        opened_.reserve(std::min<std::size_t>(numbers, rows.all().size()));
    }

    std::size_t numbers() const noexcept { return numbers_; }

    //! Makes room for as many numbers or more.
    void grow(std::size_t numbers) {
        const gdk_vector<new_group> counted = groups_of_numbers();
        resize(numbers);
        for (std::size_t i = 0; i < counted.size(); ++i)
            words_[std::size_t{opened_[i].number} * lanes_] =
                counted[i].count * one_row + counted[i].id;
    }

    //! Counts the rows row .. row + n - 1 and writes their ids. Their cells can hold the numbers.
    void add(BUN row, const std::uint32_t *numbers, BUN n) {
        if (lanes_ != 1)
            add_block<max_lanes, false>(row, numbers, n);
        else
            numbers_ < prefetched_numbers ? add_block<1, false>(row, numbers, n)
                                          : add_block<1, true>(row, numbers, n);
    }

    //! The groups, in the order of their first rows.
    gdk_vector<new_group> groups() const {
        gdk_vector<new_group> counted = groups_of_numbers();
        std::size_t known = 0;
        for (std::size_t i = 0; i < counted.size(); ++i) {
            const std::uint32_t group = opened_[i].group;
            if (group == known)
                counted[known++] = counted[i];
            else
                counted[group].count += counted[i].count;
        }
        counted.grow_to(known);
        return counted;
    }

private:
    // Consecutive rows count in different lanes of their number, so that one that fills a stretch
    // of rows does not wait for its own last increment: 1e7 rows of two values take 10 ms, not 22.
    static constexpr std::size_t max_lanes = 4;
    // All lanes take 32 KiB then, the first-level cache.
    static constexpr std::size_t lane_numbers = 1024;
    // From here on the words leave the second-level cache and are fetched ahead of their use.
    static constexpr std::size_t prefetched_numbers = std::size_t{1} << 16;
    static constexpr std::size_t fetched_ahead = 16;

    // The id in the lower half, the rows in the upper; 0: no row yet.
    using word = std::uint64_t;
    static constexpr word one_row = word{1} << 32;

    struct opened_number {
        std::uint32_t number;
        std::uint32_t group;
    };

    void resize(std::size_t numbers) {
        numbers_ = numbers;
        lanes_ = numbers <= lane_numbers ? max_lanes : 1;
        words_ = large_zeroed_block<word>(numbers * lanes_);
    }

    //! Each number with rows as if it were a group, in the order of first rows.
    gdk_vector<new_group> groups_of_numbers() const {
        gdk_vector<new_group> all(opened_.size());
        for (std::size_t i = 0; i < all.size(); ++i) {
            const word *lanes = words_.get() + std::size_t{opened_[i].number} * lanes_;
            for (std::size_t lane = 0; lane < lanes_; ++lane)
                if (lanes[lane] != 0)
                    all[i] = {static_cast<oid>(lanes[lane]),
                              all[i].count + static_cast<BUN>(lanes[lane] / one_row)};
        }
        return all;
    }

    // Within a larger function its few locals would not all stay in registers.
    template <std::size_t Lanes, bool Prefetch>
    [[gnu::noinline]] void add_block(BUN row, const std::uint32_t *numbers, BUN n) {
        word *const words = words_.get();
        oid *const cells = rows_.cells + row;
#pragma GCC unroll 4
        for (std::size_t i = 0; i < n; ++i) {
            if constexpr (Prefetch)
                __builtin_prefetch(words + numbers[std::min<std::size_t>(i + fetched_ahead, n - 1)],
                                   1);
            word *const lanes = words + std::size_t{numbers[i]} * Lanes;
            word now = lanes[i % Lanes];
            if (now == 0) [[unlikely]]
                now = open(lanes, numbers[i], row + static_cast<BUN>(i));
            lanes[i % Lanes] = now + one_row;
            cells[i] = static_cast<oid>(now);
        }
    }

    //! The id for a number that is met for the first time in a lane.
    [[gnu::noinline]] oid open(const word *lanes, std::uint32_t number, BUN row) {
        for (std::size_t lane = 0; lane < lanes_; ++lane)
            if (lanes[lane] != 0)
                return static_cast<oid>(lanes[lane]);
        const std::uint32_t group = resolve_ ? resolve_(row, groups_) : groups_;
        opened_.push_back({number, group});
        if (group != groups_)
            return ids_[group];
        ++groups_;
        const oid id = rows_.heads[row];
        if (resolve_)
            ids_.push_back(id);
        return id;
    }

    const grouping_rows &rows_;
    const group_resolver &resolve_;
    std::size_t numbers_ = 0;
    std::size_t lanes_ = 1;
    gdk_block<word> words_;
    gdk_vector<opened_number> opened_;
    std::uint32_t groups_ = 0;
    gdk_vector<oid> ids_; // of groups, where a number can be of a known one
};

} // namespace vask
