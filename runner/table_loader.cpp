#include "table_loader.h"

#include "chunk_reader.h"
#include "load_fault.h"
#include "progress_bar.h"
#include "record_chunks.h"
#include "type_inference.h"
#include "user_error.h"
#include "worker_pool.h"

#include "table/kernel_column.h"
#include "table/text_encoder.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <span>

namespace vask::runner {
namespace {

//! The largest number of rows of a kernel's column.
constexpr std::uint64_t most_rows = NO_BUN - 1;

//! Places of a compressed file's start at which records are sampled.
constexpr std::size_t start_samples = 8;

std::vector<file_data> files_of(const source_text &source, const csv_header &header,
                                const load_request &request) {
    std::vector<file_data> files{{&source, header.data_begin}};
    files.insert(files.end(), request.further.begin(), request.further.end());
    return files;
}

class table_loader {
public:
    table_loader(const source_text &source, const csv_header &header, const load_request &request)
        : source_(source),
          header_(header),
          request_(request),
          files_(files_of(source, header, request)) {}

    loaded_table load() {
        split();
        plan_columns();
        read_all();
        return std::move(table_);
    }

    //! Does not hold the texts of compressed files. Nothing for a fault of a text.
    std::optional<loaded_table> load_streamed() {
        is_streamed_ = true;
        for (const file_data &file : files_)
            guess_from_start(file);
        plan_columns();
        read_all();
        if (has_fault_)
            return std::nullopt;
        return std::move(table_);
    }

private:
    struct file_chunk : record_chunk {
        std::size_t file;
    };

    void read_all() {
        std::vector<std::size_t> columns;
        for (std::size_t i = 0; i < plan_.size(); ++i)
            if (plan_[i].wanted)
                columns.push_back(i);
        // The first pass also checks that all records have as many fields as the header.
        do
            columns = read_columns(columns);
        while (!columns.empty());
        for (const file_data &file : files_)
            if (file.source->was_changed())
                fail_changed(*file.source);
    }

    void split() {
        for (std::size_t number = 0; number < files_.size(); ++number) {
            const file_data &file = files_[number];
            const std::string_view text = file.source->text();
            const auto release = [&file](std::size_t begin, std::size_t end) {
                file.source->release_pages(begin, end);
            };
            record_chunks found = split_records(text, file.data_begin, request_.dialect.quote(),
                                                request_.chunk_bytes, request_.threads, release);
            release(file.data_begin, text.size());
            if (found.nul_byte)
                fail("{}:{}: NUL byte; this is no text file, or one in UTF-16: convert it to UTF-8 "
                     "first",
                     file.source->name(), line_at(text, *found.nul_byte));
            guess(text, found.chunks);
            for (const record_chunk &chunk : found.chunks) {
                chunks_.push_back({chunk, number});
                first_rows_.push_back(room_);
                room_ += chunk.max_records;
            }
            bytes_ += text.size();
        }
        check_rows(room_);
    }

    void check_rows(std::uint64_t rows) const {
        if (rows > most_rows)
            fail("{}: {} lines are more rows than a column can have ({}); split the file",
                 source_.name(), rows, most_rows);
    }

    void guess_from_start(const file_data &file) {
        const std::string_view text = file.source->start().substr(0, source_text::usual_start);
        const std::size_t begin = std::min(file.data_begin, text.size());
        record_chunks found =
            split_records(text, begin, request_.dialect.quote(),
                          (text.size() - begin) / start_samples + 1, request_.threads);
        // The text may end within the last record.
        if (!found.chunks.empty())
            found.chunks.pop_back();
        guess(text, found.chunks);
    }

    // Of several files, each type is the widest.
    void guess(std::string_view text, const std::vector<record_chunk> &chunks) {
        const std::vector<std::optional<column_type>> types =
            guess_types(text, chunks, request_.dialect, request_.missing, request_.keep_zeros,
                        request_.format, request_.ragged, header_.names.size());
        types_.resize(types.size());
        for (std::size_t i = 0; i < types.size(); ++i)
            types_[i] = wider(types_[i], types[i]);
    }

    void plan_columns() {
        for (std::size_t i = 0; i < types_.size(); ++i)
            plan_.push_back({.wanted = request_.wanted[i],
                             .type = types_[i].value_or(column_type::int_),
                             .keep_zeros = request_.keep_zeros,
                             .is_key = i < request_.keys.size() && request_.keys[i]});
        for (const auto &[column, type] : request_.forced) {
            plan_[column].type = type;
            plan_[column].forced = true;
            plan_[column].keep_zeros = false;
            plan_[column].is_key = false;
        }
        table_.columns.resize(plan_.size());
    }

    // One pass over the text for some of the columns. The result is those for which the pass found
    // that they need a wider type, with that type planned.
    std::vector<std::size_t> read_columns(const std::vector<std::size_t> &columns) {
        for (column_target &target : plan_)
            target.wanted = false;
        for (const std::size_t i : columns)
            make_room(i);
        std::vector<chunk_outcome> outcomes = is_streamed_ ? read_pieces() : read_chunks();
        if (has_fault_)
            return {};

        const std::uint64_t rows = std::accumulate(
            outcomes.begin(), outcomes.end(), std::uint64_t{0},
            [](std::uint64_t sum, const chunk_outcome &o) { return sum + o.records; });
        std::vector<std::uint64_t> file_rows(files_.size());
        for (std::size_t i = 0; i < outcomes.size(); ++i)
            file_rows[is_streamed_ ? pieces_.files[i] : chunks_[i].file] += outcomes[i].records;
        check_rows(rows);
        // Columns of an earlier pass have that pass's rows.
        for (std::size_t file = 0; passes_ > 0 && file < files_.size(); ++file)
            if (file_rows[file] != table_.file_rows[file])
                fail_changed(*files_[file].source);
        ++passes_;
        table_.rows = rows;
        table_.file_rows = std::move(file_rows);
        std::vector<std::size_t> too_narrow;
        for (const std::size_t i : columns) {
            // A type that was planned for want of a value counts only where a cell is of it.
            std::optional<column_type> needed;
            std::uint64_t missing = 0;
            for (const chunk_outcome &outcome : outcomes) {
                const column_outcome &column = outcome.columns[i];
                if (column.any_fits)
                    needed = wider(needed, plan_[i].type);
                needed = wider(needed, column.misfits);
                missing += column.missing;
            }
            if (needed.value_or(plan_[i].type) != plan_[i].type) {
                plan_[i].type = *needed;
                too_narrow.push_back(i);
            } else {
                finish_column(i, outcomes, missing);
            }
        }
        return too_narrow;
    }

    [[noreturn]] static void fail_changed(const source_text &source) {
        throw std::runtime_error(describe_change(source));
    }

    void make_room(std::size_t i) {
        column_target &target = plan_[i];
        target.wanted = true;
        refkernel::bat &values = table_.columns[i].values;
        values.reset();
        if (target.type != column_type::str && !is_streamed_) {
            values =
                refkernel::make_empty(TYPE_void, type_code(target.type), static_cast<BUN>(room_));
            target.values = values->tail->base;
        }
    }

    std::vector<chunk_outcome> read_chunks() {
        std::vector<chunk_outcome> outcomes(chunks_.size());
        std::atomic<std::uint64_t> bytes_done = 0;
        progress_bar progress(bytes_);
        run_pieces(
            chunks_.size(), request_.threads,
            [&](std::size_t i) {
                outcomes[i] = read_one(i);
                bytes_done += chunks_[i].end - chunks_[i].begin;
            },
            [&] { progress.draw(bytes_done); });
        return outcomes;
    }

    reading_rules rules(std::string_view file_name) const {
        return {request_.dialect, request_.missing,      request_.format,
                request_.ragged,  request_.filter.get(), file_name};
    }

    std::vector<chunk_outcome> read_pieces() {
        try {
            auto pieces =
                read_streams(files_, rules({}), plan_, request_.chunk_bytes, request_.threads);
            has_fault_ = !pieces;
            if (pieces)
                pieces_ = std::move(*pieces);
        } catch (const user_error &) {
            for (const file_data &file : files_)
                if (file.source->was_changed())
                    fail_changed(*file.source);
            throw;
        }
        return std::move(pieces_.outcomes);
    }

    chunk_outcome read_one(std::size_t i) {
        const file_chunk &chunk = chunks_[i];
        const source_text &source = *files_[chunk.file].source;
        chunk_outcome outcome =
            read_chunk(source.text(), chunk, rules(source.name()), plan_, first_rows_[i]);
        // Chunks before this one still run, so the file's first fault is the one that is told.
        if (outcome.fault && outcome.fault->what == load_fault::kind::changed)
            fail_changed(source);
        if (outcome.fault)
            throw user_error(describe(*outcome.fault, source, header_, request_.dialect, chunk));
        source.release_pages(chunk.begin, chunk.end);
        return outcome;
    }

    void finish_column(std::size_t i, std::vector<chunk_outcome> &outcomes, std::uint64_t missing) {
        table_column &column = table_.columns[i];
        column.type = plan_[i].type;
        column.missing = missing;
        for (const chunk_outcome &outcome : outcomes)
            if (!column.respelled)
                column.respelled = outcome.columns[i].respelled;
        for (const chunk_outcome &outcome : outcomes)
            column.times.add(outcome.columns[i].times);
        if (plan_[i].is_key && is_time_type(column.type)) {
            column.respelled = column.times.other();
            column.key_style = column.times.style();
        }
        if (column.type == column_type::str) {
            encode_texts(i, outcomes);
            return;
        }
        if (is_streamed_)
            column.values = pieces_.gather(i, column.type, table_.rows, request_.threads);
        BAT *const values = column.values.record();
        if (!is_streamed_)
            close_gaps(*values->tail, outcomes);
        BATsetcount(values, static_cast<BUN>(table_.rows));
        values->tail->nil = missing > 0;
        values->tail->nonil = missing == 0;
        values->state->access = ACCESS_READ;
    }

    void encode_texts(std::size_t i, std::vector<chunk_outcome> &outcomes) {
        std::vector<text_cells> texts;
        texts.reserve(outcomes.size());
        for (chunk_outcome &outcome : outcomes)
            texts.push_back(std::move(outcome.columns[i].texts));
        std::vector<table::text_chunk> chunks;
        for (const text_cells &each : texts)
            each.append_chunks(chunks);
        table::fresh_column<std::int32_t> codes(table_.rows);
        table::encoded_texts encoded =
            table::encode_texts(chunks, codes.values, refkernel::nil_of<std::int32_t>());
        table_column &column = table_.columns[i];
        column.words = with_own_bytes(std::move(encoded.words));
        column.values =
            std::move(codes).finish({.nil = column.missing > 0, .nonil = column.missing == 0});
    }

    // The cells hold each text as often as it occurs.
    std::shared_ptr<const word_list> with_own_bytes(std::vector<std::string_view> words) const {
        constexpr std::size_t piece_words = std::size_t{1} << 15;
        const std::size_t pieces = (words.size() + piece_words - 1) / piece_words;
        const auto words_of = [&](std::size_t piece) {
            return std::span(words)
                .subspan(piece * piece_words)
                .first(std::min(piece_words, words.size() - piece * piece_words));
        };
        std::vector<std::size_t> begins(pieces + 1);
        run_pieces(pieces, request_.threads, [&](std::size_t piece) {
            for (const std::string_view word : words_of(piece))
                begins[piece + 1] += word.size();
        });
        std::partial_sum(begins.begin(), begins.end(), begins.begin());
        auto result = std::make_shared<word_list>();
        result->bytes = std::make_unique_for_overwrite<char[]>(begins.back());
        run_pieces(pieces, request_.threads, [&](std::size_t piece) {
            char *to = result->bytes.get() + begins[piece];
            for (std::string_view &word : words_of(piece)) {
                std::copy(word.begin(), word.end(), to);
                word = {to, word.size()};
                to += word.size();
            }
        });
        result->words = std::move(words);
        return result;
    }

    // A chunk with quoted newlines or blank lines has fewer records than room.
    void close_gaps(const BATcol &column, const std::vector<chunk_outcome> &outcomes) const {
        const auto width = static_cast<std::size_t>(column.width);
        char *const base = static_cast<char *>(column.base);
        std::uint64_t row = 0;
        for (std::size_t i = 0; i < outcomes.size(); ++i) {
            if (row != first_rows_[i])
                std::memmove(base + row * width, base + first_rows_[i] * width,
                             outcomes[i].records * width);
            row += outcomes[i].records;
        }
    }

    const source_text &source_;
    const csv_header &header_;
    const load_request &request_;
    std::vector<file_data> files_; // in order, the first one before the others
    std::uint64_t bytes_ = 0;
    std::vector<std::optional<column_type>> types_; // guessed
    std::vector<file_chunk> chunks_;
    std::vector<std::uint64_t> first_rows_; // of each chunk, as if each had all rows it may have
    std::uint64_t room_ = 0;                // the most rows there can be
    std::vector<column_target> plan_;
    loaded_table table_;
    int passes_ = 0;
    bool is_streamed_ = false;
    streamed_pieces pieces_; // of the last pass
    bool has_fault_ = false;
};

bool is_text(std::string_view, column_type type) {
    return type == column_type::str;
}

bool is_no_number(std::string_view, column_type type) {
    return type > column_type::dbl;
}

bool has_zero_in_front(std::string_view cell, column_type type) {
    return type <= column_type::dbl && has_leading_zero(cell);
}

bool is_wide_integer(std::string_view cell, column_type type) {
    const std::size_t sign = cell.starts_with('-') || cell.starts_with('+') ? 1 : 0;
    return cell.size() > sign && type == column_type::dbl &&
           cell.find_first_not_of("0123456789", sign) == std::string_view::npos;
}

// Whether a cell, as plain numbers are written, is one that is looked for.
using cell_test = bool (*)(std::string_view cell, column_type type);

struct cell_finder {
    const missing_words &missing;
    const cell_format &format;
    cell_test wanted;
    std::size_t target;
    std::size_t column = 0;
    std::uint64_t records = 0;
    std::string found;

    void field(std::string_view cell) {
        if (column++ != target || !found.empty() || missing.contains(cell))
            return;
        std::string memory;
        const auto plain = plain_spelling(cell, format.numbers, memory);
        if (wanted(plain.value_or(cell), inferred_type(cell, false, format)))
            found = cell.empty() ? "(empty)" : cell;
    }
    void record() {
        column = 0;
        if (found.empty())
            ++records;
    }
    bool stopped() const { return !found.empty(); }
};

std::optional<text_cell> first_cell(cell_test wanted, const source_text &source,
                                    const csv_header &header, const load_request &request,
                                    std::size_t column) {
    for (const auto &[forced, type] : request.forced)
        if (forced == column)
            return std::nullopt;
    for (const file_data &file : files_of(source, header, request)) {
        cell_finder finder{request.missing, request.format, wanted, column, 0, 0, {}};
        csv_parser parser(request.dialect, finder);
        const std::string_view text = file.source->text();
        parser.feed(text.substr(file.data_begin));
        parser.finish();
        if (finder.found.empty())
            continue;
        const std::uint64_t line =
            line_of(text, request.dialect, file.data_begin, finder.records, column);
        return text_cell{finder.found, request.further.empty()
                                           ? fmt::format("{}", line)
                                           : fmt::format("{} of {}", line, file.source->name())};
    }
    return std::nullopt;
}

} // namespace

loaded_table load_table(const source_text &source, const csv_header &header,
                        const load_request &request) {
    const std::vector<file_data> files = files_of(source, header, request);
    if (std::ranges::any_of(files,
                            [](const file_data &file) { return file.source->is_packed(); })) {
        if (auto table = table_loader(source, header, request).load_streamed())
            return std::move(*table);
        for (const file_data &file : files)
            static_cast<void>(file.source->text());
    }
    return table_loader(source, header, request).load();
}

std::optional<text_cell> first_text(const source_text &source, const csv_header &header,
                                    const load_request &request, std::size_t column) {
    return first_cell(is_text, source, header, request, column);
}

std::optional<text_cell> first_no_number(const source_text &source, const csv_header &header,
                                         const load_request &request, std::size_t column) {
    return first_cell(is_no_number, source, header, request, column);
}

std::optional<text_cell> first_leading_zero(const source_text &source, const csv_header &header,
                                            const load_request &request, std::size_t column) {
    return first_cell(has_zero_in_front, source, header, request, column);
}

column_type type_without_zeros(const source_text &source, const csv_header &header,
                               load_request request, std::size_t column) {
    request.wanted.assign(request.wanted.size(), false);
    request.wanted[column] = true;
    request.keep_zeros = false;
    return load_table(source, header, request).columns[column].type;
}

std::optional<text_cell> first_wide_integer(const source_text &source, const csv_header &header,
                                            const load_request &request, std::size_t place,
                                            const table_column &column) {
    if (column.type != column_type::dbl)
        return std::nullopt;
    const auto values = column.values.values<dbl>();
    const dbl nil = refkernel::nil_of<dbl>();
    if (std::none_of(values.begin(), values.end(),
                     [nil](dbl value) { return std::abs(value) >= 0x1p63 && value != nil; }))
        return std::nullopt;
    return first_cell(is_wide_integer, source, header, request, place);
}

} // namespace vask::runner
