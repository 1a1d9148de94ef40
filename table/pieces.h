// The rows of all pieces of a column.
#pragma once

#include "table/parallel.h"
#include "table/piece.h"
#include "table/validity.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace vask::table {

//! Where the rows of each piece begin, and their number at the end.
inline std::vector<std::size_t> first_rows(const std::vector<piece> &pieces) {
    std::vector<std::size_t> rows{0};
    for (const piece &p : pieces)
        rows.push_back(rows.back() + static_cast<std::size_t>(p.rows));
    return rows;
}

//! Calls `work(piece, row of the piece, rows, row of the column)` for parts of all pieces, in
//! tasks.
template <class Work>
void for_pieces(const std::vector<piece> &pieces, const Work &work) {
    const std::vector<std::size_t> firsts = first_rows(pieces);
    for_rows(firsts.back(), [&](std::size_t begin, std::size_t end) {
        std::size_t i = static_cast<std::size_t>(
            std::upper_bound(firsts.begin(), firsts.end(), begin) - firsts.begin() - 1);
        for (; begin < end; ++i) {
            const std::size_t here = std::min(end, firsts[i + 1]) - begin;
            if (here > 0)
                work(pieces[i], static_cast<std::int64_t>(begin - firsts[i]),
                     static_cast<std::int64_t>(here), begin);
            begin += here;
        }
    });
}

//! Rows without a value.
inline std::uint64_t missing_rows(const std::vector<piece> &pieces) {
    std::atomic<std::uint64_t> missing{0};
    for_pieces(pieces, [&](const piece &p, std::int64_t from, std::int64_t rows, std::size_t) {
        if (p.validity != nullptr)
            missing +=
                static_cast<std::uint64_t>(rows - count_bits(p.validity, p.offset + from, rows));
    });
    return missing;
}

} // namespace vask::table
