// Texts of Arrow arrays to dense codes, in parallel.
#pragma once

#include "kernel/hostile.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace vask::table {

//! Rows of one array of texts or binaries, or texts anywhere: where they lie, from the first row
//! on. Texts are bytes: any length, zero bytes included.
struct text_chunk {
    enum class layout : std::uint8_t { offsets32, offsets64, views, anywhere };

    layout kind = layout::offsets32;
    std::int64_t rows = 0;
    //! Offsets (rows + 1), 16-byte views (rows) or std::string_view (rows), at the first row.
    const void *places = nullptr;
    const char *bytes = nullptr;               //!< of offsets: where offset 0 points
    const void *const *view_buffers = nullptr; //!< of views: the buffers that views name
    const std::uint8_t *validity = nullptr;    //!< 1 bits are values; null: all are
    std::int64_t first_bit = 0;                //!< the first row's bit of `validity`
};

struct encoded_texts {
    //! By code, in order of first occurrence over all rows. They point into the chunks' memory.
    std::vector<std::string_view> words;
    std::uint64_t missing = 0; //!< rows without a value
};

//! Offsets that descend or a view of negative length.
struct malformed_texts : std::invalid_argument {
    malformed_texts(const char *what, std::uint64_t bad_row)
        : std::invalid_argument(what), row(bad_row) {}
    std::uint64_t row; //!< the first such row of all chunks'
};

//! Writes the code of each row, in order of the chunks, and `missing_code` where there is no value.
//! `codes` has an entry for each row, at most 2^31 - 1. Codes number the different texts by first
//! occurrence, so nothing depends on the cut of the rows or the order in which tasks run.
//!
//! Reads rows without a value not at all, and of offsets nothing outside the bytes between the
//! chunk's first and last offset, even if offsets are malformed. Views are trusted to name buffers
//! and places that exist. Throws malformed_texts, std::length_error if `codes` has another number
//! of rows, and bad_alloc; then `codes` is unspecified.
encoded_texts encode_texts(std::span<const text_chunk> chunks, std::span<std::int32_t> codes,
                           std::int32_t missing_code);

//! How the work is done; no result depends on it.
struct text_encoding_plan {
    std::size_t ranges;                    //!< contiguous rows, each the work of a task
    std::uint32_t hash_bits = 0xffffffffU; //!< of hashes that are kept; 0: all are equal
    //! Of a range; where more are met early, rows are dealt out to buckets first.
    std::size_t most_texts = unless_hostile(std::size_t{3} << 16, std::size_t{1});
};

//! The same by a given plan.
encoded_texts encode_texts(std::span<const text_chunk> chunks, std::span<std::int32_t> codes,
                           std::int32_t missing_code, text_encoding_plan plan);

} // namespace vask::table
