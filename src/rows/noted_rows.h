// A set of rows of a range.
#pragma once

#include "kernel/hostile.h"
#include "rows/gdk_vector.h"
#include "rows/row_blocks.h"
#include "rows/row_ranges.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace vask {

//! A bit for each row, so that the memory is bounded by the rows however many are noted. There is
//! none before the first.
class noted_rows {
public:
    noted_rows() noexcept = default;
    explicit noted_rows(vask_row_range rows) noexcept : rows_(rows) {}

    void note(BUN row) {
        if (words_.empty())
            words_ = gdk_vector<std::uint64_t>((rows_.size() + word_bits - 1) / word_bits);
        const BUN bit = row - rows_.begin;
        words_[bit / word_bits] |= std::uint64_t{1} << bit % word_bits;
    }

    //! Calls `keep(row, k)` for each row, in ascending order, and strikes out those for which it
    //! gives false. `open(row, n)` is called before with a stretch of rows, at most stretch_rows of
    //! them, of which the row is the k-th.
    template <class Open, class Keep>
    void filter(Open open, Keep keep) {
        for (std::size_t word = 0; word < words_.size(); ++word)
            for (BUN part = 0; part < word_bits && words_[word] >> part != 0;
                 part += stretch_rows) {
                const std::uint64_t noted = words_[word] >> part & stretch_bits;
                if (noted == 0)
                    continue;
                const BUN begin = rows_.begin + static_cast<BUN>(word * word_bits) + part;
                open(begin, std::min(stretch_rows, rows_.end - begin));
                for (std::uint64_t left = noted; left != 0; left &= left - 1) {
                    const auto k = static_cast<BUN>(std::countr_zero(left));
                    if (!keep(begin + k, k))
                        words_[word] &= ~((left & -left) << part);
                }
            }
    }

    //! Of a word; in a hostile build less, as a block of rows is.
    static constexpr BUN stretch_rows = unless_hostile<BUN>(64, block_rows);

private:
    static constexpr BUN word_bits = 64;
    static constexpr std::uint64_t stretch_bits = ~std::uint64_t{0} >> (word_bits - stretch_rows);

    vask_row_range rows_{0, 0};
    gdk_vector<std::uint64_t> words_;
};

} // namespace vask
