#include "filtered_union.h"

#include "column_cells.h"
#include "kernel/column.h"
#include "query.h"
#include "query_checks.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

namespace vask::runner {
namespace {

constexpr type_set accepted(column_type::bit, column_type::bte, column_type::sht, column_type::int_,
                            column_type::lng, column_type::flt, column_type::dbl);

column_type type_of(const refkernel::bat &column) {
    return *std::find_if(all_column_types.begin(), all_column_types.end(),
                         [&](column_type type) { return type_code(type) == column.type(); });
}

} // namespace

result_table filtered_union(input_file &file, const options &request,
                            const table::operator_set &operators, const explain_log &explain) {
    const csv_header &header = file.header();
    std::array<std::size_t, 2> places{};
    std::vector<bool> wanted(header.names.size(), false);
    for (std::size_t i = 0; i < places.size(); ++i) {
        places[i] = find_column(header, file.source(), request.union_columns[i], "union");
        wanted[places[i]] = true;
    }
    const loaded_table data = file.load(wanted, request.types, explain);
    const loaded_columns loaded{data, file.loading(), header, file.source()};
    for (const std::size_t place : places)
        require_type(accepted, "union", "union", place, loaded);
    const std::string &left_name = header.names[places[0]];
    const std::string &right_name = header.names[places[1]];

    const std::array both_columns{&data.columns[places[0]].values, &data.columns[places[1]].values};
    result_table result;
    result.held.push_back(
        operators.call("vask_coSNNandUnion", both_columns, left_name + ", " + right_name));
    const refkernel::bat &both = result.held.front();
    result.rows = both.count();
    result.columns.push_back({"row", false,
                              [heads = oid_reader(*both->head, *both.record()),
                               first = both->info->first](std::size_t row) -> result_cell {
                                  return std::int64_t{heads[first + static_cast<BUN>(row)]} + 1;
                              }});
    result.columns.push_back(
        {"column", true,
         [&left_name, &right_name, half = result.rows / 2](std::size_t row) -> result_cell {
             return std::string_view(row < half ? left_name : right_name);
         }});
    result.columns.push_back({"value", false, cells_of(both, type_of(both))});
    return result;
}

} // namespace vask::runner
