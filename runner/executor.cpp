#include "executor.h"

#include "column_cells.h"
#include "integer_sums.h"
#include "operands.h"
#include "operator_calls.h"
#include "output.h"
#include "row_groups.h"
#include "user_error.h"

#include <array>
#include <cmath>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include <fmt/format.h>

namespace vask::runner {
namespace {

using refkernel::bat;
using cell_function = std::function<result_cell(std::size_t row)>;
using groups_pointer = std::shared_ptr<const row_groups>;
using sums_pointer = std::shared_ptr<const std::unordered_map<oid, wide_integer>>;

// By row of the extents to by row of the output.
cell_function in_shown_order(groups_pointer groups, cell_function cell) {
    return [groups = std::move(groups), cell = std::move(cell)](std::size_t row) {
        return cell(groups->order[row]);
    };
}

std::optional<double> as_double(const result_cell &cell) {
    return std::visit(
        []<class T>(const T &value) -> std::optional<double> {
            if constexpr (std::is_arithmetic_v<T>)
                return static_cast<double>(value);
            else
                return std::nullopt;
        },
        cell);
}

std::int64_t as_count(const result_cell &cell) {
    return std::get<std::int64_t>(cell);
}

// Without a value there is no sum, and the quotient is missing as well.
cell_function quotient(cell_function dividend, cell_function divisor) {
    return [dividend = std::move(dividend),
            divisor = std::move(divisor)](std::size_t row) -> result_cell {
        const auto total = as_double(dividend(row));
        const auto count = as_double(divisor(row));
        if (!total || !count)
            return std::monostate{};
        return *total / *count;
    };
}

// The operator counts missing values as one more value, in groups that have any.
cell_function without_the_missing(cell_function distinct, cell_function rows,
                                  cell_function values) {
    return [distinct = std::move(distinct), rows = std::move(rows),
            values = std::move(values)](std::size_t row) -> result_cell {
        const bool has_missing = as_count(rows(row)) != as_count(values(row));
        return as_count(distinct(row)) - (has_missing ? 1 : 0);
    };
}

cell_function as_timestamps(cell_function microseconds) {
    return [microseconds = std::move(microseconds)](std::size_t row) -> result_cell {
        if (const auto value = as_double(microseconds(row)))
            return timestamp{std::llround(*value)};
        return std::monostate{};
    };
}

class executor {
public:
    executor(const table &data, const csv_header &header, const operator_library &operators,
             const explain_log &explain)
        : data_(data), header_(header), operators_(operators), explain_(explain) {}

    result_table run(const query &asked) {
        result_.rows = 1;
        group_by_ = asked.group_by;
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
        if (rule.columns == 0)
            return count_rows();
        if (rule.family == aggregate_family::sum)
            if (const sums_pointer sums = exact_sums_in(aggregate))
                return rule.result == result_rule::quotient ? exact_mean(sums, aggregate)
                                                            : exact_sum(sums, aggregate);
        if (rule.result == result_rule::quotient)
            return quotient(cells_of_part(rule.dividend, aggregate),
                            cells_of_part(rule.divisor, aggregate));
        if (rule.name == "count" && groups_ && missing_in(aggregate) == 0) {
            explain_.note(
                fmt::format("{}: no value is missing, so it is the groups' rows", aggregate.title));
            return count_rows();
        }
        cell_function cells = by_operator(rule, aggregate);
        if (rule.result == result_rule::constant)
            return moved_back(std::move(cells), aggregate);
        if (rule.family == aggregate_family::distinct && missing_in(aggregate) > 0)
            return without_the_missing(std::move(cells), count_rows(),
                                       cells_of_part("count", aggregate));
        return cells;
    }

    cell_function cells_of_part(std::string_view name, const bound_aggregate &aggregate) {
        // The analyzer loses sight of the function object on its way through the returns.
        // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks)
        return cells_of_aggregate({fmt::format("{} in {}", name, aggregate.title),
                                   find_aggregate(name), aggregate.columns, std::nullopt});
    }

    // The operator's sum wraps at 64 bits. Null where it cannot come so far.
    sums_pointer exact_sums_in(const bound_aggregate &aggregate) {
        const std::size_t column = aggregate.columns.front();
        const auto [at, is_new] = exact_.try_emplace(column);
        if (is_new && sum_may_leave_lng(data_.columns[column])) {
            explain_.note(fmt::format("{}: the sum may leave 64 bits, so it is taken in 128",
                                      aggregate.title));
            at->second = std::make_shared<std::unordered_map<oid, wide_integer>>(
                exact_sums(data_.columns[column], groups_ ? &groups_->map : nullptr));
        }
        return at->second;
    }

    static oid group_at(const groups_pointer &groups, std::size_t row) {
        return groups ? groups->first_rows[groups->order[row]] : 0;
    }

    cell_function exact_mean(const sums_pointer &sums, const bound_aggregate &aggregate) {
        return [sums, groups = groups_,
                count = cells_of_part("count", aggregate)](std::size_t row) -> result_cell {
            const auto found = sums->find(group_at(groups, row));
            if (found == sums->end())
                return std::monostate{};
            return static_cast<double>(found->second) / static_cast<double>(as_count(count(row)));
        };
    }

    cell_function exact_sum(const sums_pointer &sums, const bound_aggregate &aggregate) const {
        const std::size_t column = aggregate.columns.front();
        for (const auto &[group, sum] : *sums)
            if (sum != static_cast<lng>(sum) || static_cast<lng>(sum) == refkernel::nil_of<lng>())
                fail("{}: the sum of column {} ({}){} leaves 64 bits; give --types '{}:dbl' for "
                     "one that is rounded",
                     aggregate.title, column + 1, header_.names[column], group_named(group),
                     header_.names[column]);
        return [sums, groups = groups_](std::size_t row) -> result_cell {
            const auto found = sums->find(group_at(groups, row));
            if (found == sums->end())
                return std::monostate{};
            return static_cast<std::int64_t>(found->second);
        };
    }

    // A group's values, by its id, which is one of its rows; nothing without groups.
    std::string group_named(oid group) const {
        std::string text;
        for (const std::size_t i : group_by_) {
            text += fmt::format("{}{} ", text.empty() ? " in the group " : ", ", header_.names[i]);
            const table_column &column = data_.columns[i];
            const result_cell value = cells_of(column.values, column.type)(group);
            if (std::holds_alternative<std::monostate>(value))
                text += "NA";
            else
                append_text(text, value);
        }
        return text;
    }

    // The line through the distances goes through the values when it is moved by their centres.
    cell_function moved_back(cell_function constant, const bound_aggregate &aggregate) {
        return [constant = std::move(constant), slope = cells_of_part("slope", aggregate),
                y = centred_in(aggregate.columns[0]).centre,
                x = centred_in(aggregate.columns[1]).centre,
                groups = groups_](std::size_t row) -> result_cell {
            const auto at_centre = as_double(constant(row));
            const auto steepness = as_double(slope(row));
            if (!at_centre || !steepness)
                return std::monostate{};
            const oid group = group_at(groups, row);
            return y(group) + (*at_centre - *steepness * x(group));
        };
    }

    std::uint64_t missing_in(const bound_aggregate &aggregate) const {
        return data_.columns[aggregate.columns.front()].missing;
    }

    cell_function count_rows() {
        if (groups_)
            return in_shown_order(groups_, cells_of(groups_->extents, column_type::lng));
        const aggregate_rule &rule = *find_aggregate("count", true);
        return once(std::string(rule.whole), "*", [&](const std::string &name) {
            std::vector<bat> rows;
            rows.push_back(refkernel::make_void_column(static_cast<BUN>(data_.rows)));
            return call(name, "*", rows, nullptr, column_type::lng);
        });
    }

    // What an operator gives, with each operator called once for the same arguments.
    cell_function by_operator(const aggregate_rule &rule, const bound_aggregate &aggregate) {
        const column_type type = data_.columns[aggregate.columns.front()].type;
        const column_type shown = result_type(rule, type);
        const bool between_times =
            rule.result == result_rule::between && shown == column_type::timestamp;
        const bool as_groups = groups_ || rule.whole.empty();
        const std::string name = as_groups ? std::string(rule.grouped) : whole_operator(rule, type);
        std::string arguments = header_.names[aggregate.columns.front()];
        for (std::size_t i = 1; i < aggregate.columns.size(); ++i)
            arguments += ", " + header_.names[aggregate.columns[i]];
        if (aggregate.parameter)
            arguments += fmt::format(", {}", *aggregate.parameter);
        return once(name, arguments, [&](const std::string &) {
            const groups_pointer groups = as_groups ? groups_or_one() : nullptr;
            cell_function cells = call(name, arguments, operands_of(rule, aggregate, groups.get()),
                                       groups, between_times ? column_type::dbl : shown);
            return between_times ? as_timestamps(std::move(cells)) : cells;
        });
    }

    template <class Make>
    cell_function once(const std::string &name, const std::string &arguments, Make make) {
        const auto [at, is_new] = done_.try_emplace(name + "(" + arguments + ")");
        if (is_new)
            at->second = make(name);
        return at->second;
    }

    groups_pointer groups_or_one() {
        if (groups_)
            return groups_;
        if (!all_rows_)
            all_rows_ = std::make_shared<row_groups>(one_group(static_cast<BUN>(data_.rows)));
        return all_rows_;
    }

    // The BATs that an operator takes, in its order: columns, parameter, map and extents.
    std::vector<bat> operands_of(const aggregate_rule &rule, const bound_aggregate &aggregate,
                                 const row_groups *groups) {
        std::vector<bat> result;
        const bat *map = groups == nullptr ? nullptr : &groups->map;
        for (const std::size_t column : aggregate.columns) {
            const table_column &loaded = data_.columns[column];
            if (rule.family == aggregate_family::order) {
                const present_rows &present = present_in(column);
                result.push_back(bat::share(present.values.id()));
                map = &present.map;
            } else if (rule.family == aggregate_family::moment ||
                       rule.family == aggregate_family::pair) {
                result.push_back(bat::share(centred_in(column).distances.id()));
            } else if (rule.family == aggregate_family::distinct) {
                result.push_back(distinct_values(loaded));
            } else if (operand_type(rule, loaded.type) != loaded.type) {
                explain_.note(fmt::format("{}: {} is added up as {}", aggregate.title,
                                          name_of(loaded.type), name_of(column_type::dbl)));
                result.push_back(as_doubles(loaded));
            } else {
                result.push_back(bat::share(loaded.values.id()));
            }
        }
        if (aggregate.parameter)
            result.push_back(parameter_column(*rule.parameter, *aggregate.parameter));
        if (groups != nullptr) {
            result.push_back(bat::share(map->id()));
            result.push_back(bat::share(groups->extents.id()));
        }
        return result;
    }

    static bat parameter_column(const parameter_rule &rule, double value) {
        if (rule.whole)
            return refkernel::make_column(std::vector{static_cast<lng>(value)});
        return refkernel::make_column(std::vector{value});
    }

    struct present_rows {
        bat values;
        bat map; // by group
    };

    const present_rows &present_in(std::size_t column) {
        const auto [at, is_new] = present_.try_emplace(column);
        if (is_new) {
            const table_column &loaded = data_.columns[column];
            at->second.values = present_numbers(loaded);
            if (groups_)
                at->second.map = map_of_present(loaded, groups_->map, at->second.values);
        }
        return at->second;
    }

    const centred_column &centred_in(std::size_t column) {
        const auto [at, is_new] = centred_.try_emplace(column);
        if (is_new)
            at->second = centred(data_.columns[column], groups_ ? &groups_->map : nullptr);
        return at->second;
    }

    cell_function call(const std::string &name, const std::string &arguments,
                       const std::vector<bat> &operands, const groups_pointer &groups,
                       column_type stored) {
        std::vector<const std::int32_t *> slots;
        slots.reserve(operands.size());
        for (const bat &operand : operands)
            slots.push_back(operand.slot());
        const BUN rows = operands.front().count();
        std::array<std::byte, sizeof(lng)> value{};
        std::int32_t id = int_nil;
        void *const result = groups ? static_cast<void *>(&id) : value.data();
        explain_.timed(name, arguments, rows,
                       [&] { call_operator(operators_, name, result, slots); });
        if (!groups)
            return [value, stored](std::size_t) { return cell_at(value.data(), stored); };
        result_.held.push_back(bat::adopt(id));
        return in_shown_order(groups, cells_of(result_.held.back(), stored));
    }

    const table &data_;
    const csv_header &header_;
    const operator_library &operators_;
    const explain_log &explain_;
    std::vector<std::size_t> group_by_;
    groups_pointer groups_;   // none: the whole columns
    groups_pointer all_rows_; // for operators that only work by group
    std::map<std::size_t, present_rows> present_;
    std::map<std::size_t, centred_column> centred_;
    std::map<std::size_t, sums_pointer> exact_;
    std::map<std::string, cell_function> done_;
    result_table result_;
};

} // namespace

result_table execute(const query &asked, const table &data, const csv_header &header,
                     const operator_library &operators, const explain_log &explain) {
    return executor(data, header, operators, explain).run(asked);
}

} // namespace vask::runner
