// Values of an expression, by blocks of rows.
#pragma once

#include "expression.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

namespace vask::runner {

//! Values of a kind, of as many rows as the evaluator takes at a time.
struct value_block {
    value_kind of{};
    std::vector<lng> wholes; //!< and truth values as 0 and 1, and times in microseconds
    std::vector<dbl> reals;
    std::vector<std::string_view> texts;
    std::vector<std::uint8_t> missing;
};

/*
 * Works an expression out. Whole numbers stay whole in + - * and %, others are doubles. A missing
 * value makes what is worked out from it missing; conditions have a third answer for it, as in SQL.
 * What a number has no result for, such as a division by zero, is missing, too, and is counted.
 *
 * Cells are read as what they are used as. Compared with a text that reads as a time, a cell is a
 * time where it reads as one; two cells are numbers or times where both read as such, else texts.
 *
 * One evaluator belongs to one thread. The expression must outlive it.
 */
class expression_evaluator {
public:
    //! Fills a block with the values of a column: kind, values, missing. A text must live as long
    //! as the block is used.
    using column_reader = std::function<void(std::size_t slot, value_block &values)>;

    expression_evaluator(const expression &whole, std::size_t most_rows, column_reader read);

    enum class failure : std::uint8_t {
        misfit,  //!< a cell is not what it is used as: of the kind `wanted`
        overflow //!< whole numbers leave 64 bits
    };
    struct fault {
        failure what;
        std::size_t node;
        std::size_t row;
        std::string_view wanted{}; //!< without an article
        std::string_view cell{};
    };

    //! The values of the next rows, as many as the column reader now gives. With a fault, they are
    //! not of use; it is the first one in the order of evaluation.
    const value_block &evaluate(std::size_t rows);
    const std::optional<fault> &failed() const noexcept { return fault_; }
    //! Rows without a result so far for another reason than a missing value.
    std::uint64_t undefined() const noexcept { return undefined_; }

private:
    using rows_mask = const std::uint8_t *; //!< not 0: it counts what the row gives

    value_block &of(std::size_t i, rows_mask active);
    value_block &conjunction(std::size_t i, rows_mask active, bool deciding);
    value_block &comparison(std::size_t i, rows_mask active);
    value_block &text_match(std::size_t i, rows_mask active);
    value_block &arithmetic(std::size_t i, rows_mask active);
    value_block &function_of_number(std::size_t i, rows_mask active);
    value_block &function_of_time(std::size_t i, rows_mask active);

    value_block &begin(std::size_t i, value_kind kind);
    void join_missing(value_block &result, const value_block &a, const value_block &b) const;
    template <class Order>
    void decide(std::size_t i, value_block &result, Order order) const;
    template <class Work>
    void work_whole(std::size_t i, rows_mask active, const value_block &a, const value_block &b,
                    Work work);
    template <class Work>
    void work_real(std::size_t i, rows_mask active, const value_block &a, const value_block &b,
                   Work work);
    void leave_out_zero_divisors(value_block &result, const value_block &divisors,
                                 rows_mask active);
    void compare_texts(std::size_t i, value_block &result, const value_block &a,
                       const value_block &b) const;

    void to_numbers(std::size_t node, value_block &values, rows_mask active);
    void to_reals(value_block &values) const;
    void to_truths(std::size_t node, value_block &values, rows_mask active);
    void to_times(std::size_t node, value_block &values, rows_mask active);
    void fail(failure what, std::size_t node, std::size_t row, std::string_view wanted = {},
              std::string_view cell = {});

    const expression &whole_;
    column_reader read_;
    std::size_t capacity_;
    std::size_t rows_ = 0;
    std::vector<value_block> blocks_;              // by node
    std::vector<std::vector<std::uint8_t>> masks_; // by node, of and and or
    std::vector<std::uint8_t> all_;
    std::optional<fault> fault_;
    std::uint64_t undefined_ = 0;
};

} // namespace vask::runner
