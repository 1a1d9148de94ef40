// Grouping by a table of keys for each range of rows.
#pragma once

#include "rows/grouping_rows.h"
#include "rows/keys.h"

namespace vask {

//! Groups the rows by tables of their keys, told apart by bits: for keys that the caches hold.
//! Gives up when a range has too many, mostly among its first rows. The resolver brings the ranges'
//! keys together. Key is std::uint32_t, std::uint64_t or wide_key. Throws like gdk_vector.
template <class Key>
grouping_outcome group_by_table(const grouping_rows &rows, const key_loader<Key> &load,
                                const group_resolver &resolve, const group_sink &sink);

} // namespace vask
