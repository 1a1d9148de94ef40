#include "table/column_texts.h"

#include "kernel/column.h"
#include "table/element_types.h"
#include "table/errors.h"
#include "table/kernel_column.h"
#include "table/pieces.h"
#include "table/text_encoder.h"
#include "table/text_order.h"
#include "table/validation.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <span>
#include <type_traits>
#include <utility>

namespace vask::table {
namespace {

using refkernel::nil_of;

// The offsets between are looked at when the texts are.
template <class Offset>
void check_offsets(const piece &p, const std::string &name) {
    const Offset *const offsets = values_of<Offset>(p);
    if (offsets[0] < 0)
        fail(VASK_BAD_DATA, "column '{}': the first offset of a batch is negative", shown(name));
    if (p.bytes == nullptr && offsets[p.rows] != offsets[0])
        fail(VASK_BAD_DATA, "column '{}': the buffer of its texts is missing", shown(name));
}

// Of an array that was checked.
text_chunk chunk_of(const piece &p, const std::string &name) {
    text_chunk chunk{};
    chunk.rows = p.rows;
    chunk.validity = p.validity;
    chunk.first_bit = p.offset;
    // A producer may leave out the bytes of texts that are all empty.
    static constexpr char nothing = 0;
    chunk.bytes = p.bytes != nullptr ? p.bytes : &nothing;
    chunk.view_buffers = p.view_buffers;
    if (p.rows == 0) {
        chunk.kind = text_chunk::layout::views;
        return chunk;
    }
    if (p.text_format == 'v') {
        check_views(p, name);
        chunk.kind = text_chunk::layout::views;
        chunk.places = static_cast<const char *>(p.values) + 16 * p.offset;
    } else if (p.text_format == 'u' || p.text_format == 'z') {
        check_offsets<std::int32_t>(p, name);
        chunk.kind = text_chunk::layout::offsets32;
        chunk.places = values_of<std::int32_t>(p);
    } else {
        check_offsets<std::int64_t>(p, name);
        chunk.kind = text_chunk::layout::offsets64;
        chunk.places = values_of<std::int64_t>(p);
    }
    return chunk;
}

encoded_texts encode(std::span<const text_chunk> chunks, std::span<std::int32_t> codes,
                     const std::string &name) {
    try {
        return encode_texts(chunks, codes, nil_of<std::int32_t>());
    } catch (const malformed_texts &error) {
        fail(VASK_BAD_DATA, "column '{}': the offsets of row {} go backwards or too far",
             shown(name), error.row);
    }
}

bool same_dictionary(const piece &a, const piece &b) {
    return a.values == b.values && a.bytes == b.bytes && a.rows == b.rows && a.offset == b.offset &&
           a.validity == b.validity && a.view_buffers == b.view_buffers;
}

// Codes of the entries of all different dictionaries, and from where on each piece's are.
struct dictionary_codes {
    std::vector<std::int32_t> codes;
    std::vector<std::size_t> begin; // by piece
    encoded_texts encoded;
};

dictionary_codes encode_dictionaries(const std::vector<piece> &pieces, const std::string &name) {
    dictionary_codes result;
    std::vector<text_chunk> chunks;
    std::size_t entries = 0;
    const piece *last = nullptr;
    std::size_t last_begin = 0;
    for (const piece &p : pieces) {
        if (last == nullptr || !same_dictionary(*last, *p.dictionary)) {
            last = p.dictionary.get();
            last_begin = entries;
            chunks.push_back(chunk_of(*last, name));
            entries += static_cast<std::size_t>(last->rows);
        }
        result.begin.push_back(last_begin);
    }
    result.codes.resize(entries);
    result.encoded = encode(chunks, result.codes, name);
    return result;
}

template <class Index>
std::uint64_t look_up_codes(const piece &p, std::int64_t from, std::int64_t rows,
                            const std::int32_t *codes, std::int32_t *to, const std::string &name) {
    const Index *const indices = values_of<Index>(p);
    std::uint64_t missing = 0;
    for (std::int64_t i = 0; i < rows; ++i) {
        to[i] = nil_of<std::int32_t>();
        if (is_value(p, from + i))
            to[i] = codes[entry_of(indices, from + i, p.dictionary->rows, name)];
        missing += to[i] == nil_of<std::int32_t>() ? 1 : 0;
    }
    return missing;
}

} // namespace

void keep_words(texts &all, std::vector<std::string_view> words) {
    const auto held = std::make_shared<const std::vector<std::string_view>>(std::move(words));
    all.words = *held;
    all.held = held;
}

texts texts_of(const std::vector<piece> &pieces, std::size_t all_rows, const std::string &name,
               const teller &tell) {
    fresh_column<std::int32_t> codes(all_rows);
    texts result;
    if (!pieces.empty() && pieces.front().dictionary != nullptr) {
        dictionary_codes known = encode_dictionaries(pieces, name);
        std::atomic<std::uint64_t> missing{0};
        for_pieces(pieces,
                   [&](const piece &p, std::int64_t from, std::int64_t rows, std::size_t row) {
                       const auto i = static_cast<std::size_t>(&p - pieces.data());
                       visit_elements(p.index, [&]<class Index>(std::type_identity<Index>) {
                           if constexpr (std::is_integral_v<Index>)
                               missing += look_up_codes<Index>(p, from, rows,
                                                               known.codes.data() + known.begin[i],
                                                               codes.values.data() + row, name);
                       });
                   });
        keep_words(result, std::move(known.encoded.words));
        result.missing = missing;
    } else {
        std::vector<text_chunk> chunks;
        chunks.reserve(pieces.size());
        for (const piece &p : pieces)
            chunks.push_back(chunk_of(p, name));
        encoded_texts encoded = encode(chunks, codes.values, name);
        keep_words(result, std::move(encoded.words));
        result.missing = encoded.missing;
        tell(fmt::format("column '{}' was encoded: {} different texts", shown(name),
                         result.words.size()));
    }
    result.codes =
        std::move(codes).finish({.nil = result.missing > 0, .nonil = result.missing == 0});
    return result;
}

void rank_texts(texts &all) {
    std::vector<std::int32_t> by_rank = order_of_texts(all.words);
    std::vector<std::int32_t> rank(by_rank.size());
    for_rows(by_rank.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            rank[static_cast<std::size_t>(by_rank[i])] = static_cast<std::int32_t>(i);
    });
    const auto codes = all.codes.values<std::int32_t>();
    fresh_column<std::int32_t> ranks(codes.size());
    for_rows(codes.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t row = begin; row < end; ++row)
            ranks.values[row] = codes[row] == nil_of<std::int32_t>()
                                    ? codes[row]
                                    : rank[static_cast<std::size_t>(codes[row])];
    });
    all.by_rank = std::move(by_rank);
    all.rank = std::move(rank);
    all.ranks = std::move(ranks).finish({.nil = all.missing > 0, .nonil = all.missing == 0});
}

} // namespace vask::table
