// Cutting a text at record boundaries, so that the pieces can be parsed at the same time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

namespace vask::runner {

//! Bytes begin .. end - 1 of the text: whole records, the last one of the text perhaps without its
//! newline. `max_records` is an upper bound of their number (a quoted newline or a blank line
//! counts), for making room.
struct record_chunk {
    std::size_t begin;
    std::size_t end;
    std::uint64_t max_records;
};

struct record_chunks {
    std::vector<record_chunk> chunks;
    //! Place of the first NUL byte. There are no chunks then.
    std::optional<std::size_t> nul_byte;
};

//! Cuts the bytes from `begin` on into chunks of about `chunk_bytes` bytes. `quote` is the byte
//! that opens and closes quoted fields, NUL for none. As long as quoting is well-formed a chunk
//! starts at the start of a record; behind the first malformed field chunks may start anywhere, so
//! faults are to be reported for the first chunk that has one. `done_with` is told of bytes, begin
//! and end, that were looked at, from several threads.
record_chunks split_records(
    std::string_view text, std::size_t begin, char quote, std::size_t chunk_bytes, unsigned threads,
    const std::function<void(std::size_t, std::size_t)> &done_with = [](auto, auto) {});

//! The first line end at or behind `end` that lies outside quotes, if those between `begin`, where
//! a record begins, and `end`, where a line does, are well-formed.
std::size_t end_outside_quotes(std::string_view text, std::size_t begin, std::size_t end,
                               char quote);

struct byte_census {
    std::uint64_t line_ends = 0; //!< at "\n", "\r\n" or a lone "\r"
    std::uint64_t quotes = 0;
    std::uint64_t nuls = 0;
};

//! Counts what tells records apart. `previous` is the byte before the text.
byte_census take_census(std::string_view text, char previous, char quote);

//! The place behind the last newline outside quotes, 0 for none. `quoted` tells of the text's end.
std::size_t last_record_end(std::string_view text, bool quoted, char quote);

//! How many lines end in a text: at "\n", "\r\n" or a lone "\r". `previous` is the byte before it.
std::uint64_t count_line_ends(std::string_view text, char previous = '\0');

//! The place after the next line end at or behind `from`, or the text's size.
std::size_t end_of_line(std::string_view text, std::size_t from);

} // namespace vask::runner
