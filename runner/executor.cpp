#include "executor.h"

#include "column_cells.h"
#include "operator_calls.h"
#include "row_groups.h"

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>

namespace vask::runner {
namespace {

class executor {
public:
    executor(const table &data, const csv_header &header, const operator_library &operators,
             const explain_log &explain)
        : data_(data), header_(header), operators_(operators), explain_(explain) {}

    result_table run(const query &asked) {
        result_.rows = 1;
        if (asked.group_by.empty()) {
            for (const bound_aggregate &aggregate : asked.aggregates)
                add_whole(aggregate);
            return std::move(result_);
        }
        groups_ = std::make_shared<row_groups>(
            group_rows(asked.group_by, asked.sorted, data_, header_, operators_, explain_));
        result_.rows = groups_->order.size();
        for (const std::size_t column : asked.group_by)
            add_group_values(column);
        for (const bound_aggregate &aggregate : asked.aggregates)
            add_grouped(aggregate);
        return std::move(result_);
    }

private:
    void add_whole(const bound_aggregate &aggregate) {
        const table_column &column = data_.columns[aggregate.column];
        const std::string name = whole_operator(*aggregate.rule, column.type);
        auto *const call = operators_.function<whole_column_operator>(name);
        std::array<std::byte, sizeof(lng)> value{};
        check(explain_.timed(name, header_.names[aggregate.column], column.values.count(),
                             [&] { return call(value.data(), column.values.slot()); }));
        const column_type type = result_type(*aggregate.rule, column.type);
        result_.columns.push_back({aggregate.title, false, [value, type](std::size_t) {
                                       return cell_at(value.data(), type);
                                   }});
    }

    void add_group_values(std::size_t i) {
        const table_column &column = data_.columns[i];
        result_.columns.push_back(
            {header_.names[i], column.type == column_type::str,
             [groups = groups_, cell = cells_of(column.values, column.type)](std::size_t row) {
                 return cell(groups->first_rows[groups->order[row]]);
             }});
    }

    void add_grouped(const bound_aggregate &aggregate) {
        const table_column &column = data_.columns[aggregate.column];
        const std::string name(aggregate.rule->grouped);
        auto *const call = operators_.function<grouped_operator>(name);
        std::int32_t id = int_nil;
        check(explain_.timed(name, header_.names[aggregate.column], column.values.count(), [&] {
            return call(&id, column.values.slot(), groups_->map.slot(), groups_->extents.slot());
        }));
        result_.held.push_back(refkernel::bat::adopt(id));
        const column_type type = result_type(*aggregate.rule, column.type);
        result_.columns.push_back({aggregate.title, false,
                                   [groups = groups_, cell = cells_of(result_.held.back(), type)](
                                       std::size_t row) { return cell(groups->order[row]); }});
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
