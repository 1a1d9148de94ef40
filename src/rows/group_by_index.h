// Grouping by keys that lie close together, which index an array.
#pragma once

#include "rows/grouping_rows.h"

namespace vask {

//! Whether keys can index arrays of so many indices: with fewer rows in a range, clearing them
//! costs more than the rows. A single range has one array of 8 bytes, which costs less than a
//! table up to four times the rows.
inline bool suits_index(std::uint64_t bound, BUN rows, std::size_t ranges) noexcept {
    constexpr std::uint64_t always = 1024;
    return ranges == 1 ? bound <= std::uint64_t{4} * rows + always : bound <= rows / ranges + 2;
}

//! Where indices come from; empty where there are none.
struct index_source {
    //! One more than the greatest index.
    std::uint32_t bound = 0;
    index_loader load;
    //! Whether loading all rows twice costs less than counting and writing them at one go.
    bool cheap_to_load = false;

    explicit operator bool() const noexcept { return bound != 0; }
};

//! Groups the rows by index; an empty resolver says that every index is a value of its own. Never
//! finds too many keys. Takes memory for the indices once and for each range. Throws like
//! gdk_vector.
grouping_outcome group_by_index(const grouping_rows &rows, const index_source &source,
                                const group_resolver &resolve, const group_sink &sink);

} // namespace vask
