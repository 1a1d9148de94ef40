#include "table/text_buckets.h"

#include "table/large_vector.h"
#include "table/parallel.h"
#include "table/text_key.h"
#include "table/validity_bits.h"

#include "rows/bucket_grouping.h"
#include "rows/huge_pages.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <limits>
#include <string_view>
#include <vector>

namespace vask::table {

namespace {

// Of a long text's key, where its row is: in place of the upper bits of the length, which the texts
// are compared for anyway.
constexpr unsigned row_shift = 25;
constexpr std::uint64_t row_bits = std::uint64_t{0x7fffffff} << row_shift;
static_assert(row_bits >> 56 == 0);

// Of a row without a value: no text's key.
constexpr text_key missing_key{0, std::uint64_t{0x80} << 56};

constexpr row_position no_row = std::numeric_limits<row_position>::max();

text_key with_row(text_key key, row_position row) noexcept {
    return {key.low, (key.high & ~row_bits) | static_cast<std::uint64_t>(row) << row_shift};
}

row_position row_in(const text_key &key) noexcept {
    return static_cast<row_position>((key.high & row_bits) >> row_shift);
}

//! Keys of texts, the long ones with their rows.
struct text_keys {
    using key_type = text_key;

    const text_rows *rows;
    text_hash text_hash_;

    VASK_ALWAYS_INLINE std::uint64_t hash(const text_key &key) const noexcept {
        const std::uint64_t kept = key.is_whole_text() ? 0 : row_bits;
        return text_hash_.of_64_bits({key.low, key.high & ~kept});
    }

    VASK_ALWAYS_INLINE bool same(const text_key &a, const text_key &b) const noexcept {
        return a == b || (a.low == b.low && same_long_text(a, b));
    }

private:
    bool same_long_text(const text_key &a, const text_key &b) const noexcept {
        return !a.is_whole_text() && ((a.high ^ b.high) & ~row_bits) == 0 &&
               (*rows)[row_in(a)] == (*rows)[row_in(b)];
    }
};

void lower_to(std::atomic<row_position> &least, row_position row) noexcept {
    row_position known = least.load(std::memory_order_relaxed);
    while (row < known && !least.compare_exchange_weak(known, row, std::memory_order_relaxed))
        ;
}

//! Loads keys, and notes the first row without a value and the first malformed one.
class key_reader {
public:
    key_reader(const text_rows &rows, const text_hash &hash) : rows_(rows), hash_(hash) {}

    //! False if one of the rows is malformed.
    bool load(row_position begin, row_position end, text_key *keys) {
        bool fine = true;
        rows_.for_each_chunk(begin, end,
                             [&](const text_chunk &chunk, row_position chunk_begin,
                                 row_position own_begin, row_position own_end) {
                                 with_texts(chunk, [&](const auto &texts) {
                                     fine = load(texts, chunk, chunk_begin, own_begin, own_end,
                                                 keys + (chunk_begin + own_begin - begin));
                                 });
                                 return fine;
                             });
        return fine;
    }

    row_position first_missing() const noexcept { return missing_; }
    row_position first_malformed() const noexcept { return malformed_; }

private:
    template <class Texts>
    bool load(const Texts &texts, const text_chunk &chunk, row_position chunk_begin,
              row_position begin, row_position end, text_key *keys) {
        return with_best_instruction_set([&]() __attribute__((always_inline)) {
            row_position n = 0;
            for (row_position row = begin; row < end; row += n, keys += n) {
                n = std::min<row_position>(word_bits, end - row);
                const std::uint64_t all = ~std::uint64_t{0} >> (word_bits - n);
                const std::uint64_t valid =
                    chunk.validity == nullptr ? all
                                              : load_bits(chunk.validity, chunk.first_bit + row, n);
                if (valid != all)
                    lower_to(missing_, chunk_begin + row + std::countr_one(valid));
                for (row_position i = 0; i < n; ++i) {
                    if ((valid >> i & 1) == 0) {
                        keys[i] = missing_key;
                    } else if (!texts.load(row + i, hash_, keys[i])) [[unlikely]] {
                        lower_to(malformed_, chunk_begin + row + i);
                        return false;
                    } else if (!keys[i].is_whole_text()) {
                        keys[i] = with_row(keys[i], chunk_begin + row + i);
                    }
                }
            }
            return true;
        });
    }

    const text_rows &rows_;
    text_hash hash_;
    std::atomic<row_position> missing_{no_row};
    std::atomic<row_position> malformed_{no_row};
};

//! The codes of texts by their first rows.
class first_row_codes {
public:
    //! `firsts` ascend, below `rows`.
    first_row_codes(std::span<const oid> firsts, std::size_t rows)
        : words_(large_block<word>(rows / word_bits + 1)) {
        for_rows(rows / word_bits + 1, [&, this](std::size_t begin, std::size_t end) {
            const auto *first =
                std::lower_bound(firsts.data(), firsts.data() + firsts.size(), begin * word_bits);
            for (std::size_t i = begin; i < end; ++i) {
                word &own = words_[i];
                own = {0, static_cast<std::uint32_t>(first - firsts.data())};
                for (; first != firsts.data() + firsts.size() && *first / word_bits == i; ++first)
                    own.firsts |= std::uint64_t{1} << *first % word_bits;
            }
        });
    }

    VASK_ALWAYS_INLINE std::int32_t operator[](oid first) const noexcept {
        const word &own = words_[first / word_bits];
        const std::uint64_t before = own.firsts & ((std::uint64_t{1} << first % word_bits) - 1);
        return static_cast<std::int32_t>(own.codes_before +
                                         static_cast<std::uint32_t>(std::popcount(before)));
    }

private:
    //! Of 64 rows, so that a look takes one line of memory.
    struct word {
        std::uint64_t firsts;
        std::uint32_t codes_before;
    };

    gdk_block<word> words_;
};

} // namespace

const char *what_is_malformed(const text_chunk &chunk) noexcept {
    return chunk.kind == text_chunk::layout::views
               ? "a view of a text has a negative length or place"
               : "offsets of texts descend";
}

encoded_texts encode_in_buckets(const text_rows &rows, std::span<std::int32_t> codes,
                                std::int32_t missing_code, const text_hash &hash,
                                std::size_t range_count) {
    const vask_row_range all{0, static_cast<BUN>(codes.size())};
    gdk_vector<vask_row_range> ranges(range_count);
    for (std::size_t i = 0; i < range_count; ++i)
        ranges[i] = share_of(all, i, range_count);
    // The codes' memory holds first rows meanwhile.
    auto *const first_of = reinterpret_cast<oid *>(codes.data());
    const grouping_rows grouped{{ranges, run_in_tasks}, oid_reader(), first_of};
    key_reader reader(rows, hash);
    const key_loader<text_key> load = [&](BUN row, BUN n, std::uint32_t *, text_key *keys, bool) {
        return reader.load(row, row_position{row} + n, keys);
    };
    gdk_vector<oid> firsts;
    group_sink sink;
    sink.make_room = [&](BUN groups, extents_rows &to) {
        firsts = gdk_vector<oid>(groups);
        to.ids = firsts.data();
        return true;
    };
    const text_keys kind{&rows, hash};
    if (bucket_grouping<text_keys>(grouped, kind, load).run(sink) != grouping_outcome::done) {
        const row_position row = reader.first_malformed();
        const char *what = nullptr;
        rows.for_each_chunk(row, row + 1, [&](const text_chunk &chunk, auto...) {
            what = what_is_malformed(chunk);
            return true;
        });
        throw malformed_texts(what, static_cast<std::uint64_t>(row));
    }

    std::span<oid> texts(firsts.data(), firsts.size());
    const row_position missing_row = reader.first_missing();
    if (missing_row != no_row) {
        oid *const at = std::lower_bound(texts.data(), texts.data() + texts.size(), missing_row);
        std::copy(at + 1, texts.data() + texts.size(), at);
        texts = texts.first(texts.size() - 1);
    }
    const first_row_codes code_of(texts, codes.size());
    encoded_texts result;
    std::atomic<std::uint64_t> missing{0};
    for_rows(codes.size(), [&](std::size_t begin, std::size_t end) {
        std::uint64_t own = 0;
        with_best_instruction_set([&]() __attribute__((always_inline)) {
            for (std::size_t row = begin; row < end; ++row) {
                const oid first = first_of[row];
                const bool is_missing = first == missing_row;
                own += is_missing ? 1 : 0;
                const std::int32_t code = code_of[first];
                codes[row] = is_missing ? missing_code : code;
            }
        });
        missing.fetch_add(own, std::memory_order_relaxed);
    });
    result.missing = missing;
    resize_in_huge_pages(result.words, texts.size());
    for_rows(texts.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            result.words[i] = rows[texts[i]];
    });
    return result;
}

} // namespace vask::table
