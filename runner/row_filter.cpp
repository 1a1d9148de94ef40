#include "row_filter.h"

#include "cell_values.h"
#include "notes.h"

#include <utility>
#include <vector>

#include <fmt/format.h>

namespace vask::runner {
namespace {

constexpr std::string_view option = "--where";

// The first column, in order of writing, below a node.
std::optional<std::size_t> slot_below(const expression &whole, std::size_t node) {
    const expression_node &top = whole.nodes[node];
    if (top.what == operation::column)
        return top.slot;
    if (top.what <= operation::text)
        return std::nullopt;
    const auto left = slot_below(whole, top.left);
    return left ? left : slot_below(whole, top.right);
}

// A number in quotes, which who wrote it may have meant as a number. Beside equals it is a code.
bool is_number_in_quotes(const expression_node &node) {
    dbl value = 0;
    return node.what == operation::text && read_cell(node.text, value);
}

void tell_of_ordered_texts(const expression &condition) {
    for (const expression_node &node : condition.nodes)
        if (node.what == operation::less || node.what == operation::less_or_equal)
            for (const auto &[text, other] :
                 {std::pair(node.left, node.right), std::pair(node.right, node.left)})
                if (is_number_in_quotes(condition.nodes[text]) &&
                    condition.nodes[other].what == operation::column)
                    tell_note(fmt::format(
                        "--where: '{0}' in quotes is a text, which is compared byte by byte, so "
                        "that "
                        "'9' is greater than '10'; without quotes {0} is compared as a number",
                        condition.nodes[text].text));
}

} // namespace

row_filter::row_filter(std::string_view text, const name_finder &find, const date_format &dates,
                       std::optional<std::size_t> file_place)
    : condition_(parse_expression(text, option, find, dates)), file_place_(file_place) {
    const std::vector<value_kind> open(condition_.columns.size(), value_kind::cell);
    const value_kind kind = kind_of(condition_, open);
    if (kind != value_kind::truth && kind != value_kind::cell)
        condition_.complain(condition_.root,
                            fmt::format("a condition is wanted, and this is {},", words_for(kind)));
    if (condition_.columns.empty())
        condition_.complain(condition_.root, "this condition is about no column,");
    tell_of_ordered_texts(condition_);
}

row_filter::judge::judge(const row_filter &filter)
    : condition_(filter.condition_),
      evaluator_(condition_, 1, [this](std::size_t slot, value_block &values) {
          values.of = value_kind::cell;
          values.texts.resize(1);
          values.missing.resize(1);
          values.texts[0] = cells_[slot].text;
          values.missing[0] = cells_[slot].missing ? 1 : 0;
      }) {}

bool row_filter::judge::keeps(std::span<const cell> cells, std::optional<misfit> &fault) {
    cells_ = cells;
    const value_block &answer = evaluator_.evaluate(1);
    if (const auto &failed = evaluator_.failed()) {
        // A message names a column, even for what is worked out of literals alone.
        fault = {slot_below(condition_, failed->node).value_or(0), failed->wanted};
        return false;
    }
    if (answer.of == value_kind::truth)
        return answer.missing[0] == 0 && answer.wholes[0] != 0;
    // A column alone.
    truth value{};
    if (answer.missing[0] == 0 && !read_cell(answer.texts[0], value))
        fault = {condition_.nodes[condition_.root].slot, "truth value"};
    return value.value != 0;
}

} // namespace vask::runner
