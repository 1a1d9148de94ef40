// Grouping in buckets of rows, each small enough for the caches.
#pragma once

#include "rows/grouping_rows.h"
#include "rows/keys.h"

namespace vask {

//! Groups rows by any keys, told apart as Kind says: deals the rows out to buckets by the hashes of
//! their keys, gives each bucket a table of its own, and takes the ids back to the rows. Never
//! finds too many keys. Throws like gdk_vector.
//!
//! Kind is bit_keys of std::uint32_t, std::uint64_t or wide_key, or text_content_keys of the latter
//! two.
template <class Kind>
grouping_outcome group_by_buckets(const grouping_rows &rows, const Kind &kind,
                                  const key_loader<typename Kind::key_type> &load,
                                  const group_sink &sink);

} // namespace vask
