#include "answer.h"

#include "column_numbers.h"

#include <charconv>
#include <cmath>

#include <nlohmann/json.hpp>

namespace side_by_side {
namespace {

using refkernel::bat;

// The same numbers stand in answers.mjs. Two keys of up to 128 values have a bin for each pair.
constexpr std::int64_t key_base = 128;
constexpr std::int64_t bins = 16'411;
constexpr std::size_t text_prefix = 2; // "id"

std::int64_t number_in_key(const bat &key, BUN row) {
    if (key.is_nil(row))
        return 0;
    if (key.type() == TYPE_int)
        return key.values<std::int32_t>()[row];
    const std::string_view digits = key.text(row).substr(text_prefix);
    std::int64_t number = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return number;
}

std::vector<std::size_t> bins_of_groups(const plan &asked, const plan_outcome &outcome,
                                        const columns_by_name &columns) {
    std::vector<std::size_t> result(outcome.extents.count());
    for (BUN group = 0; group < result.size(); ++group) {
        // The id of a group is the number of its first row.
        const oid row = outcome.extents.head_oid(group);
        std::int64_t code = 0;
        std::int64_t weight = 1;
        for (const std::string &key : asked.keys) {
            code += weight * number_in_key(columns.at(key), row);
            weight *= key_base;
        }
        result[group] = static_cast<std::size_t>(code % bins);
    }
    return result;
}

std::vector<double> values_of(const plan_result &result) {
    if (const auto *const column = std::get_if<bat>(&result))
        return numbers_of(*column);
    return {std::get<std::optional<double>>(result).value_or(NAN)};
}

} // namespace

nlohmann::json answer_of(const plan &asked, const plan_outcome &outcome,
                         const columns_by_name &columns) {
    std::vector<std::vector<double>> values;
    for (const plan_result &result : outcome.results)
        values.push_back(values_of(result));
    const std::vector<std::size_t> bin = asked.keys.empty()
                                             ? std::vector<std::size_t>(values.front().size())
                                             : bins_of_groups(asked, outcome, columns);

    const std::size_t width = 2 + 2 * values.size();
    std::vector<std::vector<double>> rows(static_cast<std::size_t>(bins));
    for (std::size_t group = 0; group < bin.size(); ++group) {
        std::vector<double> &row = rows[bin[group]];
        if (row.empty()) {
            row.resize(width);
            row[0] = static_cast<double>(bin[group]);
        }
        ++row[1];
        for (std::size_t c = 0; c < values.size(); ++c)
            if (const double value = values[c].at(group); std::isfinite(value)) {
                ++row[2 + 2 * c];
                row[3 + 2 * c] += value;
            }
    }
    nlohmann::json answer = nlohmann::json::array();
    for (std::vector<double> &row : rows)
        if (!row.empty())
            answer.push_back(std::move(row));
    return answer;
}

} // namespace side_by_side
