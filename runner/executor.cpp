#include "executor.h"

#include "column_cells.h"
#include "output.h"
#include "table_columns.h"
#include "user_error.h"

#include "table/errors.h"
#include "table/plan.h"

#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace vask::runner {
namespace {

using table::column_pointer;

class executor {
public:
    executor(const query &asked, const loaded_table &data, const csv_header &header)
        : asked_(asked), data_(data), header_(header), columns_(data.columns.size()) {}

    result_table run(const table::operator_set &operators, const explain_log &explain) {
        const table::query_context context{
            operators, [&explain](const std::string &text) { explain.note(text); }, [](double) {}};
        result_table result;
        for (table::result_column &answer : answers(context)) {
            result.rows = static_cast<std::size_t>(answer.rows);
            std::string title = answer.name;
            const bool is_text = table::is_text(answer.type.of);
            result.columns.push_back({std::move(title), is_text, cells_of(std::move(answer))});
        }
        return result;
    }

private:
    std::vector<table::result_column> answers(const table::query_context &context) {
        try {
            return run_query(static_cast<std::int64_t>(data_.rows), bound(), context);
        } catch (const table::sum_overflow &error) {
            std::size_t place = 0;
            while (columns_[place].get() != error.where().column)
                ++place;
            const std::string group =
                error.where().first_row ? group_named(*error.where().first_row) : "";
            if (data_.columns[place].is_derived)
                fail("{}: the sum of {}{} leaves 64 bits; have it worked out in decimals, as in "
                     "1.0 * {}",
                     error.where().title, header_.names[place], group, header_.names[place]);
            fail("{}: the sum of column {} ({}){} leaves 64 bits; give --types '{}:dbl' for one "
                 "that is rounded",
                 error.where().title, place + 1, header_.names[place], group, header_.names[place]);
        } catch (const table::table_error &error) {
            if (error.code() == VASK_BAD_REQUEST || error.code() == VASK_BAD_DATA)
                throw user_error(error.what());
            throw;
        }
    }

    table::query bound() {
        table::query result;
        result.flags = asked_.sorted ? VASK_SORT_GROUPS : 0;
        result.extremes_of_nan = true;
        for (const std::size_t place : asked_.group_by)
            result.by.push_back(column(place));
        for (const bound_aggregate &aggregate : asked_.aggregates) {
            table::asked_function &function = result.functions.emplace_back();
            function.rule = aggregate.rule;
            for (const std::size_t place : aggregate.columns)
                function.columns.push_back(column(place));
            function.parameter = aggregate.parameter;
            function.title = aggregate.title;
        }
        return result;
    }

    const column_pointer &column(std::size_t place) {
        column_pointer &made = columns_[place];
        if (made == nullptr)
            made = as_table_column(header_.names[place], data_.columns[place]);
        return made;
    }

    // The values of the keys in a row.
    std::string group_named(std::size_t row) const {
        std::string text;
        for (const std::size_t i : asked_.group_by) {
            text += fmt::format("{}{} ", text.empty() ? " in the group " : ", ", header_.names[i]);
            const result_cell value = cells_of(data_.columns[i])(row);
            if (std::holds_alternative<std::monostate>(value))
                text += "NA";
            else
                append_text(text, value);
        }
        return text;
    }

    const query &asked_;
    const loaded_table &data_;
    const csv_header &header_;
    std::vector<column_pointer> columns_; // by place, those that the query is about
};

} // namespace

result_table execute(const query &asked, const loaded_table &data, const csv_header &header,
                     const table::operator_set &operators, const explain_log &explain) {
    return executor(asked, data, header).run(operators, explain);
}

} // namespace vask::runner
