// Expressions on columns, as in --where 'amount > 100' and --let 'revenue = price * qty'.
#pragma once

#include "cell_values.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vask::runner {

enum class operation : std::uint8_t {
    // values
    column,
    whole,
    real,
    truth,
    text,
    // conditions
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
    missing,
    // numbers
    add,
    subtract,
    multiply,
    divide,
    remainder,
    minus,
    absolute,
    floor,
    ceiling,
    round,
    round_to,
    exponential,
    logarithm,
    logarithm_2,
    logarithm_10,
    square_root,
    power,
    // times
    part_of_time,
    truncated_time
};

enum class time_unit : std::uint8_t {
    year,
    quarter,
    month,
    week,
    weekday,
    day,
    hour,
    minute,
    second
};

//! What a value is. A cell is text of a file of which it is open what it is to be read as.
enum class value_kind : std::uint8_t { whole, real, truth, time, text, cell };

struct expression_node {
    operation what{};
    std::size_t left = 0; //!< operands, by place among the nodes; before the node itself
    std::size_t right = 0;
    std::size_t source = 0; //!< where it was written: the text, and the place in it
    std::size_t at = 0;
    std::size_t depth = 1; //!< of the tree below
    std::size_t slot = 0;  //!< column: its place among the expression's columns
    time_unit unit{};
    lng whole = 0; //!< of a literal
    dbl real = 0;
    bool truth = false;
    std::string text{};
    std::optional<lng> time{}; //!< of a literal text that reads as a time
};

/*
 * An expression, parsed. Its grammar, keywords and functions in any case:
 *
 *   expression  or of and of not of comparisons, which bind in this order, loosest first
 *   comparison  value = value, and so == != <> < <= > >=
 *               value [not] between value and value
 *               value [not] in (value, ...)
 *               value [not] contains|starts with|ends with|like text     % any bytes, _ one
 *               value is [not] missing|null
 *   value       + - on products, * / % on signed factors
 *   factor      column, `column with any name`, #number of a column, number, "text", 'text', true,
 *               false, function(value, ...), (expression)
 */
struct expression {
    struct source {
        std::string option; //!< for messages
        std::string text;
    };
    std::vector<source> sources;
    std::vector<expression_node> nodes;
    std::vector<std::size_t> columns; //!< by place in the file
    std::size_t root = 0;
    date_format dates{}; //!< of texts that are read as times

    //! Throws user_error with the place in the text.
    [[noreturn]] void complain(std::size_t node, const std::string &what) const;
    //! The name of a column as it was written.
    const std::string &name_of_column(std::size_t node) const { return nodes[node].text; }
};

//! What a name stands for: a column by its place in the file, or an expression.
using meaning = std::variant<std::size_t, const expression *>;
//! Throws user_error for a name that there is not.
using name_finder = std::function<meaning(const std::string &name)>;

//! Throws user_error, with the place in the text, for an expression that cannot be read. `option`
//! is what messages begin with.
expression parse_expression(std::string_view text, std::string_view option, const name_finder &find,
                            const date_format &dates = {});

struct definition {
    std::string name;
    expression value;
};

//! Parses `name = expression, ...`, and calls `add` for each as soon as it is read, so that the
//! next ones can use it.
void parse_definitions(std::string_view text, std::string_view option, const name_finder &find,
                       const std::function<void(definition)> &add, const date_format &dates = {});

//! The kind of an expression's value, of columns of these kinds by slot: text for what is text for
//! good, cell for what is open. Throws user_error, with the place, where kinds do not go together.
value_kind kind_of(const expression &whole, std::span<const value_kind> columns);

//! A value's kind in words, with its article.
std::string_view words_for(value_kind kind);

} // namespace vask::runner
