#include "table/operands.h"

#include "kernel/column.h"
#include "table/kernel_column.h"
#include "table/parallel.h"

#include "rows/isa.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <concepts>
#include <limits>
#include <utility>

namespace vask::table {
namespace {

using refkernel::bat;
using refkernel::nil_of;

constexpr std::size_t parts_of(std::size_t rows) {
    return (rows + rows_of_a_task - 1) / rows_of_a_task;
}

// Calls `work(row, place)` for rows that `is_present`, in tasks, with their places among those.
template <class IsPresent, class Work>
void for_present(std::size_t rows, const IsPresent &is_present, const Work &work) {
    const std::size_t parts = parts_of(rows);
    std::vector<std::size_t> place(parts + 1, 0);
    const auto end_of = [&](std::size_t part) {
        return std::min(rows, (part + 1) * rows_of_a_task);
    };
    for_each_number(parts, [&](std::size_t part) {
        std::size_t count = 0;
        for (std::size_t row = part * rows_of_a_task; row < end_of(part); ++row)
            count += is_present(row) ? 1 : 0;
        place[part + 1] = count;
    });
    for (std::size_t part = 0; part < parts; ++part)
        place[part + 1] += place[part];
    for_each_number(parts, [&](std::size_t part) {
        std::size_t next = place[part];
        for (std::size_t row = part * rows_of_a_task; row < end_of(part); ++row)
            if (is_present(row))
                work(row, next++);
    });
}

template <class T, class Work>
void for_present(std::span<const T> values, std::span<const std::uint8_t> present,
                 const Work &work) {
    if (!present.empty())
        return for_present(
            values.size(), [&](std::size_t row) { return present[row] != 0; }, work);
    for_present(
        values.size(), [&, nil = nil_of<T>()](std::size_t row) { return values[row] != nil; },
        work);
}

} // namespace

double power_of_ten(int scale) {
    double result = 1;
    for (int i = 0; i < scale; ++i)
        result *= 10;
    return result;
}

double scaled_mean(wide_integer sum, lng count, int scale) {
    if (scale <= 0)
        return static_cast<double>(sum) / static_cast<double>(count);
    return static_cast<double>(static_cast<long double>(sum) /
                               (static_cast<long double>(count) * power_of_ten(scale)));
}

lng rounded_quotient(wide_integer sum, lng count) {
    const wide_integer twice = 2 * sum + (sum < 0 ? -count : count);
    return static_cast<lng>(twice / (2 * static_cast<wide_integer>(count)));
}

bat as_doubles(const column &of, const numbers &values) {
    const bool is_unsigned = values.beyond && of.type().of == kind::uint64;
    const double unit = power_of_ten(of.type().scale);
    const std::uint8_t *const present = values.present.empty() ? nullptr : values.present.data();
    return visit_values(values.values, [&]<class T>(std::span<const T> all) {
        fresh_column<dbl> made(all.size());
        for_rows(all.size(), [&](std::size_t begin, std::size_t end) {
            const T nil = nil_of<T>();
            const double neighbour = std::nextafter(nil_of<dbl>(), 0.0);
            for (std::size_t row = begin; row < end; ++row) {
                double value = is_unsigned
                                   ? static_cast<double>(static_cast<std::uint64_t>(all[row]))
                                   : static_cast<double>(all[row]);
                if (unit != 1)
                    value /= unit;
                if (!values.beyond)
                    value = all[row] == nil ? nil_of<dbl>() : value;
                else if (present != nullptr && present[row] == 0)
                    value = nil_of<dbl>();
                else if (value == nil_of<dbl>())
                    value = neighbour;
                made.values[row] = value;
            }
        });
        return std::move(made).finish({.nil = values.missing > 0, .nonil = values.missing == 0});
    });
}

bat present_values(const bat &values, std::span<const std::uint8_t> present,
                   std::uint64_t missing) {
    return visit_values(values, [&]<class T>(std::span<const T> all) {
        fresh_column<T> made(all.size() - missing);
        for_present(all, present,
                    [&](std::size_t row, std::size_t place) { made.values[place] = all[row]; });
        return std::move(made).finish({.nonil = true});
    });
}

bat map_of_present(const bat &values, std::span<const std::uint8_t> present, std::uint64_t missing,
                   const bat &map, const bat &aligned) {
    bat result = visit_values(values, [&]<class T>(std::span<const T> all) {
        const oid_reader groups(*map->tail, *map.record());
        const BUN first = map->info->first;
        fresh_column<oid> made(all.size() - missing);
        for_present(all, present, [&](std::size_t row, std::size_t place) {
            made.values[place] = groups[first + static_cast<BUN>(row)];
        });
        return std::move(made).finish();
    });
    ALIGNsetH(result.record(), aligned.record());
    return result;
}

} // namespace vask::table
