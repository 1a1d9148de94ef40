// From texts that are not in memory to the values of their columns, in one pass.
#pragma once

#include "chunk_reader.h"
#include "source_text.h"

#include "vask/embed.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace vask::runner {

//! A file, and the place of the first byte behind its header.
struct file_data {
    const source_text *source;
    std::size_t data_begin;
};

//! What was read of the pieces of the files, in their order.
struct streamed_pieces {
    std::vector<chunk_outcome> outcomes;
    std::vector<std::size_t> files; //!< by number
    std::vector<std::uint64_t> records;
    //! By piece and column; null for columns of text, and for those that are not wanted.
    std::vector<std::vector<std::unique_ptr<char[]>>> values;

    //! A column with the values of all pieces, whose memory it takes over bit by bit.
    refkernel::bat gather(std::size_t column, column_type type, std::uint64_t rows,
                          unsigned threads);
};

/*
 * Reads the files behind their headers. A thread that is done with a piece decompresses the next
 * one, while the others parse theirs: so the decoder goes on without a rest as long as parsing does
 * not take longer, and a piece is parsed on the core whose cache it is in. How many rows there will
 * be is not known, so each piece has values of its own.
 *
 * Nothing for a fault of the text; what it is, the whole text tells. Throws user_error for a
 * damaged file.
 */
std::optional<streamed_pieces> read_streams(const std::vector<file_data> &files,
                                            const reading_rules &rules,
                                            const std::vector<column_target> &targets,
                                            std::size_t piece_bytes, unsigned threads);

} // namespace vask::runner
