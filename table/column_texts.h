// Texts of Arrow arrays and of the kernel's heaps as codes of words.
#pragma once

#include "table/column.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vask::table {

//! The texts of pieces, encoded. Throws table_error for arrays that contradict themselves.
texts texts_of(const std::vector<piece> &pieces, std::size_t all_rows, const std::string &name,
               const teller &tell);

//! The texts of a heap that holds each of them once: a code for each offset that occurs, in the
//! order of rows.
texts texts_of_heap(const refkernel::bat &column, std::uint64_t missing);

//! Adds the ranks.
void rank_texts(texts &all);

//! Whether a text of a heap stands for a missing one.
bool is_nil_text(const char *text);

} // namespace vask::table
