#include "row_groups.h"

#include "column_cells.h"
#include "grouping_road.h"
#include "operator_calls.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <optional>

#include <fmt/format.h>

namespace vask::runner {
namespace {

using refkernel::bat;
using refkernel::instrumentation::watch;

// Runs a grouping operator; `road` reads from the watch which road it took. The watch makes the
// kernel's operations slower, so it stands only when somebody wants to know.
template <class Call, class Road>
void run_explained(const std::string &name, BUN rows, const explain_log &explain, Call call,
                   Road road) {
    std::optional<watch> seen;
    if (explain.on())
        seen.emplace();
    const auto begin = std::chrono::steady_clock::now();
    const BUN groups = call();
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - begin;
    if (seen)
        explain.note(fmt::format("{}: {} rows, {}, {} groups, {:.3f} ms ({})", name, rows,
                                 row_ranges_of(*seen, rows), groups, time.count(), road(*seen)));
}

void group_by_first(const table_column &column, const std::string &name,
                    const operator_library &operators, const explain_log &explain,
                    row_groups &groups) {
    auto *const group = operators.function<group_operator>("VASKgroup");
    run_explained(
        fmt::format("VASKgroup({})", name), column.values.count(), explain,
        [&] {
            std::int32_t extents = int_nil;
            std::int32_t map = int_nil;
            check(group(&extents, &map, column.values.slot()));
            groups.extents = bat::adopt(extents);
            groups.map = bat::adopt(map);
            return groups.extents.count();
        },
        [&](const watch &seen) { return road_of_group(seen, *column.values.record()); });
}

void refine(const table_column &column, const std::string &name, const operator_library &operators,
            const explain_log &explain, row_groups &groups) {
    auto *const derive = operators.function<derive_operator>("VASKderive");
    const BUN old_groups = groups.extents.count();
    run_explained(
        fmt::format("VASKderive({})", name), column.values.count(), explain,
        [&] {
            std::int32_t extents = int_nil;
            std::int32_t map = int_nil;
            check(derive(&extents, &map, groups.extents.slot(), groups.map.slot(),
                         column.values.slot()));
            groups.extents = bat::adopt(extents);
            groups.map = bat::adopt(map);
            return groups.extents.count();
        },
        [&](const watch &seen) { return road_of_derive(seen, column.values.count(), old_groups); });
}

// ---- order --------------------------------------------------------------------------------------

template <class T>
int compare(const T &a, const T &b) {
    if constexpr (std::floating_point<T>)
        if (std::isnan(a) || std::isnan(b))
            return static_cast<int>(std::isnan(a)) - static_cast<int>(std::isnan(b));
    return a < b ? -1 : static_cast<int>(b < a);
}
int compare(truth a, truth b) {
    return compare(a.value, b.value);
}
int compare(timestamp a, timestamp b) {
    return compare(a.microseconds, b.microseconds);
}

// Two cells of one column: of one kind, or missing.
int compare_cells(const result_cell &a, const result_cell &b) {
    if (a.index() != b.index())
        return std::holds_alternative<std::monostate>(a) ? 1 : -1;
    return std::visit([&b]<class T>(const T &value) { return compare(value, std::get<T>(b)); }, a);
}

void sort_by_columns(const std::vector<std::size_t> &columns, const table &data,
                     row_groups &groups) {
    // Cells are read once each: comparing reads them many times over.
    std::vector<std::vector<result_cell>> keys;
    for (const std::size_t i : columns) {
        const auto cell = cells_of(data.columns[i].values, data.columns[i].type);
        std::vector<result_cell> &key = keys.emplace_back();
        key.reserve(groups.first_rows.size());
        for (const oid row : groups.first_rows)
            key.push_back(cell(row));
    }
    std::stable_sort(groups.order.begin(), groups.order.end(), [&keys](BUN a, BUN b) {
        for (const auto &key : keys)
            if (const int order = compare_cells(key[a], key[b]); order != 0)
                return order < 0;
        return false;
    });
}

} // namespace

row_groups group_rows(const std::vector<std::size_t> &columns, bool sorted, const table &data,
                      const csv_header &header, const operator_library &operators,
                      const explain_log &explain) {
    row_groups groups;
    group_by_first(data.columns[columns.front()], header.names[columns.front()], operators, explain,
                   groups);
    for (std::size_t i = 1; i < columns.size(); ++i)
        refine(data.columns[columns[i]], header.names[columns[i]], operators, explain, groups);

    const BUN count = groups.extents.count();
    groups.first_rows.reserve(count);
    for (BUN group = 0; group < count; ++group)
        groups.first_rows.push_back(groups.extents.head_oid(group));
    groups.order.resize(count);
    std::iota(groups.order.begin(), groups.order.end(), BUN{0});
    const auto earlier = [&groups](BUN a, BUN b) {
        return groups.first_rows[a] < groups.first_rows[b];
    };
    if (!std::is_sorted(groups.order.begin(), groups.order.end(), earlier))
        std::sort(groups.order.begin(), groups.order.end(), earlier);
    if (sorted)
        sort_by_columns(columns, data, groups);
    return groups;
}

} // namespace vask::runner
