// Grouping by keys that lie close together, which index an array.
#pragma once

#include "rows/grouping_rows.h"

namespace vask {

struct index_source {
    //! One more than the greatest index.
    std::uint32_t bound;
    index_loader load;
    //! Whether loading all rows twice costs less than counting and writing them at one go.
    bool cheap_to_load = false;
};

//! Groups the rows by index; an empty resolver says that every index is a value of its own. Never
//! finds too many keys. Takes memory for the indices once and for each range. Throws like
//! gdk_vector.
grouping_outcome group_by_index(const grouping_rows &rows, const index_source &source,
                                const group_resolver &resolve, const group_sink &sink);

} // namespace vask
