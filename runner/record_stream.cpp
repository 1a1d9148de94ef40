#include "record_stream.h"

#include "record_chunks.h"

#include <algorithm>

namespace vask::runner {

// For so many bytes behind those that are there.
std::span<char> record_piece::room(std::size_t bytes) {
    if (capacity_ - size_ < bytes) {
        const std::size_t capacity = std::max(size_ + bytes, 2 * size_);
        auto grown = std::make_unique_for_overwrite<char[]>(capacity);
        std::copy_n(bytes_.get(), size_, grown.get());
        bytes_ = std::move(grown);
        capacity_ = capacity;
    }
    return {bytes_.get() + size_, bytes};
}

record_stream::record_stream(const source_text &source, std::size_t data_begin, char quote,
                             std::size_t piece_bytes)
    : reader_(source), quote_(quote), piece_bytes_(std::max<std::size_t>(piece_bytes, 1)) {
    constexpr std::size_t header_block = std::size_t{64} << 10;
    std::vector<char> header(std::min(data_begin, header_block));
    for (std::size_t left = data_begin; left > 0 && !at_end_;) {
        const std::size_t got =
            reader_.read(std::span(header).first(std::min(left, header.size())));
        at_end_ = got == 0;
        left -= got;
    }
}

bool record_stream::next(record_piece &piece) {
    piece.size_ = 0;
    piece.max_records_ = 0;
    piece.has_nul_ = false;
    std::ranges::copy(rest_, piece.room(rest_.size()).begin());
    piece.size_ = rest_.size();
    rest_.clear();
    bool quoted = false;
    std::size_t counted = 0;
    for (std::size_t end = 0; end == 0;) {
        if (!at_end_) {
            const std::span<char> room = piece.room(piece_bytes_);
            const std::size_t got = reader_.read(room);
            at_end_ = got < room.size();
            piece.size_ += got;
        }
        const std::string_view fresh = piece.text().substr(counted);
        const byte_census found =
            take_census(fresh, counted == 0 ? '\0' : piece.bytes_[counted - 1], quote_);
        quoted ^= found.quotes % 2 != 0;
        piece.max_records_ += found.line_ends;
        piece.has_nul_ |= found.nuls != 0;
        if (at_end_) {
            ++piece.max_records_; // the last one may have no newline
            break;
        }
        const std::size_t last = last_record_end(fresh, quoted, quote_);
        end = last == 0 ? 0 : counted + last;
        if (end != 0) {
            rest_.assign(piece.bytes_.get() + end, piece.bytes_.get() + piece.size_);
            piece.size_ = end;
        }
        counted = piece.size_;
    }
    return piece.size_ != 0;
}

} // namespace vask::runner
