#include "output_order.h"

#include "nearest_name.h"
#include "user_error.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <numeric>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <fmt/format.h>

namespace vask::runner {
namespace {

bool less(truth a, truth b) {
    return a.value < b.value;
}
bool less(timestamp a, timestamp b) {
    return a.microseconds < b.microseconds;
}
template <class T>
bool less(const T &a, const T &b) {
    return a < b;
}

// Values in order first, then NaN, then missing ones.
int place_of(const result_cell &cell) {
    return std::visit(
        []<class T>(const T &value) {
            if constexpr (std::is_same_v<T, std::monostate>)
                return 2;
            else if constexpr (std::is_floating_point_v<T>)
                return std::isnan(value) ? 1 : 0;
            else
                return 0;
        },
        cell);
}

bool comes_before(const result_cell &a, const result_cell &b, bool descending) {
    const int a_place = place_of(a);
    const int b_place = place_of(b);
    if (a_place != b_place || a_place != 0)
        return a_place < b_place;
    return std::visit(
        [&]<class T>(const T &value) {
            if constexpr (std::is_same_v<T, std::monostate>)
                return false;
            else
                return descending ? less(std::get<T>(b), value) : less(value, std::get<T>(b));
        },
        a);
}

} // namespace

const result_column &column_called(const result_table &result, const std::string &title,
                                   std::string_view asked_by) {
    const auto found =
        std::find_if(result.columns.begin(), result.columns.end(),
                     [&](const result_column &column) { return column.title == title; });
    if (found != result.columns.end())
        return *found;
    std::vector<std::string> titles;
    for (const result_column &column : result.columns)
        titles.push_back(column.title);
    const auto nearest = nearest_name(titles, title);
    fail("{}: the result has no column '{}'; {}", asked_by, title,
         nearest ? fmt::format("did you mean '{}'?", *nearest)
                 : fmt::format("it has {}", fmt::join(titles, ", ")));
}

void put_in_order(result_table &result, const row_order &order) {
    std::vector<std::size_t> rows(result.rows);
    std::iota(rows.begin(), rows.end(), std::size_t{0});
    if (order.by) {
        const result_column &column = column_called(result, *order.by, "--order-by");
        // Cells are read once each: comparing reads them many times over.
        std::vector<result_cell> cells;
        cells.reserve(result.rows);
        for (const std::size_t row : rows)
            cells.push_back(column.cell(row));
        const auto earlier = [&](std::size_t a, std::size_t b) {
            if (comes_before(cells[a], cells[b], order.descending))
                return true;
            return !comes_before(cells[b], cells[a], order.descending) && a < b;
        };
        const std::size_t shown = std::min(order.most_rows.value_or(rows.size()), rows.size());
        std::partial_sort(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(shown),
                          rows.end(), earlier);
    } else if (order.descending) {
        std::reverse(rows.begin(), rows.end());
    }
    if (order.most_rows)
        rows.resize(std::min(rows.size(), *order.most_rows));
    result.rows = rows.size();
    const auto shown = std::make_shared<const std::vector<std::size_t>>(std::move(rows));
    for (result_column &column : result.columns)
        column.cell = [shown, cell = std::move(column.cell)](std::size_t row) {
            return cell((*shown)[row]);
        };
}

} // namespace vask::runner
