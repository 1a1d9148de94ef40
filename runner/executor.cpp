#include "executor.h"

#include "column_cells.h"
#include "operator_calls.h"
#include "row_groups.h"

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

namespace vask::runner {
namespace {

class executor {
public:
    executor(const table &data, const csv_header &header, const operator_library &operators,
             const explain_log &explain)
        : data_(data), header_(header), operators_(operators), explain_(explain) {}

    result_table run(const query &asked) {
        result_.rows = 1;
        if (!asked.group_by.empty()) {
            groups_ = std::make_shared<row_groups>(
                group_rows(asked.group_by, asked.sorted, data_, header_, operators_, explain_));
            result_.rows = groups_->order.size();
        }
        for (const std::size_t column : asked.group_by)
            add_group_values(column);
        for (const bound_aggregate &aggregate : asked.aggregates)
            result_.columns.push_back({aggregate.title, false, cells_of_aggregate(aggregate)});
        return std::move(result_);
    }

private:
    using cell_function = std::function<result_cell(std::size_t row)>;

    void add_group_values(std::size_t i) {
        const table_column &column = data_.columns[i];
        result_.columns.push_back(
            {header_.names[i], column.type == column_type::str,
             [groups = groups_, cell = cells_of(column.values, column.type)](std::size_t row) {
                 return cell(groups->first_rows[groups->order[row]]);
             }});
    }

    cell_function cells_of_aggregate(const bound_aggregate &aggregate) {
        const aggregate_rule &rule = *aggregate.rule;
        if (rule.arguments == argument_form::all_rows)
            return groups_ ? in_shown_order(cells_of(groups_->extents, column_type::lng))
                           : whole_count(rule,
                                         refkernel::make_void_column(static_cast<BUN>(data_.rows)),
                                         "*");
        const std::size_t column = aggregate.columns.front();
        if (rule.result == result_rule::quotient) {
            cell_function dividend = by_operator(*find_aggregate(rule.dividend), column);
            return quotient(std::move(dividend),
                            by_operator(*find_aggregate(rule.divisor), column));
        }
        return by_operator(rule, column);
    }

    cell_function by_operator(const aggregate_rule &rule, std::size_t i) {
        const table_column &column = data_.columns[i];
        if (groups_)
            return grouped(rule, column, header_.names[i]);
        if (rule.result == result_rule::count)
            return whole_count(rule, column.values, header_.names[i]);
        return whole(rule, column, header_.names[i]);
    }

    cell_function whole(const aggregate_rule &rule, const table_column &column,
                        const std::string &arguments) {
        const std::string name = whole_operator(rule, column.type);
        auto *const call = operators_.function<whole_column_operator>(name);
        std::array<std::byte, sizeof(lng)> value{};
        check(explain_.timed(name, arguments, column.values.count(),
                             [&] { return call(value.data(), column.values.slot()); }));
        const column_type type = result_type(rule, column.type);
        return [value, type](std::size_t) { return cell_at(value.data(), type); };
    }

    cell_function whole_count(const aggregate_rule &rule, const refkernel::bat &column,
                              const std::string &arguments) {
        const std::string name(rule.whole);
        auto *const call = operators_.function<count_operator>(name);
        std::int64_t value = 0;
        check(explain_.timed(name, arguments, column.count(),
                             [&] { return call(&value, column.slot()); }));
        return [value](std::size_t) { return value; };
    }

    cell_function grouped(const aggregate_rule &rule, const table_column &column,
                          const std::string &arguments) {
        const std::string name(rule.grouped);
        auto *const call = operators_.function<grouped_operator>(name);
        std::int32_t id = int_nil;
        check(explain_.timed(name, arguments, column.values.count(), [&] {
            return call(&id, column.values.slot(), groups_->map.slot(), groups_->extents.slot());
        }));
        result_.held.push_back(refkernel::bat::adopt(id));
        return in_shown_order(cells_of(result_.held.back(), result_type(rule, column.type)));
    }

    cell_function in_shown_order(cell_function cell) const {
        return [groups = groups_, cell = std::move(cell)](std::size_t row) {
            return cell(groups->order[row]);
        };
    }

    // Without a value there is no sum, and the quotient is missing as well.
    static cell_function quotient(cell_function dividend, cell_function divisor) {
        return [dividend = std::move(dividend),
                divisor = std::move(divisor)](std::size_t row) -> result_cell {
            const auto total = as_double(dividend(row));
            const auto count = as_double(divisor(row));
            if (!total || !count)
                return std::monostate{};
            return *total / *count;
        };
    }

    static std::optional<double> as_double(const result_cell &cell) {
        return std::visit(
            []<class T>(const T &value) -> std::optional<double> {
                if constexpr (std::is_arithmetic_v<T>)
                    return static_cast<double>(value);
                else
                    return std::nullopt;
            },
            cell);
    }

    const table &data_;
    const csv_header &header_;
    const operator_library &operators_;
    const explain_log &explain_;
    std::shared_ptr<const row_groups> groups_;
    result_table result_;
};

} // namespace

result_table execute(const query &asked, const table &data, const csv_header &header,
                     const operator_library &operators, const explain_log &explain) {
    return executor(data, header, operators, explain).run(asked);
}

} // namespace vask::runner
