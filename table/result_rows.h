// Columns of results read row by row, and put together from parts.
#pragma once

#include "table/answer.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vask::table {

bool is_null(const result_column &of, std::int64_t row);
//! Of a column of int64 or float64.
std::optional<lng> integer_at(const result_column &of, std::int64_t row);
std::optional<double> number_at(const result_column &of, std::int64_t row);

//! Some rows of a column, in an order; `from` null: so many nulls.
struct rows_part {
    const result_column *from = nullptr;
    std::vector<std::int64_t> rows;
};

//! The parts one behind the other. All are of the type's kind.
result_column stacked(std::string name, const value_type &type,
                      const std::vector<rows_part> &parts);

//! A column of a table with the same values.
std::shared_ptr<const column> as_column(const result_column &of);

} // namespace vask::table
