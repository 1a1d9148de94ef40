#include "table/column_numbers.h"

#include "table/element_types.h"
#include "table/errors.h"
#include "table/kernel_column.h"
#include "table/pieces.h"
#include "table/validation.h"

#include <atomic>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>

namespace vask::table {
namespace {

using refkernel::bat;
using refkernel::nil_of;

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
    bool minus_zero = false; // which is no less than 0.0
    // Nothing is beyond them, and of a column of infinities they are the bounds.
    static constexpr T greatest = std::is_floating_point_v<T> ? std::numeric_limits<T>::infinity()
                                                              : std::numeric_limits<T>::max();
    static constexpr T least =
        std::is_floating_point_v<T> ? -greatest : std::numeric_limits<T>::lowest();
    T low = greatest;
    T high = least;

    void add(const value_census &other) {
        nil = nil || other.nil;
        nan = nan || other.nan;
        minus_zero = minus_zero || other.minus_zero;
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
        auto any_minus_zero = any_nil;
        using bits = std::remove_cvref_t<decltype(any_nil[0])>;
        constexpr bits sign = std::numeric_limits<bits>::min();
        std::int64_t row = 0;
        for (; rows - row >= width; row += width) {
            lanes v;
            std::memcpy(&v, values + row, sizeof v);
            any_nil |= is_like_nil<T>(v, nils);
            any_nan |= v != v;
            if constexpr (std::is_floating_point_v<T>) {
                decltype(any_nil) b;
                std::memcpy(&b, &v, sizeof b);
                any_minus_zero |= b == sign;
            }
            low = v < low ? v : low;
            high = v > high ? v : high;
        }
        for (std::int64_t lane = 0; lane < width; ++lane)
            made.add({any_nil[lane] != 0, any_nan[lane] != 0, any_minus_zero[lane] != 0, low[lane],
                      high[lane]});
        for (; row < rows; ++row) {
            T v;
            std::memcpy(&v, values + row, sizeof v);
            // A NaN is no bound.
            made.add({is_like_nil<T>(v, nil), v != v,
                      v == T{} && std::signbit(static_cast<double>(v)), v < made.low ? v : made.low,
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
    if constexpr (std::is_floating_point_v<T>) {
        to.float_bounds = {from.low, from.high};
        to.minus_zero = from.minus_zero;
    } else {
        to.bounds = {static_cast<lng>(from.low), static_cast<lng>(from.high)};
    }
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

//! A signed integer of 2, 4 or, for any more, 8 bytes.
template <std::size_t bytes>
using integer_of = std::conditional_t<bytes == 2, std::int16_t,
                                      std::conditional_t<bytes == 4, std::int32_t, std::int64_t>>;

//! The wider signed type, which has room for the nil beside all values; void: there is none.
template <class T>
using wider_of = std::conditional_t<
    std::is_same_v<T, float>, double,
    std::conditional_t<std::is_integral_v<T> && std::is_signed_v<T> && sizeof(T) < sizeof(lng),
                       integer_of<2 * sizeof(T)>, void>>;

//! What the values' own type is stored as where no value equals the nil.
template <class T>
using stored_of = std::conditional_t<std::is_unsigned_v<T>, integer_of<2 * sizeof(T)>, T>;

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
    using stored = stored_of<T>;
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
    using stored = stored_of<T>;
    using wider = wider_of<T>;
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

} // namespace

numbers numbers_of(const std::vector<piece> &given, std::size_t rows, const value_type &type,
                   const std::string &name, const teller &tell) {
    if (type.of == kind::null) {
        fresh_column<bte> made(rows);
        std::fill(made.values.begin(), made.values.end(), nil_of<bte>());
        numbers result;
        result.missing = rows;
        result.values = std::move(made).finish({.nil = rows > 0, .nonil = rows == 0});
        return result;
    }
    std::vector<piece> plain;
    const std::vector<piece> *pieces = &given;
    if (!given.empty() && given.front().dictionary != nullptr) {
        tell(fmt::format("column '{}' was copied: it is a dictionary of {}", shown(name),
                         name_of(type)));
        plain.resize(given.size());
        for_each_number(given.size(),
                        [&](std::size_t i) { plain[i] = looked_up(given[i], type, name); });
        pieces = &plain;
    }
    const fixed_request asked{*pieces, rows, missing_rows(*pieces), has_no_time(type.of),
                              name,    tell};
    if (type.of == kind::boolean)
        return bit_numbers(asked);
    if (type.of == kind::decimal)
        return decimal_numbers(asked);
    numbers result = visit_elements(
        type.of, [&]<class T>(std::type_identity<T>) { return fixed_numbers<T>(asked); });
    // What was borrowed of arrays that end here is copied.
    if (pieces == &plain && plain.size() == 1 && result.missing == 0 && !result.beyond)
        result.values = visit_values(result.values, []<class T>(std::span<const T> values) {
            return refkernel::make_column(values, {.tail = {.nonil = true}});
        });
    return result;
}

std::optional<bat> numbers_as_they_lie(const std::vector<piece> &given, std::size_t rows,
                                       const value_type &type) {
    if (rows == 0 || given.size() != 1 || given.front().dictionary != nullptr ||
        type.of == kind::null || type.of == kind::boolean || type.of == kind::decimal ||
        is_temporal(type.of) || missing_rows(given) != 0)
        return std::nullopt;
    return visit_elements(type.of, [&]<class T>(std::type_identity<T>) -> std::optional<bat> {
        if constexpr (std::is_same_v<T, stored_of<T>>)
            if (is_aligned(values_of<T>(given.front())))
                return borrowed_column(values_of<T>(given.front()), rows);
        return std::nullopt;
    });
}

numbers without_nan(const numbers &all) {
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

} // namespace vask::table
