#include "record_chunks.h"

#include "worker_pool.h"

#include <algorithm>

namespace vask::runner {
namespace {

char byte_before(std::string_view text, std::size_t at) {
    return at == 0 ? '\0' : text[at - 1];
}

// The first place at or behind `from` that follows a newline outside quotes. Only "\n" ends the
// search: a text whose lines end in lone "\r" becomes one chunk.
std::size_t record_boundary(std::string_view text, std::size_t from, bool quoted, char quote) {
    for (std::size_t at = from; at < text.size(); ++at) {
        if (text[at] == quote)
            quoted = !quoted;
        if (text[at] == '\n' && !quoted)
            return at + 1;
    }
    return text.size();
}

} // namespace

// Counts bytes in blocks that keep the counters within one byte: that is what lets the compiler
// compare and add sixteen or more bytes at a time.
byte_census take_census(std::string_view text, char previous, char quote) {
    constexpr std::size_t block_bytes = 255;
    byte_census total;
    for (std::size_t begin = 0; begin < text.size(); begin += block_bytes) {
        const std::size_t size = std::min(block_bytes, text.size() - begin);
        const char *const block = text.data() + begin;
        const auto ends_line = [](char before, char c) {
            return c == '\r' || (c == '\n' && before != '\r');
        };
        std::uint8_t line_ends = ends_line(begin == 0 ? previous : block[-1], block[0]);
        std::uint8_t quotes = block[0] == quote;
        std::uint8_t nuls = block[0] == '\0';
        for (std::size_t i = 1; i < size; ++i) {
            const bool line_end =
                (block[i] == '\r') | ((block[i] == '\n') & (block[i - 1] != '\r'));
            line_ends = static_cast<std::uint8_t>(line_ends + line_end);
            quotes = static_cast<std::uint8_t>(quotes + (block[i] == quote));
            nuls = static_cast<std::uint8_t>(nuls + (block[i] == '\0'));
        }
        total.line_ends += line_ends;
        total.quotes += quotes;
        total.nuls += nuls;
    }
    return total;
}

std::size_t last_record_end(std::string_view text, bool quoted, char quote) {
    for (std::size_t end = text.size(); end > 0; --end) {
        if (text[end - 1] == '\n' && !quoted)
            return end;
        if (text[end - 1] == quote)
            quoted = !quoted;
    }
    return 0;
}

std::size_t end_outside_quotes(std::string_view text, std::size_t begin, std::size_t end,
                               char quote) {
    const std::string_view records = text.substr(begin, end - begin);
    const bool quoted = std::count(records.begin(), records.end(), quote) % 2 != 0;
    return quoted ? record_boundary(text, end, true, quote) : end;
}

std::uint64_t count_line_ends(std::string_view text, char previous) {
    return take_census(text, previous, '\0').line_ends;
}

std::size_t end_of_line(std::string_view text, std::size_t from) {
    const std::size_t end = text.find_first_of("\r\n", from);
    if (end == std::string_view::npos)
        return text.size();
    return end + (text.substr(end).starts_with("\r\n") ? 2 : 1);
}

record_chunks split_records(std::string_view text, std::size_t begin, char quote,
                            std::size_t chunk_bytes, unsigned threads,
                            const std::function<void(std::size_t, std::size_t)> &done_with) {
    const std::size_t pieces = (text.size() - begin + chunk_bytes - 1) / chunk_bytes;
    const auto cut = [&](std::size_t i) { return std::min(begin + i * chunk_bytes, text.size()); };
    std::vector<byte_census> counts(pieces);
    run_pieces(pieces, threads, [&](std::size_t i) {
        counts[i] =
            take_census(text.substr(cut(i), cut(i + 1) - cut(i)), byte_before(text, cut(i)), quote);
        done_with(cut(i), cut(i + 1));
    });

    record_chunks result;
    for (std::size_t i = 0; i < pieces; ++i) {
        if (counts[i].nuls == 0)
            continue;
        result.nul_byte = text.find('\0', cut(i));
        return result;
    }
    bool quoted = false;
    std::size_t chunk_begin = begin;
    std::uint64_t line_ends = 0; // of the pieces up to here that belong to the open chunk
    for (std::size_t i = 0; i < pieces; ++i) {
        quoted ^= (counts[i].quotes & 1) != 0;
        line_ends += counts[i].line_ends;
        const std::size_t piece_end = cut(i + 1);
        const std::size_t boundary =
            record_boundary(text.substr(0, cut(i + 2)), piece_end, quoted, quote);
        // A record that spans the whole next piece takes that piece into this chunk.
        if (boundary == cut(i + 2) && boundary < text.size())
            continue;
        if (boundary == chunk_begin)
            continue;
        const std::uint64_t borrowed = count_line_ends(text.substr(piece_end, boundary - piece_end),
                                                       byte_before(text, piece_end));
        // The last record of the text may have no newline.
        const std::uint64_t unended = boundary == text.size() ? 1 : 0;
        result.chunks.push_back({chunk_begin, boundary, line_ends + borrowed + unended});
        chunk_begin = boundary;
        line_ends = std::uint64_t{0} - borrowed; // they are counted in the next piece once more
    }
    return result;
}

} // namespace vask::runner
