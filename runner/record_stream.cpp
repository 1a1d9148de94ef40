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

// What is counted here is left to the thread that parses: the next piece waits for less.
void record_piece::count(char quote) {
    const byte_census found = take_census(text(), '\0', quote);
    max_records_ = found.line_ends + 1; // the last one may have no newline
    has_nul_ = found.nuls != 0;
}

bool record_stream::next(record_piece &piece) {
    piece.size_ = 0;
    std::ranges::copy(rest_, piece.room(rest_.size()).begin());
    piece.size_ = rest_.size();
    rest_.clear();
    bool quoted = false;
    std::size_t looked_at = 0;
    while (!at_end_) {
        const std::span<char> room = piece.room(piece_bytes_);
        const std::size_t got = reader_.read(room);
        at_end_ = got < room.size();
        piece.size_ += got;
        if (at_end_)
            break;
        const std::string_view fresh = piece.text().substr(looked_at);
        // Most files have no quotes, which is found out sooner than how many there are.
        if (fresh.find(quote_) != std::string_view::npos)
            quoted ^= std::count(fresh.begin(), fresh.end(), quote_) % 2 != 0;
        if (const std::size_t last = last_record_end(fresh, quoted, quote_); last != 0) {
            const std::size_t end = looked_at + last;
            rest_.assign(piece.bytes_.get() + end, piece.bytes_.get() + piece.size_);
            piece.size_ = end;
            break;
        }
        looked_at = piece.size_;
    }
    return piece.size_ != 0;
}

} // namespace vask::runner
