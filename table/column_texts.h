// Texts of Arrow arrays as codes of words.
#pragma once

#include "table/column.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vask::table {

//! The texts of pieces, encoded. Throws table_error for arrays that contradict themselves.
texts texts_of(const std::vector<piece> &pieces, std::size_t all_rows, const std::string &name,
               const teller &tell);

//! Has the texts keep their words.
void keep_words(texts &all, std::vector<std::string_view> words);

//! Adds the ranks.
void rank_texts(texts &all);

} // namespace vask::table
