#include "table/text_encoder.h"

#include "table/large_vector.h"
#include "table/parallel.h"
#include "table/text_buckets.h"
#include "table/text_dictionary.h"
#include "table/text_rows.h"
#include "table/validity_bits.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <limits>
#include <memory>
#include <random>

#include <tbb/task_arena.h>

namespace vask::table {

namespace {

using number = text_dictionary::number;

//! Rows that are worth a task of their own.
constexpr row_position task_rows = row_position{1} << 16;

//! Rows begin .. end - 1 of all chunks, and what one task finds in them.
struct row_range {
    row_position begin = 0;
    row_position end = 0;
    text_dictionary texts;
    std::uint64_t missing = 0;
    const char *malformed = nullptr;
    row_position malformed_row = 0;
};

// ---- rows to numbers of their range's texts ----------------------------------------------------

//! What a range writes: the number of a row's text plus the bias, in 32 bits.
struct written_codes {
    std::int32_t *codes; // of all chunks' rows
    std::int32_t bias;
    std::int32_t missing;
};

//! The texts of a block, and which of its rows have them.
struct text_block {
    static constexpr unsigned rows = text_dictionary::block_texts;

    text_key keys[rows];
    std::uint32_t hashes[rows];
    number numbers[rows];
    std::uint8_t row_of[rows];
};

//! The rows first .. first + n - 1 of a chunk, at most a block. `codes` is the first row's. Gives
//! the number of rows before the first malformed one.
template <class Texts>
VASK_ALWAYS_INLINE unsigned encode_block(const Texts &texts, row_position first, unsigned n,
                                         const text_hash &hash, text_dictionary &dictionary,
                                         text_block &block, const written_codes &to,
                                         std::int32_t *codes) {
    if (dictionary.is_cached())
        return dictionary.find_or_add_cached(
            n, [&](unsigned i, text_key &key) { return texts.load(first + i, hash, key); }, hash,
            [&](unsigned i) { return texts[first + i]; },
            [&](unsigned i, number found) {
                codes[i] = static_cast<std::int32_t>(found) + to.bias;
            });
    for (unsigned i = 0; i < n; ++i) {
        if (!texts.load(first + i, hash, block.keys[i])) [[unlikely]]
            return i;
        block.hashes[i] = hash(block.keys[i]);
    }
    dictionary.find_or_add(
        block.keys, block.hashes, n, [&](unsigned i) { return texts[first + i]; }, block.numbers);
    for (unsigned i = 0; i < n; ++i)
        codes[i] = static_cast<std::int32_t>(block.numbers[i]) + to.bias;
    return n;
}

//! The same of the rows whose bits are set in `valid`.
template <class Texts>
VASK_ALWAYS_INLINE unsigned encode_block(const Texts &texts, row_position first, unsigned n,
                                         std::uint64_t valid, const text_hash &hash,
                                         text_dictionary &dictionary, text_block &block,
                                         const written_codes &to, std::int32_t *codes) {
    unsigned values = 0;
    for (std::uint64_t left = valid; left != 0; left &= left - 1)
        block.row_of[values++] = static_cast<std::uint8_t>(std::countr_zero(left));
    const auto load = [&](unsigned i, text_key &key) {
        return texts.load(first + block.row_of[i], hash, key);
    };
    const auto text_of = [&](unsigned i) { return texts[first + block.row_of[i]]; };
    const auto put = [&](unsigned i, number found) {
        codes[block.row_of[i]] = static_cast<std::int32_t>(found) + to.bias;
    };
    std::fill_n(codes, n, to.missing);
    if (dictionary.is_cached()) {
        const unsigned done = dictionary.find_or_add_cached(values, load, hash, text_of, put);
        return done < values ? block.row_of[done] : n;
    }
    for (unsigned i = 0; i < values; ++i) {
        if (!load(i, block.keys[i])) [[unlikely]]
            return block.row_of[i];
        block.hashes[i] = hash(block.keys[i]);
    }
    dictionary.find_or_add(block.keys, block.hashes, values, text_of, block.numbers);
    for (unsigned i = 0; i < values; ++i)
        put(i, block.numbers[i]);
    return n;
}

//! Rows begin .. end - 1 of a chunk whose first row is `chunk_begin` of all.
template <class Texts>
void encode_chunk(const Texts &texts, const text_chunk &chunk, row_position chunk_begin,
                  row_position begin, row_position end, const text_hash &hash, row_range &range,
                  const written_codes &to) {
    with_best_instruction_set([&]() __attribute__((always_inline)) {
        text_block block;
        for (row_position row = begin; row < end;) {
            const auto n =
                static_cast<unsigned>(std::min<row_position>(text_block::rows, end - row));
            std::int32_t *codes = to.codes + chunk_begin + row;
            unsigned done = 0;
            const std::uint64_t all = ~std::uint64_t{0} >> (word_bits - n);
            const std::uint64_t valid = chunk.validity == nullptr
                                            ? all
                                            : load_bits(chunk.validity, chunk.first_bit + row, n);
            if (valid == all) {
                done = encode_block(texts, row, n, hash, range.texts, block, to, codes);
            } else {
                done = encode_block(texts, row, n, valid, hash, range.texts, block, to, codes);
                range.missing += n - static_cast<unsigned>(std::popcount(valid));
            }
            if (done < n) {
                range.malformed = "";
                range.malformed_row = chunk_begin + row + done;
                return;
            }
            row += n;
        }
    });
}

//! Until another range, or this one, has met more than `most_texts` texts in less than half of its
//! rows. Then `many` is true and what was written is worth nothing.
void encode_range(const text_rows &rows, std::size_t most_texts, const text_hash &hash,
                  row_range &range, std::atomic<bool> &many, const written_codes &to) {
    rows.for_each_chunk(
        range.begin, range.end,
        [&](const text_chunk &chunk, row_position chunk_begin, row_position begin,
            row_position end) {
            with_texts(chunk, [&](const auto &texts) {
                for (row_position row = begin; row < end && range.malformed == nullptr;
                     row += task_rows) {
                    end_if_cancelled();
                    encode_chunk(texts, chunk, chunk_begin, row, std::min(row + task_rows, end),
                                 hash, range, to);
                    if (range.texts.size() > most_texts &&
                        2 * (chunk_begin + row - range.begin) < range.end - range.begin)
                        many.store(true, std::memory_order_relaxed);
                    if (many.load(std::memory_order_relaxed))
                        return;
                }
            });
            if (range.malformed != nullptr)
                range.malformed = what_is_malformed(chunk);
            return range.malformed == nullptr && !many.load(std::memory_order_relaxed);
        });
}

// ---- the ranges' texts to codes ----------------------------------------------------------------

//! Where an earlier range has a range's text. Word 0: nowhere.
struct first_place {
    std::uint32_t range;
    number word;
};

//! Finds, for texts whose hashes have one prefix, the first range that has them. Nothing is written
//! for that range: each place is a line of memory, and most texts can be in one range alone.
void find_first_places(std::span<const row_range> ranges, std::uint32_t prefix,
                       unsigned prefix_bits, std::vector<std::vector<first_place>> &places) {
    struct slot {
        std::uint32_t hash;
        first_place place; // of word 0: free
    };
    std::size_t texts = 0;
    for (const row_range &range : ranges)
        range.texts.for_each_of_prefix(prefix, prefix_bits, [&](const auto &) { ++texts; });
    const std::size_t slot_count = std::bit_ceil(2 * texts + 2);
    const unsigned shift = 64 - static_cast<unsigned>(std::bit_width(slot_count - 1));
    std::vector<slot> slots(slot_count);
    for (std::uint32_t r = 0; r < ranges.size(); ++r) {
        const text_dictionary &mine = ranges[r].texts;
        mine.for_each_of_prefix(prefix, prefix_bits, [&](const text_dictionary::slot &text) {
            std::size_t at = std::uint64_t{text.hash} << 32 << prefix_bits >> shift;
            for (;; at = (at + 1) & (slot_count - 1)) {
                slot &s = slots[at];
                if (s.place.word == 0) {
                    s = {text.hash, {r, text.word}};
                    break;
                }
                if (s.hash == text.hash && s.place.range != r &&
                    ranges[s.place.range].texts.same(mine.key(text.word), mine.text(text.word),
                                                     s.place.word)) {
                    places[r][text.word] = s.place;
                    break;
                }
            }
        });
    }
}

//! Codes of the ranges' texts by number; [0] is the code of a row without a value.
using code_maps = std::vector<std::vector<std::int32_t>>;

//! Numbers the different texts of all ranges by first occurrence.
code_maps number_texts(std::span<const row_range> ranges, std::int32_t missing_code,
                       std::vector<std::string_view> &words) {
    // A prefix has a few thousand texts, whose slots the first-level cache nearly holds.
    constexpr std::size_t texts_per_prefix = 4096;
    constexpr unsigned most_prefix_bits = 14;
    std::vector<std::vector<first_place>> places(ranges.size());
    std::size_t texts = 0;
    for (const row_range &range : ranges)
        texts += range.texts.size();
    for_parts(ranges.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t r = begin; r < end; ++r)
            resize_in_huge_pages(places[r], ranges[r].texts.size() + std::size_t{1});
    });
    const unsigned prefix_bits =
        std::min(static_cast<unsigned>(std::bit_width(texts / texts_per_prefix)), most_prefix_bits);
    for_parts(std::size_t{1} << prefix_bits, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t prefix = begin; prefix < end; ++prefix)
            find_first_places(ranges, static_cast<std::uint32_t>(prefix), prefix_bits, places);
    });

    const auto is_first = [&](std::size_t r, number word) { return places[r][word].word == 0; };
    std::vector<std::size_t> firsts(ranges.size() + 1);
    for_parts(ranges.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t r = begin; r < end; ++r)
            for (number word = 1; word <= ranges[r].texts.size(); ++word)
                firsts[r + 1] += is_first(r, word);
    });
    for (std::size_t r = 0; r < ranges.size(); ++r)
        firsts[r + 1] += firsts[r];
    resize_in_huge_pages(words, firsts.back());

    code_maps codes(ranges.size());
    for_parts(ranges.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t r = begin; r < end; ++r) {
            resize_in_huge_pages(codes[r], ranges[r].texts.size() + std::size_t{1}, missing_code);
            std::size_t code = firsts[r];
            for (number word = 1; word <= ranges[r].texts.size(); ++word)
                if (is_first(r, word)) {
                    words[code] = ranges[r].texts.text(word);
                    codes[r][word] = static_cast<std::int32_t>(code++);
                }
        }
    });
    for_parts(ranges.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t r = begin; r < end; ++r)
            for (number word = 1; word <= ranges[r].texts.size(); ++word)
                if (!is_first(r, word))
                    codes[r][word] = codes[places[r][word].range][places[r][word].word];
    });
    return codes;
}

} // namespace

text_hash::text_hash(std::uint32_t kept_bits) : kept_bits_(kept_bits) {
    static const auto secrets = [] {
        std::random_device random;
        const auto draw = [&] { return std::uint64_t{random()} << 32 | random(); };
        const std::uint64_t first = draw();
        return text_key{first, draw()};
    }();
    first_ = secrets.low;
    second_ = secrets.high;
}

encoded_texts encode_texts(std::span<const text_chunk> chunks, std::span<std::int32_t> codes,
                           std::int32_t missing_code) {
    const auto threads = static_cast<std::size_t>(tbb::this_task_arena::max_concurrency());
    return encode_texts(chunks, codes, missing_code,
                        {.ranges = std::min(threads, codes.size() / std::size_t{task_rows} + 1)});
}

encoded_texts encode_texts(std::span<const text_chunk> chunks, std::span<std::int32_t> codes,
                           std::int32_t missing_code, text_encoding_plan plan) {
    const text_rows all(chunks);
    const auto rows = static_cast<std::uint64_t>(all.rows());
    if (rows != codes.size() || rows > std::numeric_limits<std::int32_t>::max())
        throw std::length_error("texts and codes have different numbers of rows, or too many");

    encoded_texts result;
    if (rows == 0)
        return result;
    const text_hash hash(plan.hash_bits);
    std::vector<row_range> ranges(plan.ranges);
    for (std::size_t r = 0; r < ranges.size(); ++r) {
        ranges[r].begin = static_cast<row_position>(rows * r / ranges.size());
        ranges[r].end = static_cast<row_position>(rows * (r + 1) / ranges.size());
    }
    std::atomic<bool> many{false};
    for_each_number(ranges.size(), [&](std::size_t r) {
        // The first range's numbers are its codes, less one.
        encode_range(all, plan.most_texts, hash, ranges[r], many,
                     r == 0 ? written_codes{codes.data(), -1, missing_code}
                            : written_codes{codes.data(), 0, 0});
    });
    if (many) {
        ranges.clear();
        return encode_in_buckets(all, codes, missing_code, hash, plan.ranges);
    }
    for (const row_range &range : ranges) {
        if (range.malformed != nullptr)
            throw malformed_texts(range.malformed, static_cast<std::uint64_t>(range.malformed_row));
        result.missing += range.missing;
    }

    const code_maps maps = number_texts(ranges, missing_code, result.words);
    for (std::size_t r = 1; r < ranges.size(); ++r) {
        const std::int32_t *code_of = maps[r].data();
        std::int32_t *first = codes.data() + ranges[r].begin;
        for_parts(static_cast<std::size_t>(ranges[r].end - ranges[r].begin), std::size_t{task_rows},
                  [=](std::size_t begin, std::size_t end) {
                      with_best_instruction_set([=]() __attribute__((always_inline)) {
                          for (std::size_t i = begin; i < end; ++i)
                              first[i] = code_of[first[i]];
                      });
                  });
    }
    return result;
}

} // namespace vask::table
