// Loading a file's columns into the kernel.
#pragma once

#include "cell_values.h"
#include "csv_header.h"
#include "csv_parser.h"
#include "load_fault.h"
#include "row_filter.h"
#include "source_text.h"
#include "stream_reader.h"

#include "vask/embed.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vask::runner {

struct load_request {
    csv_dialect dialect;
    //! The columns to load, by place in the file; the others are passed over.
    std::vector<bool> wanted;
    //! Types asked for, by place; the others are inferred.
    std::vector<std::pair<std::size_t, column_type>> forced;
    //! Columns whose values are printed as keys, by place; none: there are none.
    std::vector<bool> keys{};
    //! Which rows are loaded; null: all. Types are inferred from all rows.
    std::shared_ptr<const row_filter> filter{};
    missing_words missing{{"", "NA", "NaN"}};
    std::vector<file_data> further{}; //!< read behind the first one, with the same columns
    cell_format format{};
    ragged_records ragged = ragged_records::refused;
    //! Infers text for columns in which a number has a leading zero; off: the zero means nothing.
    bool keep_zeros = true;
    unsigned threads = 1;
    //! Text that one thread parses at a time: small enough that what lies between parsing and the
    //! kernel stays in the cache, large enough that starting a piece costs nothing.
    std::size_t chunk_bytes = std::size_t{4} << 20;
};

//! Different texts, by code.
struct word_list {
    std::vector<std::string_view> words;
    std::unique_ptr<char[]> bytes; // of the words
};

struct table_column {
    column_type type{};
    std::uint64_t missing = 0;
    //! Void head from 0 on; an empty handle for a column not asked for. Of texts, the codes of
    //! words.
    refkernel::bat values;
    std::shared_ptr<const word_list> words{};
    //! Of a key whose type was inferred: a cell that is not how its number is printed.
    std::optional<std::string> respelled{};
    time_spellings times{}; //!< of dates and timestamps
    //! Of a key whose type was inferred: how all its times are written; nothing if not alike.
    std::optional<time_style> key_style{};
    bool is_derived = false; //!< worked out, and in no file
};

struct loaded_table {
    std::uint64_t rows = 0;
    std::vector<table_column> columns;      //!< by place in the file
    std::vector<std::uint64_t> file_rows{}; //!< of each file
};

/*
 * Loads the columns that are asked for. Types are guessed from a sample; where the guess turns out
 * too narrow, the columns concerned are read again from the text at the type that all their cells
 * fit in. The result does not depend on the number of threads. Throws user_error for a fault of the
 * data: the first one in the file.
 *
 * Memory: the columns, the text's table of different texts, and a few chunks; of a mapped or
 * compressed file only what is being read, unless it has a fault: it is told by the whole text.
 */
loaded_table load_table(const source_text &source, const csv_header &header,
                        const load_request &request);

struct text_cell {
    std::string cell;
    std::string line; //!< its number, and of several files the name
};

//! The first whole number of a column that 64 bits do not hold, which as a dbl may be equal to
//! another; nothing for a column whose type was asked for, or that has none. Parses the file from
//! its start, if the values leave such a number possible.
std::optional<text_cell> first_wide_integer(const source_text &source, const csv_header &header,
                                            const load_request &request, std::size_t place,
                                            const table_column &column);

//! The first cell of a column whose type was inferred that is neither missing nor a number, a date
//! or a time; nothing for a column whose type was asked for, or that has no such cell. Parses the
//! file from its start.
std::optional<text_cell> first_text(const source_text &source, const csv_header &header,
                                    const load_request &request, std::size_t column);

//! The same for the first cell that is no number.
std::optional<text_cell> first_no_number(const source_text &source, const csv_header &header,
                                         const load_request &request, std::size_t column);

//! The same for the first number with a leading zero.
std::optional<text_cell> first_leading_zero(const source_text &source, const csv_header &header,
                                            const load_request &request, std::size_t column);

//! The type that would be inferred for a column if leading zeros meant nothing. Loads it once more.
column_type type_without_zeros(const source_text &source, const csv_header &header,
                               load_request request, std::size_t column);

} // namespace vask::runner
