// Conditions on rows, as in --where 'amount > 100 and city != "Oslo"'.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vask::runner {

/*
 * A condition, parsed. Its grammar, keywords in any case:
 *
 *   condition   condition or condition, condition and condition, not condition, (condition)
 *               value = value, and so == != <> < <= > >=
 *               value [not] between value and value
 *               value [not] in (value, ...)
 *               value [not] contains|starts with|ends with|like text     % any bytes, _ one
 *               value is [not] missing|null
 *   value       column, `column with any name`, number, "text", 'text', true, false
 *
 * What a value is compared with decides how: a number by value, true and false as truth values, a
 * text that reads as a timestamp by time where the cell does so, too, any other text by its bytes.
 * Two columns compare as numbers or times where both cells read as such, else by their bytes. A
 * comparison with a missing value is unknown, and so is what depends on it; rows are kept where
 * the condition is true.
 */
class row_filter {
public:
    //! Throws user_error, with the place in the text, for one that cannot be read. `place_of` finds
    //! a column and throws for a name that there is not.
    row_filter(std::string_view text,
               const std::function<std::size_t(const std::string &name)> &place_of);

    //! The columns that it is about, by place in the file. Cells are given in this order.
    std::span<const std::size_t> columns() const { return columns_; }

    struct cell {
        std::string text;
        bool missing = false;
    };
    //! A cell that is no number, or no truth value, where it is compared with one.
    struct misfit {
        std::size_t slot;
        std::string_view kind;
    };
    //! Whether the row is kept. With a misfit, it is not of use.
    bool keeps(std::span<const cell> cells, std::optional<misfit> &fault) const;

    struct operand {
        enum class kind : std::uint8_t { column, number, truth, time, text };
        kind of = kind::text;
        std::size_t slot = 0; //!< of a column
        std::string text;     //!< of a literal
    };
    enum class operation : std::uint8_t {
        both,
        either,
        negation,
        less,
        less_or_equal,
        equal,
        contains,
        begins,
        ends,
        like,
        missing
    };
    struct node {
        operation what{};
        std::size_t left = 0; //!< nodes of both, either and negation
        std::size_t right = 0;
        operand a{};
        operand b{};
    };

private:
    std::vector<std::size_t> columns_;
    std::vector<node> nodes_;
    std::size_t root_ = 0;
};

} // namespace vask::runner
