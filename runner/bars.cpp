#include "bars.h"

#include "output_order.h"
#include "user_error.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace vask::runner {
namespace {

//! Characters of the longest bar.
constexpr std::size_t bar_width = 24;

//! Eighths of a character.
constexpr std::size_t steps = 8;
constexpr std::array<std::string_view, steps> from_left{"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
constexpr std::array<std::string_view, steps + 1> from_below{" ", "▁", "▂", "▃", "▄",
                                                             "▅", "▆", "▇", "█"};
constexpr std::string_view whole = "█";

// Nothing for a missing value and NaN.
std::optional<double> number_of(const result_cell &cell, const std::string &title) {
    return std::visit(
        [&]<class T>(const T &value) -> std::optional<double> {
            if constexpr (std::is_same_v<T, std::monostate>) {
                return std::nullopt;
            } else if constexpr (std::is_arithmetic_v<T>) {
                const auto number = static_cast<double>(value);
                return std::isnan(number) ? std::nullopt : std::optional(number);
            } else {
                fail("--bar: '{}' has no numbers, and so no bars", title);
            }
        },
        cell);
}

std::string repeated(std::string_view text, std::size_t times) {
    std::string result;
    for (std::size_t i = 0; i < times; ++i)
        result += text;
    return result;
}

// Eighths that a value's bar has of the widest one's.
std::size_t eighths(double value, double greatest) {
    const double share = std::isinf(value) ? 1 : std::abs(value) / greatest;
    return static_cast<std::size_t>(std::lround(share * bar_width * steps));
}

} // namespace

void add_bars(result_table &result, const std::string &title) {
    const result_column &shown = column_called(result, title, "--bar");
    std::vector<std::optional<double>> values;
    double greatest = 0; // of the finite ones
    double lowest = 0;
    for (std::size_t row = 0; row < result.rows; ++row) {
        values.push_back(number_of(shown.cell(row), title));
        if (values.back() && std::isfinite(*values.back())) {
            greatest = std::max(greatest, std::abs(*values.back()));
            lowest = std::min(lowest, *values.back());
        } else if (values.back()) {
            lowest = std::min(lowest, *values.back());
        }
    }
    if (greatest == 0)
        greatest = 1;
    const std::size_t left =
        lowest < 0 ? (eighths(lowest, greatest) + steps - 1) / steps : 0; // room for negative ones
    const auto bars = std::make_shared<std::vector<std::string>>();
    for (const std::optional<double> &value : values) {
        const std::size_t length = value ? eighths(*value, greatest) : 0;
        std::string bar;
        if (value && *value < 0) {
            // There are no characters that are filled from the right.
            const std::size_t filled = std::min((length + steps / 2) / steps, left);
            bar = std::string(left - filled, ' ') + repeated(whole, filled);
        } else {
            bar = std::string(left, ' ') + repeated(whole, length / steps) +
                  std::string(from_left[length % steps]);
        }
        // An empty text would stand in quotes.
        bars->push_back(bar.empty() ? " " : std::move(bar));
    }
    result.columns.push_back({" ", true, [bars](std::size_t row) -> result_cell {
                                  return std::string_view((*bars)[row]);
                              }});
}

std::string skyline(std::span<const std::uint64_t> counts) {
    const std::uint64_t most = counts.empty() ? 0 : *std::max_element(counts.begin(), counts.end());
    std::string result;
    for (const std::uint64_t count : counts) {
        // What is there is seen, however little.
        const double share = most == 0 ? 0 : static_cast<double>(count) / static_cast<double>(most);
        const auto step = static_cast<std::size_t>(std::ceil(share * steps));
        result += from_below[std::min(step, steps)];
    }
    return result;
}

} // namespace vask::runner
