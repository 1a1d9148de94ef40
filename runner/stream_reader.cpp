#include "stream_reader.h"

#include "progress_bar.h"
#include "record_stream.h"
#include "worker_pool.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <mutex>
#include <utility>

namespace vask::runner {
namespace {

std::size_t width_of(column_type type) {
    return visit_cell_type(type, []<class T>(std::type_identity<T>) { return sizeof(T); });
}

struct piece_result {
    std::size_t file;
    chunk_outcome outcome{};
    std::vector<std::unique_ptr<char[]>> values{};
};

class stream_reader {
public:
    stream_reader(const std::vector<file_data> &files, const reading_rules &rules,
                  const std::vector<column_target> &targets, std::size_t piece_bytes)
        : files_(files), rules_(rules), targets_(targets), piece_bytes_(piece_bytes) {}

    //! What one thread does, until nothing is left. False for a fault of the text.
    bool work() {
        record_piece piece;
        try {
            while (piece_result *const result = next(piece))
                if (!read(piece, *result))
                    failed_ = true;
        } catch (...) {
            failed_ = true; // so that the others end, too
            throw;
        }
        return !failed_;
    }

    std::uint64_t bytes_done() const { return bytes_done_; }

    streamed_pieces take() {
        streamed_pieces all;
        for (piece_result &each : results_) {
            all.records.push_back(each.outcome.records);
            all.outcomes.push_back(std::move(each.outcome));
            all.files.push_back(each.file);
            all.values.push_back(std::move(each.values));
        }
        return all;
    }

private:
    piece_result *next(record_piece &piece) {
        const std::scoped_lock lock(mutex_);
        for (; !failed_ && file_ < files_.size(); ++file_) {
            const file_data &file = files_[file_];
            if (!stream_)
                stream_.emplace(*file.source, file.data_begin, rules_.dialect.quote(),
                                piece_bytes_);
            const bool found = stream_->next(piece);
            bytes_done_ = bytes_before_ + stream_->consumed();
            if (found)
                return &results_.emplace_back(piece_result{file_});
            bytes_before_ += file.source->file_bytes();
            stream_.reset();
        }
        return nullptr;
    }

    bool read(record_piece &piece, piece_result &result) const {
        piece.count(rules_.dialect.quote());
        if (piece.has_nul())
            return false;
        std::vector<column_target> targets = targets_;
        result.values.resize(targets.size());
        for (std::size_t i = 0; i < targets.size(); ++i) {
            if (!targets[i].wanted || targets[i].type == column_type::str)
                continue;
            result.values[i] = std::make_unique_for_overwrite<char[]>(piece.max_records() *
                                                                      width_of(targets[i].type));
            targets[i].values = result.values[i].get();
        }
        reading_rules rules = rules_;
        rules.file_name = files_[result.file].source->name();
        const std::string_view text = piece.text();
        result.outcome = read_chunk(text, {0, text.size(), piece.max_records()}, rules, targets, 0);
        if (result.outcome.fault)
            return false;
        // A filter may have kept few of the rows.
        if (result.outcome.records < piece.max_records() / 2)
            for (std::size_t i = 0; i < targets.size(); ++i)
                if (result.values[i])
                    shrink(result.values[i], result.outcome.records * width_of(targets[i].type));
        return true;
    }

    static void shrink(std::unique_ptr<char[]> &values, std::size_t bytes) {
        auto fewer = std::make_unique_for_overwrite<char[]>(bytes);
        std::copy_n(values.get(), bytes, fewer.get());
        values = std::move(fewer);
    }

    const std::vector<file_data> &files_;
    const reading_rules &rules_;
    const std::vector<column_target> &targets_;
    const std::size_t piece_bytes_;
    std::mutex mutex_;
    std::size_t file_ = 0; // whose pieces are read
    std::optional<record_stream> stream_;
    std::deque<piece_result> results_; // which stay where they are
    std::uint64_t bytes_before_ = 0;   // in files that are done with
    std::atomic<std::uint64_t> bytes_done_ = 0;
    std::atomic<bool> failed_ = false;
};

} // namespace

refkernel::bat streamed_pieces::gather(std::size_t column, column_type type, std::uint64_t rows,
                                       unsigned threads) {
    refkernel::bat result =
        refkernel::make_empty(TYPE_void, type_code(type), static_cast<BUN>(rows));
    char *const base = static_cast<char *>(result->tail->base);
    const std::size_t width = width_of(type);
    std::vector<std::uint64_t> first_rows;
    std::uint64_t row = 0;
    for (const std::uint64_t here : records) {
        first_rows.push_back(row);
        row += here;
    }
    run_pieces(records.size(), threads, [&](std::size_t i) {
        std::unique_ptr<char[]> &from = values[i][column];
        std::copy_n(from.get(), records[i] * width, base + first_rows[i] * width);
        from.reset();
    });
    return result;
}

std::optional<streamed_pieces> read_streams(const std::vector<file_data> &files,
                                            const reading_rules &rules,
                                            const std::vector<column_target> &targets,
                                            std::size_t piece_bytes, unsigned threads) {
    stream_reader reader(files, rules, targets, piece_bytes);
    std::uint64_t bytes = 0;
    for (const file_data &file : files)
        bytes += file.source->file_bytes();
    progress_bar progress(bytes);
    std::atomic<bool> is_good = true;
    run_pieces(
        threads, threads,
        [&](std::size_t) {
            if (!reader.work())
                is_good = false;
        },
        [&] { progress.draw(reader.bytes_done()); });
    if (!is_good)
        return std::nullopt;
    return reader.take();
}

} // namespace vask::runner
