// What can be wrong with the data of a file, and the message that tells it.
#pragma once

#include "cell_values.h"
#include "csv_header.h"
#include "csv_parser.h"
#include "record_chunks.h"
#include "source_text.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace vask::runner {

//! What becomes of records with another number of fields than the header.
enum class ragged_records : std::uint8_t {
    refused,
    filled, //!< fields that lack at the end are missing values; too many are refused
    skipped
};

struct load_fault {
    enum class kind {
        ragged,       // another number of fields than the header
        bad_cell,     // no value of the type that was asked for
        uncomparable, // a cell that a filter compares with what it is no value of
        nil_text,     // a text that the kernel takes for a missing one
        stray_quote,  // a quote inside an unquoted field, or text behind a closing quote
        open_quote,   // a quoted field that the file's end cuts off
        changed       // more records than were counted: somebody writes to the file
    };
    kind what;
    std::uint64_t record = 0;  // counted from the chunk's first
    std::size_t fields = 0;    // ragged: how many there are
    std::size_t column = 0;    // bad_cell, uncomparable, nil_text
    std::string cell;          // bad_cell, uncomparable: its text
    column_type type{};        // bad_cell: what it should have been
    std::size_t position = 0;  // stray_quote: place in the text
    std::string_view wanted{}; // uncomparable: what it should have been
};

//! The message for a fault: file, line, column, what it is and what to do. Finding the line parses
//! the chunk once more.
std::string describe(const load_fault &fault, const source_text &source, const csv_header &header,
                     const csv_dialect &dialect, const record_chunk &chunk);

//! The message for a file that somebody writes to while it is read.
std::string describe_change(const source_text &source);

//! A file's text as it can be shown within a message: shortened, control characters replaced.
std::string shown(std::string_view text);

//! How a cell is written in the list of --na, within a message; nothing if it stands there as it
//! is.
std::string as_missing_item(std::string_view cell);

//! What a cell that is no number may be instead, and what to do; a sentence from a blank on, or
//! nothing.
std::string cell_hint(std::string_view cell, const std::string &column_name);

//! The number of the line, from 1 on, that holds the given place.
std::uint64_t line_at(std::string_view text, std::size_t position);

//! The line on which a field of a record ends; with `field` beyond the record's last, the line on
//! which the record begins. `begin` is the start of record 0.
std::uint64_t line_of(std::string_view text, const csv_dialect &dialect, std::size_t begin,
                      std::uint64_t record, std::size_t field);

} // namespace vask::runner
