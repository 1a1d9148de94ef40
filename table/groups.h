// Groups of rows with equal keys.
#pragma once

#include "table/column.h"
#include "table/large_vector.h"
#include "table/operators.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

namespace vask::table {

using column_pointer = std::shared_ptr<const column>;

struct group_request {
    std::vector<column_pointer> keys; //!< none: all rows are one group
    bool nan_missing = false;
    bool drop_missing = false; //!< groups with a missing key are not shown
    bool sorted = false;       //!< shown in ascending order of keys, missing ones last
};

/*
 * Groups have numbers from 0 in the order of the extents. What is shown, and in which order, is
 * another matter: `order` gives the numbers in turn.
 */
class groups {
public:
    groups(std::int64_t rows, group_request request, const operator_set &operators,
           const teller &tell);

    bool is_whole() const { return request_.keys.empty(); }
    std::size_t count() const { return first_rows_.size(); }
    std::int64_t rows() const { return rows_; }

    //! For operators. Of the whole they are made when first asked for.
    const refkernel::bat &map() const;
    const refkernel::bat &extents() const;

    //! By number. Of an empty whole, the one group has the first row 0, which is not there.
    std::span<const oid> first_rows() const { return first_rows_; }
    //! By number, how many rows; lives as long as the groups.
    std::span<const lng> sizes() const;

    //! The numbers of the groups that are shown, in order.
    std::span<const std::uint32_t> order() const { return order_; }
    //! Whether the order is that of the numbers, none left out.
    bool in_order() const { return in_order_; }

    //! By row, the number of its group; empty for the whole.
    std::span<const std::int32_t> numbers() const;

    //! The same as a function of the row, of the whole too.
    auto number_of_row() const {
        return [own = numbers()](std::size_t row) {
            return own.empty() ? std::size_t{0} : static_cast<std::size_t>(own[row]);
        };
    }

    //! " in the group a 1, b x" for a group's number, for messages; nothing for the whole.
    std::string named(std::size_t number) const;

private:
    void find_order(const teller &tell);

    group_request request_;
    std::int64_t rows_;
    mutable operator_set::grouped_rows found_;
    large_vector<oid> first_rows_;
    large_vector<std::uint32_t> order_;
    bool in_order_ = true;
    mutable std::shared_ptr<refkernel::memory::block> number_memory_;
    mutable std::span<const std::int32_t> numbers_; // in it, once they were asked for
    mutable std::vector<lng> whole_size_;
};

} // namespace vask::table
