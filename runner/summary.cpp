#include "summary.h"

#include "aggregates.h"
#include "bars.h"
#include "column_cells.h"
#include "executor.h"
#include "query.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace vask::runner {
namespace {

struct figure {
    std::string_view title;
    std::string_view aggregate; //!< by which it is found
};

constexpr std::array summary_figures{figure{"missing", "count_nulls"},
                                     figure{"different", "count_distinct"},
                                     figure{"min", "min"},
                                     figure{"q1", "q1"},
                                     figure{"median", "median"},
                                     figure{"q3", "q3"},
                                     figure{"max", "max"},
                                     figure{"mean", "mean"},
                                     figure{"stdev", "stdev"},
                                     figure{"mode", "mode"}};
constexpr std::array schema_figures{figure{"missing", "count_nulls"}, figure{"first", "first"}};

// A cell as a number on a line; nothing for one that has no place there.
std::optional<double> place_on_line(const result_cell &cell) {
    return std::visit(
        []<class T>(const T &value) -> std::optional<double> {
            if constexpr (std::is_same_v<T, timestamp>)
                return static_cast<double>(value.microseconds);
            else if constexpr (std::is_arithmetic_v<T>)
                return std::isfinite(static_cast<double>(value))
                           ? std::optional(static_cast<double>(value))
                           : std::nullopt;
            else
                return std::nullopt;
        },
        cell);
}

bool has_nan(const table_column &column) {
    const auto any = []<class T>(std::span<const T> values) {
        return std::any_of(values.begin(), values.end(), [](T value) { return std::isnan(value); });
    };
    if (column.type == column_type::dbl)
        return any(column.values.values<dbl>());
    return column.type == column_type::flt && any(column.values.values<flt>());
}

// How many values lie in each of so many equal parts between the least and the greatest one.
std::vector<std::uint64_t> parts_of(const table_column &column, std::uint64_t rows) {
    constexpr std::size_t parts = 12;
    const auto cell = cells_of(column);
    double least = std::numeric_limits<double>::infinity();
    double greatest = -least;
    for (std::size_t row = 0; row < rows; ++row)
        if (const auto place = place_on_line(cell(row))) {
            least = std::min(least, *place);
            greatest = std::max(greatest, *place);
        }
    if (!(least <= greatest))
        return {};
    std::vector<std::uint64_t> counts(parts);
    // Halves, as the distance of two doubles can leave them.
    const double span = greatest / 2 - least / 2;
    for (std::size_t row = 0; row < rows; ++row)
        if (const auto place = place_on_line(cell(row))) {
            const double share = span > 0 ? (*place / 2 - least / 2) / span : 0;
            counts[std::min(static_cast<std::size_t>(share * parts), parts - 1)]++;
        }
    return counts;
}

class column_report {
public:
    column_report(const loaded_table &data, const csv_header &header,
                  const table::operator_set &operators, const explain_log &explain,
                  std::span<const figure> figures)
        : data_(data), header_(header) {
        query asked;
        for (std::size_t place = 0; place < data.columns.size(); ++place)
            for (const figure &each : figures)
                if (auto aggregate = find(each, place))
                    asked.aggregates.push_back(std::move(*aggregate));
        // One row, with a column for each figure of each column.
        found_ = std::make_shared<result_table>(execute(asked, data, header, operators, explain));
        result_.rows = data.columns.size();
        add_column("column", true, [this](std::size_t place) -> result_cell {
            return std::string_view(header_.names[place]);
        });
        add_column("type", true, [this](std::size_t place) -> result_cell {
            return name_of(data_.columns[place].type);
        });
        std::size_t next = 0;
        std::vector<std::vector<result_cell>> cells(figures.size());
        for (std::size_t place = 0; place < data.columns.size(); ++place)
            for (std::size_t i = 0; i < figures.size(); ++i)
                cells[i].push_back(find(figures[i], place) ? found_->columns[next++].cell(0)
                                                           : result_cell());
        for (std::size_t i = 0; i < figures.size(); ++i)
            result_.columns.push_back({std::string(figures[i].title),
                                       false,
                                       [held = found_, cells = std::move(cells[i])](
                                           std::size_t place) { return cells[place]; },
                                       {},
                                       true});
    }

    result_table take() { return std::move(result_); }

    //! Adds a column of a text for each one.
    template <class Text>
    void add_texts(const std::string &title, Text text_of) {
        const auto texts = std::make_shared<std::vector<std::optional<std::string>>>();
        for (std::size_t place = 0; place < data_.columns.size(); ++place)
            texts->push_back(text_of(place));
        result_.columns.push_back({title, true, [texts](std::size_t place) -> result_cell {
                                       if (const auto &text = (*texts)[place])
                                           return std::string_view(*text);
                                       return std::monostate{};
                                   }});
    }

private:
    // Nothing where the figure does not go with the column's type or values.
    std::optional<bound_aggregate> find(const figure &wanted, std::size_t place) const {
        const auto named = find_aggregate(wanted.aggregate, false);
        const table_column &column = data_.columns[place];
        if (!types_of(*named->rule).contains(column.type) ||
            (named->rule->of == table::family::order && has_nan(column)))
            return std::nullopt;
        bound_aggregate result;
        result.title = fmt::format("{}({})", wanted.aggregate, place);
        result.name = wanted.aggregate;
        result.rule = named->rule;
        result.columns = {place};
        result.parameter = named->parameter;
        return result;
    }

    template <class Cell>
    void add_column(const char *title, bool is_text, Cell cell) {
        std::vector<result_cell> cells;
        for (std::size_t place = 0; place < data_.columns.size(); ++place)
            cells.push_back(cell(place));
        result_.columns.push_back({title, is_text, [cells = std::move(cells)](std::size_t place) {
                                       return cells[place];
                                   }});
    }

    const loaded_table &data_;
    const csv_header &header_;
    std::shared_ptr<result_table> found_;
    result_table result_;
};

} // namespace

result_table summarize(const loaded_table &data, const csv_header &header, output_format format,
                       const table::operator_set &operators, const explain_log &explain) {
    const bool for_people = format == output_format::table || format == output_format::markdown;
    column_report report(data, header, operators, explain, summary_figures);
    report.add_texts("histogram", [&](std::size_t place) -> std::optional<std::string> {
        const std::vector<std::uint64_t> counts = parts_of(data.columns[place], data.rows);
        if (for_people)
            return counts.empty() ? " " : skyline(counts);
        return counts.empty() ? std::nullopt
                              : std::optional(fmt::format("{}", fmt::join(counts, " ")));
    });
    return report.take();
}

result_table schema_of(const loaded_table &data, const csv_header &header,
                       const table::operator_set &operators, const explain_log &explain) {
    result_table result = column_report(data, header, operators, explain, schema_figures).take();
    result.columns.insert(result.columns.begin(),
                          {"number", false, [](std::size_t place) -> result_cell {
                               return static_cast<std::int64_t>(place + 1);
                           }});
    return result;
}

} // namespace vask::runner
