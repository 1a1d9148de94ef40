#include "table/containment.h"

#include "kernel/column.h"
#include "rows/huge_pages.h"
#include "rows/value_set.h"
#include "table/errors.h"
#include "table/kernel_column.h"
#include "table/parallel.h"
#include "table/text_encoder.h"
#include "table/validity.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

#include <tbb/task_arena.h>

namespace vask::table {
namespace {

using refkernel::nil_of;

const teller silent = [](const std::string &) {};

// How values of two columns are compared: floats by their bits where both are floats, else all as
// whole numbers.
struct comparison {
    bool as_floats;
    bool as_unsigned; // neither column has numbers of a signed type
};

comparison comparison_of(kind left, kind right) {
    const auto reaches_2_to_64 = [](kind k) { return k == kind::uint64 || is_float(k); };
    return {is_float(left) && is_float(right), reaches_2_to_64(left) && reaches_2_to_64(right)};
}

// Whether a whole number of 64 bits, which is unsigned if `as_unsigned`, can be equal.
bool is_whole(double value, bool as_unsigned) {
    const double least = as_unsigned ? 0.0 : -0x1p63;
    const double end = as_unsigned ? 0x1p64 : 0x1p63;
    return value >= least && value < end && value == std::floor(value);
}

std::uint64_t whole_bits(double value) {
    return value < 0 ? static_cast<std::uint64_t>(static_cast<lng>(value))
                     : static_cast<std::uint64_t>(value);
}

// Rows that are answered at one go: whole bytes of bits.
constexpr std::size_t answer_rows = 1024;

// Values of such rows as keys that are equal where the values are.
template <class Key>
struct key_block {
    std::array<Key, answer_rows> keys;
    std::array<std::uint8_t, answer_rows> present;    // 1 for a value
    std::array<std::uint8_t, answer_rows> comparable; // 0: no value of the other can be equal
};

// A column's numbers and how they are compared.
struct compared_numbers {
    const numbers &values;
    comparison how;
    bool low_only; // beyond the signed numbers none of a signed type can be equal

    compared_numbers(const column &of, comparison with)
        : values(of.as_numbers(false, silent)),
          how(with),
          low_only(of.type().of == kind::uint64 && values.beyond && !with.as_unsigned) {}
};

// Writes the block of the rows from `begin` on, n of them.
template <class Key, class T>
void load_keys(const compared_numbers &of, std::span<const T> all, std::size_t begin, std::size_t n,
               key_block<Key> &to) {
    const auto &[values, how, low_only] = of;
    for (std::size_t i = 0; i < n; ++i) {
        const T value = all[begin + i];
        const bool present = values.beyond
                                 ? values.present.empty() || values.present[begin + i] != 0
                                 : value != nil_of<T>();
        bool comparable = present;
        if constexpr (std::is_floating_point_v<T>) {
            const auto wide = static_cast<double>(value);
            if (how.as_floats) {
                to.keys[i] = static_cast<Key>(std::bit_cast<std::uint64_t>(
                    wide != wide ? std::numeric_limits<double>::quiet_NaN() : wide + 0.0));
            } else {
                comparable = present && is_whole(wide, how.as_unsigned);
                to.keys[i] = static_cast<Key>(comparable ? whole_bits(wide) : 0);
            }
        } else {
            to.keys[i] = static_cast<Key>(value);
            comparable = present && (!low_only || value >= 0);
        }
        to.present[i] = present;
        to.comparable[i] = comparable;
    }
}

void require_comparable(const value_type &left, const value_type &right) {
    const bool numbers = is_number(left.of) && is_number(right.of) && left.scale == right.scale &&
                         (left.of == kind::decimal) == (right.of == kind::decimal);
    const bool same_time = is_temporal(left.of) && left.format == right.format;
    const bool texts = is_text(left.of) && left.of == right.of;
    if (!numbers && !same_time && !texts && left.of != kind::null && right.of != kind::null)
        fail(VASK_BAD_REQUEST, "is_in: {} and {} do not compare; cast one of them", name_of(left),
             name_of(right));
}

// Booleans of rows, some of which are missing.
struct answer_bits {
    explicit answer_bits(std::size_t rows) : values(rows / 8 + 1), validity(rows / 8 + 1) {}

    std::vector<std::uint8_t> values;
    std::vector<std::uint8_t> validity;
    std::atomic<std::int64_t> missing = 0;
};

// Calls `answer(begin, n, contained, present)` for blocks of the rows.
template <class Answer>
void for_answers(std::size_t rows, answer_bits &to, const Answer &answer) {
    for_row_ranges(static_cast<std::int64_t>(rows), [&](std::int64_t begin, std::int64_t end) {
        std::array<std::uint8_t, answer_rows> contained;
        std::array<std::uint8_t, answer_rows> present;
        std::int64_t n = 0;
        for (std::int64_t row = begin; row < end; row += n) {
            n = std::min(std::int64_t{answer_rows}, end - row);
            answer(static_cast<std::size_t>(row), static_cast<std::size_t>(n), contained.data(),
                   present.data());
            (void)bitmap_of<std::uint8_t>(contained.data(), n, 0, to.values.data() + row / 8);
            to.missing +=
                bitmap_of<std::uint8_t>(present.data(), n, 0, to.validity.data() + row / 8);
        }
    });
}

// Which words of one column occur in rows of the other.
std::vector<std::uint8_t> common_words(const texts &asked, const texts &known) {
    // A word of a dictionary may occur in no row.
    std::vector<std::uint8_t> occurs(known.words.size());
    const auto codes = known.codes.values<std::int32_t>();
    for_rows(codes.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t row = begin; row < end; ++row)
            if (codes[row] != nil_of<std::int32_t>())
                std::atomic_ref(occurs[static_cast<std::size_t>(codes[row])])
                    .store(1, std::memory_order_relaxed);
    });
    std::vector<std::string_view> words;
    for (std::size_t i = 0; i < occurs.size(); ++i) {
        if (i % rows_of_a_task == 0)
            end_if_cancelled();
        if (occurs[i] != 0)
            words.push_back(known.words[i]);
    }
    const auto chunk_of = [](std::span<const std::string_view> of) {
        text_chunk chunk{};
        chunk.kind = text_chunk::layout::anywhere;
        chunk.rows = static_cast<std::int64_t>(of.size());
        chunk.places = of.data();
        return chunk;
    };
    const std::array chunks{chunk_of(words), chunk_of(asked.words)};
    std::vector<std::int32_t> numbers(words.size() + asked.words.size());
    encode_texts(chunks, numbers, nil_of<std::int32_t>());
    // Words are numbered as they come, those of the other column first, each once.
    std::vector<std::uint8_t> common(asked.words.size());
    for_rows(common.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            common[i] = static_cast<std::size_t>(numbers[words.size() + i]) < words.size();
    });
    return common;
}

void answer_texts(const column &left, const column &right, answer_bits &to) {
    const texts &asked = left.as_texts(silent);
    const texts &known = right.as_texts(silent);
    const std::vector<std::uint8_t> common = common_words(asked, known);
    const auto codes = asked.codes.values<std::int32_t>();
    for_answers(
        codes.size(), to,
        [&](std::size_t begin, std::size_t n, std::uint8_t *contained, std::uint8_t *present) {
            for (std::size_t i = 0; i < n; ++i) {
                const std::int32_t code = codes[begin + i];
                present[i] = code != nil_of<std::int32_t>();
                contained[i] = present[i] != 0 && common[static_cast<std::size_t>(code)] != 0;
            }
        });
}

// Whether the values of a column are numbers of up to 32 bits.
bool fits_int(const column &of) {
    const numbers &values = of.as_numbers(false, silent);
    const int type = values.values.type();
    return !values.beyond && (type == TYPE_bte || type == TYPE_sht || type == TYPE_int);
}

// Calls `body(begin, n, block)` for the blocks of rows begin .. end - 1 until it gives false.
template <class Key, class Body>
void for_key_blocks(const compared_numbers &of, std::size_t begin, std::size_t end,
                    const Body &body) {
    visit_values(of.values.values, [&]<class T>(std::span<const T> all) {
        key_block<Key> block;
        for (std::size_t row = begin, n = 0; row < end; row += n) {
            n = std::min(answer_rows, end - row);
            load_keys(of, all, row, n, block);
            if (!body(row, n, block))
                return;
        }
    });
}

// The keys of a column that can be equal to one of another.
template <class Key>
class known_keys {
public:
    known_keys(const column &of, comparison how) {
        const auto rows = static_cast<std::size_t>(of.rows());
        const compared_numbers compared(of, how);
        const numbers &values = compared.values;
        if constexpr (sizeof(Key) == sizeof(lng))
            if (values.values.type() == TYPE_lng && values.missing == 0 && !values.beyond) {
                const auto all = values.values.values<lng>();
                keys_ = {reinterpret_cast<const Key *>(all.data()), rows};
                return;
            }
        std::optional<Key> some;
        for_key_blocks<Key>(compared, 0, rows,
                            [&](std::size_t, std::size_t n, const key_block<Key> &block) {
                                end_if_cancelled();
                                for (std::size_t i = 0; i < n && !some; ++i)
                                    if (block.comparable[i] != 0)
                                        some = block.keys[i];
                                return !some;
                            });
        if (!some)
            return;
        memory_ = large_block<Key>(rows);
        for_rows(rows, [&](std::size_t begin, std::size_t end) {
            for_key_blocks<Key>(compared, begin, end,
                                [&](std::size_t row, std::size_t n, const key_block<Key> &block) {
                                    // One that occurs anyway, in place of what can equal nothing.
                                    for (std::size_t i = 0; i < n; ++i)
                                        memory_[row + i] =
                                            block.comparable[i] != 0 ? block.keys[i] : *some;
                                    return true;
                                });
        });
        keys_ = {memory_.get(), rows};
    }

    //! Empty if there is none.
    std::span<const Key> get() const { return keys_; }

private:
    gdk_block<Key> memory_;
    std::span<const Key> keys_;
};

template <class Key>
void answer_numbers(const column &left, const column &right, comparison how, answer_bits &to) {
    const compared_numbers asked(left, how);
    const known_keys<Key> known(right, how);
    std::optional<value_set<Key>> set;
    if (!known.get().empty()) {
        // As much memory as tables take.
        constexpr std::uint64_t bits_of_a_key = 128;
        set.emplace(known.get(), bits_of_a_key * known.get().size(), run_in_tasks,
                    static_cast<std::size_t>(tbb::this_task_arena::max_concurrency()));
    }
    for_answers(
        static_cast<std::size_t>(left.rows()), to,
        [&](std::size_t begin, std::size_t rows, std::uint8_t *contained, std::uint8_t *present) {
            for_key_blocks<Key>(asked, begin, begin + rows,
                                [&](std::size_t, std::size_t n, const key_block<Key> &block) {
                                    std::array<bit, answer_rows> found{};
                                    if (set)
                                        set->mark(block.keys.data(), n, found.data());
                                    for (std::size_t i = 0; i < n; ++i)
                                        contained[i] = found[i] != 0 && block.comparable[i] != 0;
                                    std::copy_n(block.present.data(), n, present);
                                    return true;
                                });
        });
}

// Where one of the columns has no values at all.
void answer_nulls(const column &left, answer_bits &to) {
    const kind of = left.type().of;
    if (of == kind::null) {
        to.missing = left.rows();
        return;
    }
    if (is_text(of))
        answer_texts(left, left, to);
    else
        answer_numbers<std::uint64_t>(left, left, {}, to);
    std::fill(to.values.begin(), to.values.end(), 0);
}

} // namespace

result_column contained(const column &left, const column &right) {
    const value_type &asked = left.type();
    const value_type &known = right.type();
    require_comparable(asked, known);
    const auto rows = static_cast<std::size_t>(left.rows());
    const auto bits = std::make_shared<answer_bits>(rows);
    if (asked.of == kind::null || known.of == kind::null) {
        answer_nulls(left, *bits);
    } else if (is_text(asked.of)) {
        answer_texts(left, right, *bits);
    } else if (fits_int(left) && fits_int(right)) {
        answer_numbers<std::uint32_t>(left, right, {}, *bits);
    } else {
        answer_numbers<std::uint64_t>(left, right, comparison_of(asked.of, known.of), *bits);
    }
    result_column made;
    made.name = "contained";
    made.type = plain_type(kind::boolean);
    made.rows = left.rows();
    made.nulls = bits->missing;
    made.values = bits->values.data();
    if (made.nulls > 0)
        made.validity = bits->validity.data();
    made.owners.push_back(bits);
    return made;
}

} // namespace vask::table
