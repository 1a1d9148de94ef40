// A column of a table: where its values lie, and the forms in which operators take them.
#pragma once

#include "table/piece.h"
#include "table/text_encoder.h"
#include "table/value_type.h"

#include "vask/embed.h"

#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vask::table {

//! Least and greatest of integers.
struct value_bounds {
    lng low = std::numeric_limits<lng>::max();
    lng high = std::numeric_limits<lng>::min();

    bool is_empty() const { return low > high; }
};

//! Values as a kernel's column, missing ones as its nil.
struct numbers {
    refkernel::bat values;
    std::uint64_t missing = 0;
    /*
     * A value equals the nil, or is an unsigned one beyond the signed ones, in a type that has no
     * wider one: only `values` by their bits and `present` tell the truth.
     */
    bool beyond = false;
    std::vector<std::uint8_t> present; //!< of those: by row 1 for a value; empty: all are
    bool nan = false;                  //!< of floats: a value is a NaN
    //! Least and greatest value, where they were seen in passing: in columns without missing ones,
    //! nils and NaNs, in their own memory.
    std::optional<value_bounds> bounds;                //!< of integers
    std::optional<std::array<double, 2>> float_bounds; //!< of floats
    bool minus_zero = false;                           //!< one of those is -0.0
};

//! Texts as codes of words. A missing one has the nil.
struct texts {
    refkernel::bat codes;
    std::uint64_t missing = 0;
    std::span<const std::string_view> words; //!< by code, each once; some may not occur
    std::shared_ptr<const void> held;        //!< what the words lie in, if nobody else keeps it
    //! The place of each word in ascending order of bytes, and the words' codes in that order.
    std::vector<std::int32_t> rank;
    std::vector<std::int32_t> by_rank;
    refkernel::bat ranks; //!< of the rows
};

//! What is told once about how a column was taken: which column, what was done and why.
using teller = std::function<void(const std::string &)>;

/*
 * Immutable but for what it keeps of its forms, which are made when they are first asked for, by
 * one thread while others wait.
 */
class column {
public:
    column(std::string name, value_type type, std::int64_t rows, std::vector<piece> pieces);
    //! A column of a type that no query can use, and why.
    column(std::string name, std::int64_t rows, std::string refusal);
    //! A column of numbers that are a kernel's already, in the type's storage.
    column(std::string name, value_type type, refkernel::bat values, std::uint64_t missing);
    //! A column of texts that are encoded already.
    column(std::string name, texts encoded);

    //! The rows of several columns of one type, one behind the other. Throws table_error where
    //! types differ.
    static std::shared_ptr<const column>
    joined(std::string name, const std::vector<std::shared_ptr<const column>> &parts);

    const std::string &name() const { return name_; }
    std::int64_t rows() const { return rows_; }
    //! Throws table_error for a type that no query can use.
    const value_type &type() const;

    //! For all types but texts. With `nan_missing` each NaN is missing, too.
    const numbers &as_numbers(bool nan_missing, const teller &tell) const;
    //! The same of numbers that were not asked for before and lie where nothing is to be done but
    //! look whether one equals the nil, without that look; else nothing.
    std::optional<refkernel::bat> as_they_lie(bool nan_missing) const;
    const texts &as_texts(const teller &tell) const;
    //! The same with the ranks.
    const texts &as_ranked_texts(const teller &tell) const;

    //! The text of a row; nothing for a missing one.
    std::optional<std::string_view> text_at(std::size_t row, const teller &tell) const;

    //! Values to tell apart by their bits, one column or, of those that are `beyond`, perhaps two:
    //! all NaNs are one value, -0.0 is 0.0, and missing ones are equal.
    const std::vector<refkernel::bat> &as_keys(bool nan_missing, const teller &tell) const;

    //! Least and greatest of the numbers, or of the codes of texts, that are not the nil of their
    //! integer storage. Not for floats.
    value_bounds bounds(const teller &tell) const;

    std::uint64_t missing(bool nan_missing, const teller &tell) const;

    //! Checks all that the Arrow format lets one check, once. Throws table_error.
    void validate() const;

private:
    std::string name_;
    value_type type_;
    std::string refusal_;
    std::int64_t rows_;
    std::vector<piece> pieces_;

    mutable std::mutex making_;
    mutable std::unique_ptr<const numbers> numbers_;
    mutable std::unique_ptr<const numbers> numbers_without_nan_;
    mutable std::unique_ptr<texts> texts_;
    mutable std::array<std::unique_ptr<const std::vector<refkernel::bat>>, 2> keys_;
    mutable std::optional<value_bounds> bounds_;
    mutable bool validated_ = false;
};

} // namespace vask::table
