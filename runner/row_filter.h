// Conditions on rows, as in --where 'amount > 100 and city != "Oslo"'.
#pragma once

#include "expression.h"
#include "expression_evaluator.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace vask::runner {

/*
 * A condition that tells of the cells of a row whether it is kept. What a value is compared with
 * decides how: a number by value, true and false as truth values, a text that reads as a timestamp
 * by time where the cell does so, too, any other text by its bytes. Two columns compare as numbers
 * or times where both cells read as such, else by their bytes. A comparison with a missing value
 * is unknown, and so is what depends on it; rows are kept where the condition is true.
 */
class row_filter {
public:
    //! The place that is not in the files stands for their names. Throws user_error, with the place
    //! in the text, for one that cannot be read or is no condition.
    row_filter(std::string_view text, const name_finder &find, const date_format &dates = {},
               std::optional<std::size_t> file_place = std::nullopt);

    //! The columns that it is about, by place in the file. Cells are given in this order.
    std::span<const std::size_t> columns() const { return condition_.columns; }

    //! Whether a column, of these, is the name of the row's file.
    bool is_file_name(std::size_t slot) const { return condition_.columns[slot] == file_place_; }

    struct cell {
        std::string text;
        bool missing = false;
    };
    //! A cell that is not of the kind that it is used as; with an empty kind, one of which a whole
    //! number is worked out that 64 bits do not hold.
    struct misfit {
        std::size_t slot;
        std::string_view kind;
    };

    //! Judges rows one by one, of one thread. The filter must outlive it, and stay where it is.
    class judge {
    public:
        explicit judge(const row_filter &filter);
        judge(const judge &) = delete;
        judge &operator=(const judge &) = delete;

        //! Whether the row is kept. With a misfit, it is not of use.
        bool keeps(std::span<const cell> cells, std::optional<misfit> &fault);

    private:
        const expression &condition_;
        std::span<const cell> cells_;
        expression_evaluator evaluator_;
    };

private:
    expression condition_;
    std::optional<std::size_t> file_place_;
};

} // namespace vask::runner
