// Texts to dense codes where most rows have a text of their own.
#pragma once

#include "table/text_encoder.h"
#include "table/text_rows.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace vask::table {

//! What a malformed row of an array is called.
const char *what_is_malformed(const text_chunk &chunk) noexcept;

//! As encode_texts: rows are dealt out to buckets by the hashes of their texts, so that each
//! dictionary fits the caches. A dictionary of 5e6 texts for each of two threads takes two misses
//! of the caches for a row, is made larger eight times, and the two are brought together.
encoded_texts encode_in_buckets(const text_rows &rows, std::span<std::int32_t> codes,
                                std::int32_t missing_code, const text_hash &hash,
                                std::size_t ranges);

} // namespace vask::table
