#include "executor.h"

#include "column_cells.h"

#include "refkernel/errors.h"

#include <array>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace vask::runner {
namespace {

// The forms of exported operators: the result slot, then the numbers of the inputs.
using whole_operator_function = char *(void *result, const int32_t *column);

// Takes over the exception string that an operator returned, if any.
void check(char *exception_string) {
    if (exception_string == nullptr)
        return;
    const refkernel::exception failure = refkernel::take_exception(exception_string);
    throw std::runtime_error(
        fmt::format("the operator failed: {}: {}", failure.place, failure.text));
}

result_column whole_column(const bound_aggregate &aggregate, const table &data,
                           const csv_header &header, const operator_library &operators,
                           const explain_log &explain) {
    const table_column &column = data.columns[aggregate.column];
    const std::string name = whole_operator(*aggregate.rule, column.type);
    auto *const function = operators.function<whole_operator_function>(name);
    std::array<std::byte, sizeof(lng)> value{};
    check(explain.timed(name, header.names[aggregate.column], column.values.count(),
                        [&] { return function(value.data(), column.values.slot()); }));
    const column_type type = result_type(*aggregate.rule, column.type);
    return {aggregate.title, false,
            [value, type](std::size_t) { return cell_at(value.data(), type); }};
}

} // namespace

result_table execute(const query &asked, const table &data, const csv_header &header,
                     const operator_library &operators, const explain_log &explain) {
    result_table result;
    result.rows = 1;
    for (const bound_aggregate &aggregate : asked.aggregates)
        result.columns.push_back(whole_column(aggregate, data, header, operators, explain));
    return result;
}

} // namespace vask::runner
