#include "integer_sums.h"

#include "kernel/column.h"

#include <algorithm>
#include <concepts>
#include <limits>
#include <optional>

namespace vask::runner {
namespace {

constexpr wide_integer largest = std::numeric_limits<lng>::max();

} // namespace

bool sum_may_leave_lng(const table_column &column) {
    return visit_cell_type(column.type, [&]<class T>(std::type_identity<T>) {
        if constexpr (std::integral<T>) {
            const auto values = column.values.values<T>();
            const auto rows = static_cast<wide_integer>(values.size());
            // Narrow types need no look at their values: there are not rows enough.
            if (rows <= largest / (wide_integer{std::numeric_limits<T>::max()} + 1))
                return false;
            const T nil = refkernel::nil_of<T>();
            T low = 0;
            T high = 0;
            for (const T value : values) {
                low = std::min(low, value == nil ? T{0} : value);
                high = std::max(high, value);
            }
            return rows * std::max(-wide_integer{low}, wide_integer{high}) > largest;
        }
        return false;
    });
}

std::unordered_map<oid, wide_integer> exact_sums(const table_column &column,
                                                 const refkernel::bat *map) {
    return visit_cell_type(column.type, [&]<class T>(std::type_identity<T>) {
        std::unordered_map<oid, wide_integer> sums;
        if constexpr (std::integral<T>) {
            std::optional<oid_reader> groups;
            if (map != nullptr)
                groups.emplace(*(*map)->tail, *map->record());
            const BUN first = map == nullptr ? 0 : (*map)->info->first;
            const auto values = column.values.values<T>();
            const T nil = refkernel::nil_of<T>();
            for (BUN row = 0; row < values.size(); ++row)
                if (values[row] != nil)
                    sums[groups ? (*groups)[first + row] : 0] += values[row];
        }
        return sums;
    });
}

} // namespace vask::runner
