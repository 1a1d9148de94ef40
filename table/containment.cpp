#include "table/containment.h"

#include "kernel/column.h"
#include "table/errors.h"
#include "table/kernel_column.h"
#include "table/operands.h"
#include "table/parallel.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

namespace vask::table {
namespace {

using refkernel::bat;
using refkernel::nil_of;

const teller silent = [](const std::string &) {};

// Values as numbers that are equal where the values are.
struct comparable_values {
    std::vector<lng> keys;
    std::vector<std::uint8_t> present;    // by row 1 for a value
    std::vector<std::uint8_t> comparable; // 0: no value of the other column can be equal
};

bool is_whole(double value) {
    return value >= -0x1p63 && value < 0x1p63 && value == std::floor(value);
}

// Floats by their bits where both columns are floats, else all as whole numbers.
comparable_values comparable_of(const column &of, bool as_floats, bool as_unsigned) {
    const numbers &values = of.as_numbers(false, silent);
    const auto rows = static_cast<std::size_t>(of.rows());
    const bool is_unsigned = of.type().of == kind::uint64 && values.beyond;
    comparable_values result{std::vector<lng>(rows), std::vector<std::uint8_t>(rows),
                             std::vector<std::uint8_t>(rows)};
    visit_values(values.values, [&]<class T>(std::span<const T> all) {
        for_rows(rows, [&](std::size_t begin, std::size_t end) {
            for (std::size_t row = begin; row < end; ++row) {
                const T value = all[row];
                const bool present = values.beyond
                                         ? values.present.empty() || values.present[row] != 0
                                         : value != nil_of<T>();
                result.present[row] = present;
                bool comparable = present;
                if constexpr (std::is_floating_point_v<T>) {
                    const auto wide = static_cast<double>(value);
                    if (as_floats) {
                        result.keys[row] = std::bit_cast<lng>(
                            wide != wide ? std::numeric_limits<double>::quiet_NaN() : wide + 0.0);
                    } else {
                        comparable = present && is_whole(wide);
                        result.keys[row] = comparable ? static_cast<lng>(wide) : 0;
                    }
                } else {
                    result.keys[row] = lng{value};
                    // Beyond the signed numbers only an unsigned one can be equal, and the other
                    // way round.
                    if (is_unsigned && !as_unsigned)
                        comparable = present && lng{value} >= 0;
                }
                result.comparable[row] = comparable;
            }
        });
    });
    return result;
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

std::vector<lng> text_answers(const column &left, const column &right,
                              std::vector<std::uint8_t> &present) {
    const texts &asked = left.as_texts(silent);
    const texts &known = right.as_texts(silent);
    // A word of a dictionary may occur in no row.
    std::vector<std::uint8_t> occurs(known.words.size(), 0);
    for (const std::int32_t code : known.codes.values<std::int32_t>())
        if (code != nil_of<std::int32_t>())
            occurs[static_cast<std::size_t>(code)] = 1;
    std::unordered_set<std::string_view> words;
    for (std::size_t i = 0; i < occurs.size(); ++i)
        if (occurs[i] != 0)
            words.insert(known.words[i]);
    std::vector<std::uint8_t> found(asked.words.size());
    for_rows(found.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            found[i] = words.contains(asked.words[i]);
    });
    const auto codes = asked.codes.values<std::int32_t>();
    std::vector<lng> answers(codes.size());
    for (std::size_t row = 0; row < codes.size(); ++row) {
        present[row] = codes[row] != nil_of<std::int32_t>();
        answers[row] = present[row] != 0 && found[static_cast<std::size_t>(codes[row])] != 0;
    }
    return answers;
}

bool fits_int(const column &of) {
    const numbers &values = of.as_numbers(false, silent);
    const int type = values.values.type();
    return !values.beyond && (type == TYPE_bte || type == TYPE_sht || type == TYPE_int);
}

// By the operator for 32 bits. Missing values of `right` are left out.
std::vector<lng> int_answers(const comparable_values &left, const comparable_values &right,
                             const operator_set &operators, const std::string &about) {
    std::vector<std::int32_t> known;
    for (std::size_t row = 0; row < right.keys.size(); ++row)
        if (right.present[row] != 0)
            known.push_back(static_cast<std::int32_t>(right.keys[row]));
    std::vector<lng> answers(left.keys.size());
    if (known.empty() || answers.empty())
        return answers;
    std::vector<std::int32_t> asked(left.keys.size());
    std::transform(left.keys.begin(), left.keys.end(), asked.begin(),
                   [](lng key) { return static_cast<std::int32_t>(key); });
    const bat values = refkernel::make_column(std::move(asked));
    const bat others = refkernel::make_column(std::move(known));
    const std::array operands{&values, &others};
    const bat mask = operators.call("vaskops_are_bat_indexes_contained", operands, about);
    const auto found = mask.values<bit>();
    for (std::size_t row = 0; row < answers.size(); ++row)
        answers[row] = left.present[row] != 0 && found[row] != 0;
    return answers;
}

// Both columns are grouped as one: a value is contained where its group has a row of `right`.
std::vector<lng> grouped_answers(const comparable_values &left, const comparable_values &right,
                                 const operator_set &operators, const std::string &about) {
    std::vector<lng> answers(left.keys.size());
    std::vector<lng> together;
    std::vector<std::size_t> rows;
    for (std::size_t row = 0; row < right.keys.size(); ++row)
        if (right.comparable[row] != 0)
            together.push_back(right.keys[row]);
    const std::size_t others = together.size();
    for (std::size_t row = 0; row < left.keys.size(); ++row)
        if (left.comparable[row] != 0) {
            together.push_back(left.keys[row]);
            rows.push_back(row);
        }
    if (others == 0 || rows.empty())
        return answers;
    const operator_set::grouped_rows found =
        operators.group(refkernel::make_column(std::move(together)), about);
    const oid_reader groups(*found.map->tail, *found.map.record());
    const BUN first = found.map->info->first;
    // A group's id is its first row, and the rows of `right` come first.
    for (std::size_t i = 0; i < rows.size(); ++i)
        answers[rows[i]] = groups[first + static_cast<BUN>(others + i)] < others;
    return answers;
}

} // namespace

result_column contained(const column &left, const column &right, const operator_set &operators) {
    const value_type &asked = left.type();
    const value_type &known = right.type();
    require_comparable(asked, known);
    const auto rows = static_cast<std::size_t>(left.rows());
    std::vector<std::uint8_t> present(rows, 0);
    std::vector<lng> answers(rows);
    if (asked.of == kind::null || known.of == kind::null) {
        if (asked.of != kind::null && is_text(asked.of))
            answers = text_answers(left, left, present);
        else if (asked.of != kind::null)
            present = comparable_of(left, false, false).present;
        std::fill(answers.begin(), answers.end(), 0);
    } else if (is_text(asked.of)) {
        answers = text_answers(left, right, present);
    } else {
        if (left.rows() + right.rows() > std::numeric_limits<std::int32_t>::max() - 1)
            fail(VASK_BAD_REQUEST, "is_in: both columns together have more than {} rows",
                 std::numeric_limits<std::int32_t>::max() - 1);
        const bool floats = is_float(asked.of) && is_float(known.of);
        const bool is_unsigned = asked.of == kind::uint64 && known.of == kind::uint64;
        const comparable_values own = comparable_of(left, floats, is_unsigned);
        const comparable_values others = comparable_of(right, floats, is_unsigned);
        const std::string about = fmt::format("{}, {}", left.name(), right.name());
        answers = fits_int(left) && fits_int(right)
                      ? int_answers(own, others, operators, about)
                      : grouped_answers(own, others, operators, about);
        present = own.present;
    }
    result_column made;
    made.name = "contained";
    made.type = plain_type(kind::boolean);
    made.rows = left.rows();
    auto bits = std::make_shared<std::vector<std::uint8_t>>(rows / 8 + 1, 0);
    auto validity = std::make_shared<std::vector<std::uint8_t>>(rows / 8 + 1, 0);
    for (std::size_t row = 0; row < rows; ++row) {
        const auto place = static_cast<unsigned>(row & 7);
        (*bits)[row >> 3] =
            static_cast<std::uint8_t>((*bits)[row >> 3] | ((answers[row] != 0 ? 1U : 0U) << place));
        (*validity)[row >> 3] = static_cast<std::uint8_t>((*validity)[row >> 3] |
                                                          ((present[row] != 0 ? 1U : 0U) << place));
        made.nulls += present[row] != 0 ? 0 : 1;
    }
    made.values = bits->data();
    made.owners.push_back(std::move(bits));
    if (made.nulls > 0) {
        made.validity = validity->data();
        made.owners.push_back(std::move(validity));
    }
    return made;
}

} // namespace vask::table
