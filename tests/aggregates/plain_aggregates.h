// The aggregates as one would write them down: `of` the values of a partition in row order, which
// gives a `partial` result, then the `total` of those of the partitions that had a value. `types`
// is the operator's line of the table of result types.
#pragma once

#include "aggregates/result_types.h"

#include <cstdint>
#include <numeric>
#include <optional>
#include <type_traits>
#include <vector>

namespace plain {

template <class T>
struct sum {
    using types = vask::sum_result<T>;
    using result = typename types::type;
    using partial = result;
    template <class V>
    static result of(const std::vector<V> &values) {
        result total = 0;
        for (const V v : values) {
            if constexpr (std::is_integral_v<T>)
                total = static_cast<result>(static_cast<std::uint64_t>(total) +
                                            static_cast<std::uint64_t>(std::int64_t{v}));
            else
                total += v;
        }
        return total;
    }
    static result total(const std::vector<result> &partitions) { return of(partitions); }
};

template <class T, bool largest>
struct extreme {
    using types = vask::extreme_result<T>;
    using result = typename types::type;
    using partial = T;
    static T of(const std::vector<T> &values) {
        T best = values.front();
        for (const T v : values)
            if (largest ? v > best : v < best)
                best = v;
        return best;
    }
    static T total(const std::vector<T> &partitions) { return of(partitions); }
};
template <class T>
using min = extreme<T, false>;
template <class T>
using max = extreme<T, true>;

template <class T>
struct count {
    using types = vask::count_result<T>;
    using result = typename types::type;
    using partial = result;
    static result of(const std::vector<T> &values) { return static_cast<result>(values.size()); }
    static result total(const std::vector<result> &partitions) {
        return std::accumulate(partitions.begin(), partitions.end(), result{0});
    }
};

//! The result over the rows of each partition, given their numbers; empty if there is no value.
template <class Aggregate, class T>
std::optional<typename Aggregate::result>
result_of(const std::vector<std::vector<std::uint32_t>> &rows_of_partitions,
          const std::vector<T> &values) {
    std::vector<typename Aggregate::partial> partitions;
    for (const auto &rows : rows_of_partitions) {
        std::vector<T> of_rows;
        for (const std::uint32_t row : rows)
            of_rows.push_back(values[row]);
        if (!of_rows.empty())
            partitions.push_back(Aggregate::of(of_rows));
    }
    if (partitions.empty())
        return std::nullopt;
    return Aggregate::total(partitions);
}

} // namespace plain
