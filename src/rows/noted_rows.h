// A set of rows of a range.
#pragma once

#include "rows/gdk_vector.h"
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
    //! gives false. `open(row, n)` is called before with a stretch of rows, at most word_bits of
    //! them, of which the row is the k-th.
    template <class Open, class Keep>
    void filter(Open open, Keep keep) {
        for (std::size_t word = 0; word < words_.size(); ++word) {
            if (words_[word] == 0)
                continue;
            const BUN begin = rows_.begin + static_cast<BUN>(word * word_bits);
            open(begin, std::min(word_bits, rows_.end - begin));
            for (std::uint64_t left = words_[word]; left != 0; left &= left - 1) {
                const auto k = static_cast<BUN>(std::countr_zero(left));
                if (!keep(begin + k, k))
                    words_[word] &= ~(left & -left);
            }
        }
    }

    static constexpr BUN word_bits = 64;

private:
    vask_row_range rows_{0, 0};
    gdk_vector<std::uint64_t> words_;
};

} // namespace vask
