#include "table/column.h"

#include "kernel/column.h"
#include "table/element_types.h"
#include "table/errors.h"
#include "table/kernel_column.h"
#include "table/parallel.h"
#include "table/text_order.h"
#include "table/validation.h"
#include "table/validity.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <type_traits>
#include <utility>

namespace vask::table {
namespace {

using refkernel::bat;
using refkernel::nil_of;

// ---- where values lie ---------------------------------------------------------------------------

// Where the rows of each piece begin, and their number at the end.
std::vector<std::size_t> first_rows(const std::vector<piece> &pieces) {
    std::vector<std::size_t> rows{0};
    for (const piece &p : pieces)
        rows.push_back(rows.back() + static_cast<std::size_t>(p.rows));
    return rows;
}

// Calls `work(piece, row of the piece, rows, row of the column)` for parts of all pieces, in tasks.
template <class Work>
void for_pieces(const std::vector<piece> &pieces, const Work &work) {
    const std::vector<std::size_t> firsts = first_rows(pieces);
    for_rows(firsts.back(), [&](std::size_t begin, std::size_t end) {
        std::size_t i = static_cast<std::size_t>(
            std::upper_bound(firsts.begin(), firsts.end(), begin) - firsts.begin() - 1);
        for (; begin < end; ++i) {
            const std::size_t here = std::min(end, firsts[i + 1]) - begin;
            if (here > 0)
                work(pieces[i], static_cast<std::int64_t>(begin - firsts[i]),
                     static_cast<std::int64_t>(here), begin);
            begin += here;
        }
    });
}

std::uint64_t missing_rows(const std::vector<piece> &pieces) {
    std::atomic<std::uint64_t> missing{0};
    for_pieces(pieces, [&](const piece &p, std::int64_t from, std::int64_t rows, std::size_t) {
        if (p.validity != nullptr)
            missing +=
                static_cast<std::uint64_t>(rows - count_bits(p.validity, p.offset + from, rows));
    });
    return missing;
}

// ---- dictionaries of numbers --------------------------------------------------------------------

// Arrays that a column owns.
struct owned_array {
    std::vector<std::byte> values;
    std::vector<std::uint8_t> validity;
};

// A plain array with what the indices stand for.
piece looked_up(const piece &p, const value_type &type, const std::string &name) {
    const piece &entries = *p.dictionary;
    const bool bits = type.of == kind::boolean;
    const auto width = static_cast<std::size_t>(width_of(type.of));
    const auto rows = static_cast<std::size_t>(p.rows);
    auto made = std::make_shared<owned_array>();
    made->values.resize(bits ? (rows + 7) / 8 : rows * width);
    made->validity.resize((rows + 7) / 8);
    visit_elements(p.index, [&]<class Index>(std::type_identity<Index>) {
        if constexpr (std::is_integral_v<Index>) {
            const Index *const indices = values_of<Index>(p);
            for (std::int64_t row = 0; row < p.rows; ++row) {
                if (!is_value(p, row))
                    continue;
                const std::int64_t entry = entry_of(indices, row, entries.rows, name);
                if (!is_value(entries, entry) || type.of == kind::null)
                    continue;
                const auto bit = static_cast<std::uint8_t>(1U << (row & 7));
                made->validity[static_cast<std::size_t>(row) >> 3] |= bit;
                const std::int64_t from = entries.offset + entry;
                const auto *const source = static_cast<const std::uint8_t *>(entries.values);
                if (!bits)
                    std::memcpy(made->values.data() + static_cast<std::size_t>(row) * width,
                                source + static_cast<std::size_t>(from) * width, width);
                else if (((source[from >> 3] >> (from & 7)) & 1) != 0)
                    made->values[static_cast<std::size_t>(row) >> 3] |= std::byte{bit};
            }
        }
    });
    piece result;
    result.rows = p.rows;
    result.values = made->values.data();
    result.validity = made->validity.data();
    result.owner = std::move(made);
    return result;
}

// ---- fixed width --------------------------------------------------------------------------------

template <class T>
bool is_aligned(const T *values) {
    return reinterpret_cast<std::uintptr_t>(values) % alignof(T) == 0;
}

// A copy of a piece's part at an aligned place.
template <class From, class To>
void copy_part(const piece &p, std::int64_t from, std::int64_t rows, To *to) {
    const From *const values = values_of<From>(p) + from;
    const std::uint8_t *const validity = p.validity;
    if (is_aligned(values)) {
        copy_with_nils<From, To>(values, validity, p.offset + from, rows, nil_of<To>(), to);
        return;
    }
    std::vector<From> aligned(static_cast<std::size_t>(rows));
    std::memcpy(aligned.data(), values, aligned.size() * sizeof(From));
    copy_with_nils<From, To>(aligned.data(), validity, p.offset + from, rows, nil_of<To>(), to);
}

// What is to be known of values before they are taken as they are. Bounds are those of all numbers
// that are no NaN, under nulls as well.
template <class T>
struct value_census {
    bool nil = false; // a value equals the number `nil`, or is one beyond the signed integers
    bool nan = false;
    T low = std::numeric_limits<T>::max();
    T high = std::numeric_limits<T>::lowest();

    void add(const value_census &other) {
        nil = nil || other.nil;
        nan = nan || other.nan;
        low = std::min(low, other.low);
        high = std::max(high, other.high);
    }
};

// Of a value, or of a vector of values by lane.
template <class T, class Values>
VASK_ALWAYS_INLINE auto is_like_nil(const Values &values, const Values &nil) {
    if constexpr (std::is_same_v<T, std::uint64_t>)
        return values > (nil | (~std::uint64_t{0} >> 1)); // its nil is 0
    else
        return values == nil;
}

// Vectors are written out, as compilers leave minima of floats to a plain loop.
template <class T>
value_census<T> census_of(const T *values, std::int64_t rows, T nil) {
    return with_best_instruction_set([=]() __attribute__((always_inline)) {
        using lanes [[gnu::vector_size(64)]] = T;
        constexpr std::int64_t width = sizeof(lanes) / sizeof(T);
        value_census<T> made;
        const lanes nils = nil - lanes{};
        lanes low = made.low - lanes{};
        lanes high = made.high - lanes{};
        auto any_nil = low != low;
        auto any_nan = any_nil;
        std::int64_t row = 0;
        for (; rows - row >= width; row += width) {
            lanes v;
            std::memcpy(&v, values + row, sizeof v);
            any_nil |= is_like_nil<T>(v, nils);
            any_nan |= v != v;
            low = v < low ? v : low;
            high = v > high ? v : high;
        }
        for (std::int64_t lane = 0; lane < width; ++lane)
            made.add({any_nil[lane] != 0, any_nan[lane] != 0, low[lane], high[lane]});
        for (; row < rows; ++row) {
            T v;
            std::memcpy(&v, values + row, sizeof v);
            // A NaN is no bound.
            made.add({is_like_nil<T>(v, nil), v != v, v < made.low ? v : made.low,
                      v > made.high ? v : made.high});
        }
        return made;
    });
}

// What lies under nulls is no nil and no NaN.
template <class T>
value_census<T> census_of(const std::vector<piece> &pieces, T nil) {
    value_census<T> all;
    std::mutex joining;
    for_pieces(pieces, [&](const piece &p, std::int64_t from, std::int64_t rows, std::size_t) {
        const T *const values = values_of<T>(p);
        value_census<T> here = census_of(values + from, rows, nil);
        // Most columns have no such value.
        if ((here.nil || here.nan) && p.validity != nullptr) {
            here.nil = false;
            here.nan = false;
            for (std::int64_t row = from; row < from + rows; ++row) {
                T value;
                std::memcpy(&value, values + row, sizeof value);
                here.nil |= is_like_nil<T>(value, nil) && is_value(p, row);
                here.nan |= value != value && is_value(p, row);
            }
        }
        const std::scoped_lock lock(joining);
        all.add(here);
    });
    return all;
}

template <class T>
void keep_bounds(const value_census<T> &from, numbers &to) {
    if constexpr (std::is_floating_point_v<T>)
        to.float_bounds = {from.low, from.high};
    else
        to.bounds = {static_cast<lng>(from.low), static_cast<lng>(from.high)};
}

template <class From, class To>
bat joined(const std::vector<piece> &pieces, std::size_t rows,
           const refkernel::column_marks &marks) {
    fresh_column<To> made(rows);
    for_pieces(pieces, [&](const piece &p, std::int64_t from, std::int64_t n, std::size_t row) {
        copy_part<From, To>(p, from, n, made.values.data() + row);
    });
    return std::move(made).finish(marks);
}

// By row 1 for a value.
std::vector<std::uint8_t> presence(const std::vector<piece> &pieces, std::size_t rows) {
    std::vector<std::uint8_t> present(rows, 1);
    for_pieces(pieces, [&](const piece &p, std::int64_t from, std::int64_t n, std::size_t row) {
        for (std::int64_t i = 0; p.validity != nullptr && i < n; ++i)
            present[row + static_cast<std::size_t>(i)] =
                static_cast<std::uint8_t>(is_value(p, from + i));
    });
    return present;
}

template <class T>
struct wider_of {
    using type = void;
};
template <>
struct wider_of<std::int8_t> {
    using type = std::int16_t;
};
template <>
struct wider_of<std::int16_t> {
    using type = std::int32_t;
};
template <>
struct wider_of<std::int32_t> {
    using type = std::int64_t;
};
template <>
struct wider_of<float> {
    using type = double;
};

// What the values' own type is stored as where no value equals the nil.
template <class T>
struct stored_of {
    using type = T;
};
template <>
struct stored_of<std::uint8_t> {
    using type = std::int16_t;
};
template <>
struct stored_of<std::uint16_t> {
    using type = std::int32_t;
};
template <>
struct stored_of<std::uint32_t> {
    using type = std::int64_t;
};
template <>
struct stored_of<std::uint64_t> {
    using type = std::int64_t;
};

struct fixed_request {
    const std::vector<piece> &pieces;
    std::size_t rows;
    std::uint64_t nulls;
    bool no_time; // the nil means a missing value
    const std::string &name;
    const teller &tell;
};

template <class T>
numbers beyond_numbers(const fixed_request &asked) {
    using stored = typename stored_of<T>::type;
    fresh_column<stored> made(asked.rows);
    for_pieces(asked.pieces,
               [&](const piece &p, std::int64_t from, std::int64_t n, std::size_t row) {
                   stored *const to = made.values.data() + row;
                   std::memcpy(to, values_of<T>(p) + from, static_cast<std::size_t>(n) * sizeof(T));
                   // Keys compare what lies under nulls, too.
                   for (std::int64_t i = 0; p.validity != nullptr && i < n; ++i)
                       if (!is_value(p, from + i))
                           to[i] = 0;
               });
    numbers result;
    result.values = std::move(made).finish();
    result.missing = asked.nulls;
    result.beyond = true;
    if (asked.nulls > 0)
        result.present = presence(asked.pieces, asked.rows);
    return result;
}

template <class T>
numbers fixed_numbers(const fixed_request &asked) {
    using stored = typename stored_of<T>::type;
    using wider = typename wider_of<T>::type;
    numbers result;
    result.missing = asked.nulls;
    value_census<T> odd;
    if constexpr (std::is_same_v<T, std::uint64_t>) {
        odd = census_of<T>(asked.pieces, T{});
        if (odd.nil)
            return beyond_numbers<T>(asked);
    }
    if constexpr (std::is_same_v<T, stored>) {
        const T nil = nil_of<T>();
        odd = census_of<T>(asked.pieces, nil);
        result.nan = odd.nan;
        if (odd.nil) {
            if (asked.no_time) {
                fresh_column<T> made(asked.rows);
                std::atomic<std::uint64_t> nils{0};
                for_pieces(asked.pieces,
                           [&](const piece &p, std::int64_t from, std::int64_t n, std::size_t row) {
                               T *const to = made.values.data() + row;
                               copy_part<T, T>(p, from, n, to);
                               nils += static_cast<std::uint64_t>(std::count(to, to + n, nil));
                           });
                result.missing = nils;
                result.values = std::move(made).finish({.nil = true});
                return result;
            }
            if constexpr (std::is_void_v<wider>) {
                asked.tell(fmt::format("column '{}' holds the number {}, which the operators take "
                                       "for a null: it is worked on by itself, more slowly",
                                       shown(asked.name), nil));
                numbers beyond = beyond_numbers<T>(asked);
                beyond.nan = odd.nan;
                return beyond;
            } else {
                asked.tell(fmt::format("column '{}' holds the number {}, which the operators take "
                                       "for a null: it was copied to a wider type",
                                       shown(asked.name), nil));
                result.values = joined<T, wider>(
                    asked.pieces, asked.rows, {.nil = asked.nulls > 0, .nonil = asked.nulls == 0});
                return result;
            }
        }
    }
    const bool has_census = std::is_same_v<T, stored> || std::is_same_v<T, std::uint64_t>;
    if (has_census && asked.nulls == 0 && !odd.nan && asked.rows > 0)
        keep_bounds(odd, result);
    const refkernel::column_marks marks{.nil = asked.nulls > 0, .nonil = asked.nulls == 0};
    if constexpr (std::is_same_v<T, stored>) {
        if (asked.pieces.size() == 1 && asked.nulls == 0 &&
            is_aligned(values_of<T>(asked.pieces[0])) && asked.rows > 0) {
            result.values = borrowed_column(values_of<T>(asked.pieces[0]), asked.rows, marks);
            return result;
        }
        asked.tell(fmt::format("column '{}' was copied: {}", shown(asked.name),
                               asked.nulls > 0            ? "it holds nulls"
                               : asked.pieces.size() != 1 ? "it comes in batches"
                                                          : "its memory is not aligned"));
    } else {
        asked.tell(fmt::format("column '{}' was copied: it is unsigned", shown(asked.name)));
    }
    result.values = joined<T, stored>(asked.pieces, asked.rows, marks);
    return result;
}

numbers bit_numbers(const fixed_request &asked) {
    fresh_column<bte> made(asked.rows);
    for_pieces(asked.pieces,
               [&](const piece &p, std::int64_t from, std::int64_t n, std::size_t row) {
                   copy_bits_with_nils(static_cast<const std::uint8_t *>(p.values), p.offset + from,
                                       p.validity, p.offset + from, n, nil_of<bte>(),
                                       made.values.data() + row);
               });
    numbers result;
    result.missing = asked.nulls;
    result.values = std::move(made).finish({.nil = asked.nulls > 0, .nonil = asked.nulls == 0});
    return result;
}

numbers decimal_numbers(const fixed_request &asked) {
    fresh_column<lng> made(asked.rows);
    std::atomic<bool> too_wide{false};
    for_pieces(
        asked.pieces, [&](const piece &p, std::int64_t from, std::int64_t n, std::size_t row) {
            const char *const values = static_cast<const char *>(p.values) + 16 * (p.offset + from);
            for (std::int64_t i = 0; i < n; ++i) {
                lng words[2];
                std::memcpy(words, values + 16 * i, sizeof words);
                const bool missing = !is_value(p, from + i);
                // The sign goes on through the upper half.
                if (!missing && (words[1] != (words[0] >> 63) || words[0] == nil_of<lng>()))
                    too_wide.store(true, std::memory_order_relaxed);
                made.values[row + static_cast<std::size_t>(i)] = missing ? nil_of<lng>() : words[0];
            }
        });
    if (too_wide)
        fail(VASK_BAD_DATA,
             "column '{}' holds decimals that 64 bits do not hold; cast it to float64 or to a "
             "decimal of 18 digits",
             shown(asked.name));
    numbers result;
    result.missing = asked.nulls;
    result.values = std::move(made).finish({.nil = asked.nulls > 0, .nonil = asked.nulls == 0});
    return result;
}

// ---- texts --------------------------------------------------------------------------------------

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

bool is_nil_text(const char *text) {
    return std::strcmp(text, static_cast<const char *>(BATatoms[TYPE_str].atom_null)) == 0;
}

// ---- keys ---------------------------------------------------------------------------------------

// All NaNs as one value, -0.0 as 0.0. Nothing where a column has neither.
template <std::floating_point Float, std::integral Bits>
std::optional<bat> keys_of_floats(const bat &column, bool nil_is_missing) {
    const auto values = column.values<Float>();
    std::atomic<bool> odd{false};
    for_rows(values.size(), [&](std::size_t begin, std::size_t end) {
        bool here = false;
        for (std::size_t row = begin; row < end; ++row)
            here |= static_cast<bool>(
                int{values[row] != values[row]} |
                int{std::bit_cast<Bits>(values[row]) == std::bit_cast<Bits>(-Float{0})});
        if (here)
            odd.store(true, std::memory_order_relaxed);
    });
    if (!odd)
        return std::nullopt;
    fresh_column<Bits> made(values.size());
    for_rows(values.size(), [&](std::size_t begin, std::size_t end) {
        const Float nil = nil_of<Float>();
        for (std::size_t row = begin; row < end; ++row) {
            const Float value = values[row];
            made.values[row] = nil_is_missing && value == nil ? nil_of<Bits>()
                               : value != value
                                   ? std::bit_cast<Bits>(std::numeric_limits<Float>::quiet_NaN())
                                   : std::bit_cast<Bits>(value + Float{0}); // -0.0 + 0.0 is 0.0
        }
    });
    return std::move(made).finish();
}

value_bounds bounds_of(const bat &column) {
    value_bounds result;
    visit_values(column, [&]<class T>(std::span<const T> values) {
        if constexpr (std::is_integral_v<T>) {
            const T nil = nil_of<T>();
            std::mutex joining;
            for_rows(values.size(), [&](std::size_t begin, std::size_t end) {
                T low = std::numeric_limits<T>::max();
                T high = std::numeric_limits<T>::min();
                for (std::size_t row = begin; row < end; ++row) {
                    const T value = values[row];
                    // The nil is the least number of all and takes no part as the least.
                    low = std::min(low, value == nil ? low : value);
                    high = std::max(high, value);
                }
                const std::scoped_lock lock(joining);
                // What is left at the largest number has met nothing but nils.
                if (low <= high) {
                    result.low = std::min(result.low, static_cast<lng>(low));
                    result.high = std::max(result.high, static_cast<lng>(high));
                }
            });
        }
    });
    return result;
}

bat distinct_bits(const bat &column, bool nil_is_missing) {
    std::optional<bat> keys;
    if (column.type() == TYPE_flt)
        keys = keys_of_floats<flt, std::int32_t>(column, nil_is_missing);
    else if (column.type() == TYPE_dbl)
        keys = keys_of_floats<dbl, std::int64_t>(column, nil_is_missing);
    return keys ? std::move(*keys) : bat::share(column.id());
}

} // namespace

column::column(std::string name, value_type type, std::int64_t rows, std::vector<piece> pieces)
    : name_(std::move(name)), type_(std::move(type)), rows_(rows), pieces_(std::move(pieces)) {
    std::erase_if(pieces_, [](const piece &p) { return p.rows == 0; });
}

column::column(std::string name, std::int64_t rows, std::string refusal)
    : name_(std::move(name)), refusal_(std::move(refusal)), rows_(rows) {}

column::column(std::string name, value_type type, bat values, std::uint64_t missing)
    : name_(std::move(name)),
      type_(std::move(type)),
      rows_(static_cast<std::int64_t>(values.count())) {
    if (is_text(type_.of)) {
        heap_ = std::move(values);
        heap_missing_ = missing;
    } else {
        numbers made;
        made.values = std::move(values);
        made.missing = missing;
        numbers_ = std::make_unique<const numbers>(std::move(made));
    }
}

std::shared_ptr<const column>
column::joined(std::string name, const std::vector<std::shared_ptr<const column>> &parts) {
    std::vector<piece> pieces;
    std::int64_t rows = 0;
    const value_type &type = parts.front()->type();
    for (const auto &part : parts) {
        const value_type &own = part->type();
        if (own.of != type.of || (!is_text(type.of) && own.format != type.format))
            fail(VASK_BAD_DATA, "column '{}' is {} in one part and {} in another", shown(name),
                 name_of(type), name_of(own));
        pieces.insert(pieces.end(), part->pieces_.begin(), part->pieces_.end());
        rows += part->rows();
    }
    // Pieces without rows are gone, and with them whether the indices of a dictionary are meant.
    const bool indexed = std::any_of(pieces.begin(), pieces.end(),
                                     [](const piece &p) { return p.dictionary != nullptr; });
    if (indexed && std::any_of(pieces.begin(), pieces.end(),
                               [](const piece &p) { return p.dictionary == nullptr; }))
        fail(VASK_BAD_DATA, "column '{}' is a dictionary in one part and plain in another",
             shown(name));
    return std::make_shared<const column>(std::move(name), type, rows, std::move(pieces));
}

const value_type &column::type() const {
    if (!refusal_.empty())
        fail(VASK_BAD_REQUEST, "column '{}' {}", shown(name_), refusal_);
    return type_;
}

numbers column::make_numbers(const teller &tell) const {
    const auto rows = static_cast<std::size_t>(rows_);
    if (type_.of == kind::null) {
        fresh_column<bte> made(rows);
        std::fill(made.values.begin(), made.values.end(), nil_of<bte>());
        numbers result;
        result.missing = rows;
        result.values = std::move(made).finish({.nil = rows > 0, .nonil = rows == 0});
        return result;
    }
    std::vector<piece> plain;
    const std::vector<piece> *pieces = &pieces_;
    if (!pieces_.empty() && pieces_.front().dictionary != nullptr) {
        tell(fmt::format("column '{}' was copied: it is a dictionary of {}", shown(name_),
                         name_of(type_)));
        plain.resize(pieces_.size());
        for_each_number(pieces_.size(),
                        [&](std::size_t i) { plain[i] = looked_up(pieces_[i], type_, name_); });
        pieces = &plain;
    }
    const fixed_request asked{*pieces, rows, missing_rows(*pieces), has_no_time(type_.of),
                              name_,   tell};
    if (type_.of == kind::boolean)
        return bit_numbers(asked);
    if (type_.of == kind::decimal)
        return decimal_numbers(asked);
    numbers result = visit_elements(
        type_.of, [&]<class T>(std::type_identity<T>) { return fixed_numbers<T>(asked); });
    // What was borrowed of arrays that end here is copied.
    if (pieces == &plain && plain.size() == 1 && result.missing == 0 && !result.beyond)
        result.values = visit_values(result.values, []<class T>(std::span<const T> values) {
            return refkernel::make_column(values, {.tail = {.nonil = true}});
        });
    return result;
}

numbers column::without_nan(const numbers &all) const {
    numbers result;
    result.missing = all.missing;
    result.beyond = all.beyond;
    const auto mark = [&]<class T>(std::span<const T> values) {
        if constexpr (std::is_floating_point_v<T>) {
            fresh_column<T> made(values.size());
            std::atomic<std::uint64_t> nan{0};
            const bool by_presence = all.beyond;
            if (by_presence)
                result.present =
                    all.present.empty() ? std::vector<std::uint8_t>(values.size(), 1) : all.present;
            for_rows(values.size(), [&](std::size_t begin, std::size_t end) {
                std::uint64_t here = 0;
                for (std::size_t row = begin; row < end; ++row) {
                    const bool is_nan = values[row] != values[row];
                    // Missing values that are told by `present` are equal as keys: 0.
                    made.values[row] = !is_nan ? values[row] : by_presence ? T{0} : nil_of<T>();
                    if (by_presence && is_nan && result.present[row] != 0)
                        result.present[row] = 0;
                    else if (by_presence)
                        continue;
                    here += is_nan ? 1 : 0;
                }
                nan += here;
            });
            result.missing += nan;
            result.values =
                std::move(made).finish({.nil = result.missing > 0, .nonil = result.missing == 0});
        }
    };
    visit_values(all.values, mark);
    return result;
}

const numbers &column::as_numbers(bool nan_missing, const teller &tell) const {
    const std::scoped_lock lock(making_);
    if (numbers_ == nullptr)
        numbers_ = std::make_unique<const numbers>(make_numbers(tell));
    if (!nan_missing || !is_float(type_.of))
        return *numbers_;
    if (numbers_without_nan_ == nullptr) {
        if (!numbers_->nan)
            return *numbers_;
        numbers_without_nan_ = std::make_unique<const numbers>(without_nan(*numbers_));
        tell(
            fmt::format("column '{}' was copied: it holds NaN, which count as null", shown(name_)));
    }
    return *numbers_without_nan_;
}

// A code for each offset that occurs, in the order of rows.
texts column::texts_of_heap() const {
    const auto rows = static_cast<std::size_t>(rows_);
    const text_reader heap(*heap_->tail);
    const BUN first = heap_->info->first;
    constexpr std::int32_t none = -1;
    std::uint32_t last_offset = 0;
    for (BUN row = 0; row < rows; ++row)
        last_offset = std::max(last_offset, heap.offset(first + row));
    std::vector<std::int32_t> code_at(std::size_t{last_offset} + 1, none);
    fresh_column<std::int32_t> codes(rows);
    texts result;
    for (BUN row = 0; row < rows; ++row) {
        const std::uint32_t offset = heap.offset(first + row);
        std::int32_t &code = code_at[offset];
        if (code == none) {
            const char *const text = heap.at_offset(offset);
            if (is_nil_text(text)) {
                code = nil_of<std::int32_t>();
            } else {
                code = static_cast<std::int32_t>(result.words.size());
                result.words.emplace_back(text);
            }
        }
        codes.values[row] = code;
    }
    result.missing = heap_missing_;
    result.codes =
        std::move(codes).finish({.nil = result.missing > 0, .nonil = result.missing == 0});
    return result;
}

texts column::make_texts(const teller &tell) const {
    if (has_heap())
        return texts_of_heap();
    fresh_column<std::int32_t> codes(static_cast<std::size_t>(rows_));
    texts result;
    if (!pieces_.empty() && pieces_.front().dictionary != nullptr) {
        dictionary_codes known = encode_dictionaries(pieces_, name_);
        std::atomic<std::uint64_t> missing{0};
        for_pieces(pieces_,
                   [&](const piece &p, std::int64_t from, std::int64_t rows, std::size_t row) {
                       const auto i = static_cast<std::size_t>(&p - pieces_.data());
                       visit_elements(p.index, [&]<class Index>(std::type_identity<Index>) {
                           if constexpr (std::is_integral_v<Index>)
                               missing += look_up_codes<Index>(p, from, rows,
                                                               known.codes.data() + known.begin[i],
                                                               codes.values.data() + row, name_);
                       });
                   });
        result.words = std::move(known.encoded.words);
        result.missing = missing;
    } else {
        std::vector<text_chunk> chunks;
        chunks.reserve(pieces_.size());
        for (const piece &p : pieces_)
            chunks.push_back(chunk_of(p, name_));
        encoded_texts encoded = encode(chunks, codes.values, name_);
        result.words = std::move(encoded.words);
        result.missing = encoded.missing;
        tell(fmt::format("column '{}' was encoded: {} different texts", shown(name_),
                         result.words.size()));
    }
    result.codes =
        std::move(codes).finish({.nil = result.missing > 0, .nonil = result.missing == 0});
    return result;
}

const texts &column::as_texts(const teller &tell) const {
    const std::scoped_lock lock(making_);
    if (texts_ == nullptr)
        texts_ = std::make_unique<texts>(make_texts(tell));
    return *texts_;
}

const texts &column::as_ranked_texts(const teller &tell) const {
    as_texts(tell);
    const std::scoped_lock lock(making_);
    if (texts_->ranks)
        return *texts_;
    texts &all = *texts_;
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
    return all;
}

std::optional<std::string_view> column::text_at(std::size_t row, const teller &tell) const {
    if (has_heap()) {
        const std::string_view text = heap_.text(static_cast<BUN>(row));
        return is_nil_text(text.data()) ? std::nullopt : std::optional(text);
    }
    const texts &all = as_texts(tell);
    const std::int32_t code = all.codes.values<std::int32_t>()[row];
    if (code == nil_of<std::int32_t>())
        return std::nullopt;
    return all.words[static_cast<std::size_t>(code)];
}

const std::vector<bat> &column::as_keys(bool nan_missing, const teller &tell) const {
    if (!is_text(type_.of))
        as_numbers(nan_missing, tell);
    else if (!has_heap())
        as_texts(tell);
    const bool variant = nan_missing && is_float(type_.of);
    const numbers *const all = is_text(type_.of) ? nullptr : &as_numbers(nan_missing, tell);
    const std::scoped_lock lock(making_);
    auto &keys = keys_[variant ? 1 : 0];
    if (keys == nullptr) {
        std::vector<bat> made;
        if (all == nullptr) {
            made.push_back(bat::share(has_heap() ? heap_.id() : texts_->codes.id()));
        } else {
            made.push_back(distinct_bits(all->values, !all->beyond));
            if (!all->present.empty())
                made.push_back(refkernel::make_column(
                    std::vector<bte>(all->present.begin(), all->present.end()),
                    {.tail = {.nonil = true}}));
        }
        keys = std::make_unique<const std::vector<bat>>(std::move(made));
    }
    return *keys;
}

value_bounds column::bounds(const teller &tell) const {
    if (is_text(type_.of))
        return {0, static_cast<lng>(as_texts(tell).words.size()) - 1};
    const numbers &all = as_numbers(false, tell);
    if (all.bounds)
        return *all.bounds;
    const std::scoped_lock lock(making_);
    if (!bounds_)
        bounds_ = bounds_of(all.values);
    return *bounds_;
}

void column::validate() const {
    const std::scoped_lock lock(making_);
    if (validated_)
        return;
    for (const piece &p : pieces_)
        vask::table::validate(p, type_, name_);
    validated_ = true;
}

std::uint64_t column::missing(bool nan_missing, const teller &tell) const {
    if (has_heap())
        return heap_missing_;
    return is_text(type_.of) ? as_texts(tell).missing : as_numbers(nan_missing, tell).missing;
}

} // namespace vask::table
