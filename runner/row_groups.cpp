#include "row_groups.h"

#include "column_cells.h"
#include "operands.h"
#include "operator_calls.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <span>

#include <fmt/format.h>

namespace vask::runner {
namespace {

using refkernel::bat;

void take_over(std::int32_t extents, std::int32_t map, row_groups &groups) {
    groups.extents = bat::adopt(extents);
    groups.map = bat::adopt(map);
}

std::string number_of(const row_groups &groups) {
    const BUN n = groups.extents.count();
    return fmt::format("{} group{}, ", n, n == 1 ? "" : "s");
}

void group_by_first(const table_column &column, const std::string &name,
                    const operator_library &operators, const explain_log &explain,
                    row_groups &groups) {
    auto *const group = operators.function<group_operator>("VASKgroup");
    const bat values = distinct_values(column);
    const BUN rows = values.count();
    explain.timed(
        "VASKgroup", name, rows,
        [&] {
            std::int32_t extents = int_nil;
            std::int32_t map = int_nil;
            check(group(&extents, &map, values.slot()));
            take_over(extents, map, groups);
        },
        [&] { return number_of(groups); });
}

void refine(const table_column &column, const std::string &name, const operator_library &operators,
            const explain_log &explain, row_groups &groups) {
    auto *const derive = operators.function<derive_operator>("VASKderive");
    const bat values = distinct_values(column);
    const BUN rows = values.count();
    explain.timed(
        "VASKderive", name, rows,
        [&] {
            std::int32_t extents = int_nil;
            std::int32_t map = int_nil;
            check(derive(&extents, &map, groups.extents.slot(), groups.map.slot(), values.slot()));
            take_over(extents, map, groups);
        },
        [&] { return number_of(groups); });
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

using sort_key = std::vector<result_cell>;

// By the first key, then each run of equals by the others: comparing all keys of two rows at once
// would look at the first ones, which are mostly equal, again and again.
void sort_by_keys(std::span<BUN> order, std::span<const sort_key> keys) {
    const sort_key &key = keys.front();
    std::stable_sort(order.begin(), order.end(),
                     [&key](BUN a, BUN b) { return compare_cells(key[a], key[b]) < 0; });
    if (keys.size() == 1)
        return;
    for (std::size_t begin = 0; begin < order.size();) {
        std::size_t end = begin + 1;
        while (end < order.size() && compare_cells(key[order[begin]], key[order[end]]) == 0)
            ++end;
        sort_by_keys(order.subspan(begin, end - begin), keys.subspan(1));
        begin = end;
    }
}

void sort_by_columns(const std::vector<std::size_t> &columns, const table &data,
                     row_groups &groups) {
    // Cells are read once each: comparing reads them many times over.
    std::vector<sort_key> keys;
    for (const std::size_t i : columns) {
        const auto cell = cells_of(data.columns[i].values, data.columns[i].type);
        sort_key &key = keys.emplace_back();
        key.reserve(groups.first_rows.size());
        for (const oid row : groups.first_rows)
            key.push_back(cell(row));
    }
    sort_by_keys(groups.order, keys);
}

} // namespace

row_groups one_group(BUN rows) {
    row_groups groups;
    groups.map = refkernel::make_column(std::vector<oid>(rows));
    groups.extents = refkernel::make_column(std::vector<lng>{rows}, {.type = TYPE_wrd});
    groups.first_rows = {0};
    groups.order = {0};
    return groups;
}

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
