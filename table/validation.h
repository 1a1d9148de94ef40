// What Arrow arrays can be checked for: some of it wherever rows are read, the rest on request.
#pragma once

#include "table/errors.h"
#include "table/piece.h"
#include "table/value_type.h"

#include <cstdint>
#include <string>
#include <utility>

namespace vask::table {

//! The entry of a dictionary that a row names. Throws for one that is not there.
template <class Index>
std::int64_t entry_of(const Index *indices, std::int64_t row, std::int64_t entries,
                      const std::string &name) {
    const Index index = indices[row];
    if (!std::in_range<std::int64_t>(index) || static_cast<std::int64_t>(index) < 0 ||
        static_cast<std::int64_t>(index) >= entries)
        fail(VASK_BAD_DATA,
             "column '{}': row {} of a batch has the dictionary index {} of {} entries",
             shown(name), row, index, entries);
    return static_cast<std::int64_t>(index);
}

//! Views name buffers and places that exist. Throws table_error.
void check_views(const piece &p, const std::string &name);

/*
 * All that the format lets one check of an array: the number of nulls against the bits, offsets
 * under nulls as well, views with their first bytes, indices with all entries of their dictionary,
 * and that texts are UTF-8. Throws table_error for the first row that is at fault.
 */
void validate(const piece &p, const value_type &type, const std::string &name);

} // namespace vask::table
