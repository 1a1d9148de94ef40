// A text that is not in memory, piece by piece.
#pragma once

#include "source_text.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace vask::runner {

//! A part of a text: whole records, the last one of the text perhaps without its newline.
class record_piece {
public:
    std::string_view text() const noexcept { return {bytes_.get(), size_}; }
    //! To be called before the two that follow, with the quote of the stream.
    void count(char quote);
    //! An upper bound of the number of its records.
    std::uint64_t max_records() const noexcept { return max_records_; }
    bool has_nul() const noexcept { return has_nul_; }

private:
    friend class record_stream;

    std::span<char> room(std::size_t bytes);

    std::unique_ptr<char[]> bytes_;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
    std::uint64_t max_records_ = 0;
    bool has_nul_ = false;
};

//! Cuts a text into pieces as it is read. Used by one thread at a time.
class record_stream {
public:
    //! Pieces begin behind the header, and have about so many bytes. As long as quoting is
    //! well-formed, each starts at the start of a record.
    record_stream(const source_text &source, std::size_t data_begin, char quote,
                  std::size_t piece_bytes);

    //! Reads the next piece into the memory of one that is done with; false at the text's end.
    //! Throws user_error for a damaged file.
    bool next(record_piece &piece);

    //! How many bytes of the file were read.
    std::size_t consumed() const noexcept { return reader_.consumed(); }

private:
    source_reader reader_;
    const char quote_;
    const std::size_t piece_bytes_;
    std::vector<char> rest_; // what was read behind the last piece
    bool at_end_ = false;
};

} // namespace vask::runner
