#include "operands.h"

#include "kernel/column.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vask::runner {
namespace {

using refkernel::bat;

template <std::floating_point Float, std::integral Bits>
bat keys_of_floats(const bat &column) {
    const auto values = column.values<Float>();
    if (std::none_of(values.begin(), values.end(), [](Float value) {
            return std::isnan(value) || (value == 0 && std::signbit(value));
        }))
        return bat::share(column.id());
    const auto nil = nil_of<Float>(column.type());
    std::vector<Bits> keys;
    keys.reserve(values.size());
    for (const Float value : values) {
        if (value == nil)
            keys.push_back(refkernel::nil_of<Bits>());
        else if (std::isnan(value))
            keys.push_back(std::bit_cast<Bits>(std::numeric_limits<Float>::quiet_NaN()));
        else
            keys.push_back(std::bit_cast<Bits>(value + Float{0})); // -0.0 + 0.0 is 0.0
    }
    return refkernel::make_column(std::move(keys));
}

// Calls `f` with the values of a column of numbers or timestamps and their nil.
template <class F>
auto visit_numbers(const table_column &column, F f) {
    return visit_cell_type(column.type, [&]<class Cell>(std::type_identity<Cell>) {
        using T = std::conditional_t<std::is_same_v<Cell, timestamp>, lng,
                                     std::conditional_t<std::is_same_v<Cell, truth>, bit, Cell>>;
        return f(column.values.values<T>(), nil_of<T>(column.values.type()));
    });
}

// The difference of two integers as that of the integers where 64 bits hold it: as dbl, large
// integers that are close to each other may be equal.
template <std::integral T>
double distance(T value, T centre) {
    lng difference = 0;
    if (__builtin_sub_overflow(lng{value}, lng{centre}, &difference))
        return static_cast<double>(value) - static_cast<double>(centre);
    return static_cast<double>(difference);
}
template <std::floating_point T>
double distance(T value, T centre) {
    return static_cast<double>(value) - static_cast<double>(centre);
}

} // namespace

bat distinct_values(const table_column &column) {
    switch (column.type) {
        case column_type::flt:
            return keys_of_floats<flt, std::int32_t>(column.values);
        case column_type::dbl:
            return keys_of_floats<dbl, std::int64_t>(column.values);
        default:
            return bat::share(column.values.id());
    }
}

bat as_doubles(const table_column &column) {
    return visit_numbers(column, []<class T>(std::span<const T> values, T nil) {
        std::vector<dbl> doubles;
        doubles.reserve(values.size());
        std::transform(values.begin(), values.end(), std::back_inserter(doubles), [nil](T value) {
            return value == nil ? refkernel::nil_of<dbl>() : static_cast<dbl>(value);
        });
        return refkernel::make_column(std::move(doubles));
    });
}

std::uint64_t count_nan(const table_column &column) {
    const auto count = []<class T>(std::span<const T> values) {
        return static_cast<std::uint64_t>(
            std::count_if(values.begin(), values.end(), [](T value) { return std::isnan(value); }));
    };
    switch (column.type) {
        case column_type::flt:
            return count(column.values.values<flt>());
        case column_type::dbl:
            return count(column.values.values<dbl>());
        default:
            return 0;
    }
}

bat present_numbers(const table_column &column) {
    if (column.missing == 0 && column.type != column_type::timestamp)
        return bat::share(column.values.id());
    return visit_numbers(column, []<class T>(std::span<const T> values, T nil) {
        std::vector<T> present;
        present.reserve(values.size());
        std::copy_if(values.begin(), values.end(), std::back_inserter(present),
                     [nil](T value) { return value != nil; });
        return refkernel::make_column(std::move(present), {.tail = {.nonil = true}});
    });
}

bat map_of_present(const table_column &column, const bat &map, const bat &values) {
    if (column.missing == 0)
        return bat::share(map.id());
    bat result = visit_numbers(column, [&]<class T>(std::span<const T> all, T nil) {
        const oid_reader groups(*map->tail, *map.record());
        const BUN first = map->info->first;
        std::vector<oid> present;
        present.reserve(values.count());
        for (BUN row = 0; row < all.size(); ++row)
            if (all[row] != nil)
                present.push_back(groups[first + row]);
        return refkernel::make_column(std::move(present));
    });
    ALIGNsetH(result.record(), values.record());
    return result;
}

centred_column centred(const table_column &column, const bat *map) {
    return visit_numbers(column, [map]<class T>(std::span<const T> values, T nil) {
        std::optional<oid_reader> groups;
        if (map != nullptr)
            groups.emplace(*(*map)->tail, *map->record());
        const BUN first = map == nullptr ? 0 : (*map)->info->first;
        // A group's id is a row of the group, whose value is the centre. Only where that is missing
        // the first value there is takes its place.
        std::unordered_map<oid, T> elsewhere;
        std::vector<dbl> distances;
        distances.reserve(values.size());
        for (BUN row = 0; row < values.size(); ++row) {
            const T value = values[row];
            if (value == nil) {
                distances.push_back(refkernel::nil_of<dbl>());
                continue;
            }
            const oid group = groups ? (*groups)[first + row] : 0;
            const T own = values[group];
            distances.push_back(distance(
                value, own != nil ? own : elsewhere.try_emplace(group, value).first->second));
        }
        return centred_column{refkernel::make_column(std::move(distances)),
                              [values, nil, elsewhere = std::move(elsewhere)](oid group) {
                                  if (group < values.size() && values[group] != nil)
                                      return static_cast<double>(values[group]);
                                  const auto found = elsewhere.find(group);
                                  return found == elsewhere.end()
                                             ? std::nan("")
                                             : static_cast<double>(found->second);
                              }};
    });
}

} // namespace vask::runner
