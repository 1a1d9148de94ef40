// The functions of expressions, by name.
#pragma once

#include "expression.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vask::runner {

inline constexpr std::string_view truncation_name = "date_trunc";
inline constexpr std::string_view power_name = "pow";

inline constexpr std::array<std::pair<std::string_view, operation>, 11> number_functions{
    {{"abs", operation::absolute},
     {"floor", operation::floor},
     {"ceil", operation::ceiling},
     {"round", operation::round},
     {"exp", operation::exponential},
     {"ln", operation::logarithm},
     {"log", operation::logarithm},
     {"log2", operation::logarithm_2},
     {"log10", operation::logarithm_10},
     {"sqrt", operation::square_root},
     {power_name, operation::power}}};

inline constexpr std::array<std::pair<std::string_view, time_unit>, 9> units{
    {{"year", time_unit::year},
     {"quarter", time_unit::quarter},
     {"month", time_unit::month},
     {"week", time_unit::week},
     {"weekday", time_unit::weekday},
     {"day", time_unit::day},
     {"hour", time_unit::hour},
     {"minute", time_unit::minute},
     {"second", time_unit::second}}};

template <class Table>
auto found_in(const Table &table, std::string_view name)
    -> std::optional<typename Table::value_type::second_type> {
    const auto *const found =
        std::ranges::find(table, name, [](const auto &entry) { return entry.first; });
    return found == table.end() ? std::nullopt : std::optional(found->second);
}

// A week has no number of its own: the year that it belongs to may be another one.
inline bool is_part(time_unit unit) {
    return unit != time_unit::week;
}
inline bool truncates(time_unit unit) {
    return unit != time_unit::weekday;
}

inline std::vector<std::string> function_names() {
    std::vector<std::string> names{std::string(truncation_name)};
    for (const auto &[name, what] : number_functions)
        names.emplace_back(name);
    for (const auto &[name, unit] : units)
        if (is_part(unit))
            names.emplace_back(name);
    return names;
}

} // namespace vask::runner
