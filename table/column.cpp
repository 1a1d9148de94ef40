#include "table/column.h"

#include "rows/isa.h"
#include "table/column_numbers.h"
#include "table/column_texts.h"
#include "table/errors.h"
#include "table/kernel_column.h"
#include "table/parallel.h"
#include "table/validation.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <mutex>
#include <type_traits>
#include <utility>

namespace vask::table {
namespace {

using refkernel::bat;
using refkernel::nil_of;

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
                constexpr T greatest = std::numeric_limits<T>::max();
                T low = greatest;
                T high = std::numeric_limits<T>::min();
                with_best_instruction_set([&]() __attribute__((always_inline)) {
                    for (std::size_t row = begin; row < end; ++row) {
                        const T value = values[row];
                        // The nil is the least number of all and takes no part as the least.
                        low = std::min(low, value == nil ? greatest : value);
                        high = std::max(high, value);
                    }
                });
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
    numbers made;
    made.values = std::move(values);
    made.missing = missing;
    numbers_ = std::make_unique<const numbers>(std::move(made));
}

column::column(std::string name, texts encoded)
    : name_(std::move(name)),
      type_(plain_type(kind::text)),
      rows_(static_cast<std::int64_t>(encoded.codes.count())),
      texts_(std::make_unique<texts>(std::move(encoded))) {}

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

const numbers &column::as_numbers(bool nan_missing, const teller &tell) const {
    const std::scoped_lock lock(making_);
    if (numbers_ == nullptr)
        numbers_ = std::make_unique<const numbers>(
            numbers_of(pieces_, static_cast<std::size_t>(rows_), type_, name_, tell));
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

std::optional<bat> column::as_they_lie(bool nan_missing) const {
    const std::scoped_lock lock(making_);
    if (numbers_ != nullptr || is_text(type_.of) || (nan_missing && is_float(type_.of)))
        return std::nullopt;
    return numbers_as_they_lie(pieces_, static_cast<std::size_t>(rows_), type_);
}

const texts &column::as_texts(const teller &tell) const {
    const std::scoped_lock lock(making_);
    if (texts_ == nullptr)
        texts_ = std::make_unique<texts>(
            texts_of(pieces_, static_cast<std::size_t>(rows_), name_, tell));
    return *texts_;
}

const texts &column::as_ranked_texts(const teller &tell) const {
    as_texts(tell);
    const std::scoped_lock lock(making_);
    if (texts_->ranks)
        return *texts_;
    rank_texts(*texts_);
    return *texts_;
}

std::optional<std::string_view> column::text_at(std::size_t row, const teller &tell) const {
    const texts &all = as_texts(tell);
    const std::int32_t code = all.codes.values<std::int32_t>()[row];
    if (code == nil_of<std::int32_t>())
        return std::nullopt;
    return all.words[static_cast<std::size_t>(code)];
}

const std::vector<bat> &column::as_keys(bool nan_missing, const teller &tell) const {
    if (!is_text(type_.of))
        as_numbers(nan_missing, tell);
    else
        as_texts(tell);
    const bool variant = nan_missing && is_float(type_.of);
    const numbers *const all = is_text(type_.of) ? nullptr : &as_numbers(nan_missing, tell);
    const std::scoped_lock lock(making_);
    auto &keys = keys_[variant ? 1 : 0];
    if (keys == nullptr) {
        std::vector<bat> made;
        if (all == nullptr) {
            made.push_back(bat::share(texts_->codes.id()));
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
    return is_text(type_.of) ? as_texts(tell).missing : as_numbers(nan_missing, tell).missing;
}

} // namespace vask::table
