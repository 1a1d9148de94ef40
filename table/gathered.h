// The values of each group side by side, for what no operator works out.
#pragma once

#include "table/groups.h"
#include "table/parallel.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace vask::table {

/*
 * Values by group, in row order within each. The rows are cut into the same parts twice: first each
 * part counts its rows of each group, then it puts its values where those of earlier parts end.
 */
template <class T>
class gathered_values {
public:
    //! `value(row)` gives a row's value where `present(row)`.
    template <class Value, class Present>
    gathered_values(const groups &by, const Value &value, const Present &present) {
        const auto rows = static_cast<std::size_t>(by.rows());
        const std::size_t n = by.count();
        const auto group_of = by.number_of_row();
        // One part where its counters would not stay in the cache.
        constexpr std::size_t most_counters = std::size_t{1} << 20;
        const std::size_t parts = std::clamp<std::size_t>(
            std::min(most_counters / std::max<std::size_t>(n, 1), rows / rows_of_a_task), 1, 16);
        std::vector<std::uint32_t> places(parts * n, 0);
        const auto each_row = [&](std::size_t part, const auto &work) {
            std::uint32_t *const own = places.data() + part * n;
            for (std::size_t row = rows * part / parts; row < rows * (part + 1) / parts; ++row)
                if (present(row))
                    work(own[group_of(row)], row);
        };
        for_each_number(parts, [&](std::size_t part) {
            each_row(part, [](std::uint32_t &count, std::size_t) { ++count; });
        });
        begin_.resize(n + 1);
        std::uint32_t next = 0;
        for (std::size_t group = 0; group < n; ++group) {
            begin_[group] = next;
            for (std::size_t part = 0; part < parts; ++part) {
                std::uint32_t &count = places[part * n + group];
                const std::uint32_t own = count;
                count = next;
                next += own;
            }
        }
        begin_[n] = next;
        values_ = std::make_unique_for_overwrite<T[]>(next);
        for_each_number(parts, [&](std::size_t part) {
            each_row(part,
                     [&](std::uint32_t &place, std::size_t row) { values_[place++] = value(row); });
        });
    }

    std::span<T> of(std::size_t group) {
        return {values_.get() + begin_[group], values_.get() + begin_[group + 1]};
    }

    //! Calls `work(group, values)` for every group, in tasks of about as many values.
    template <class Work>
    void for_each(const Work &work) {
        const std::size_t n = begin_.size() - 1;
        const std::size_t grain = std::max<std::size_t>(
            1, rows_of_a_task / (begin_[n] / std::max<std::size_t>(n, 1) + 1));
        for_parts(n, grain, [&](std::size_t begin, std::size_t end) {
            for (std::size_t group = begin; group < end; ++group)
                work(group, of(group));
        });
    }

private:
    std::vector<std::uint32_t> begin_;
    std::unique_ptr<T[]> values_;
};

} // namespace vask::table
