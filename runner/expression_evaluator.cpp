#include "expression_evaluator.h"

#include "calendar.h"
#include "text_pattern.h"

#include <algorithm>
#include <compare>
#include <utility>

namespace vask::runner {
namespace {

bool is_text(value_kind kind) {
    return kind == value_kind::text || kind == value_kind::cell;
}
bool is_number(value_kind kind) {
    return kind == value_kind::whole || kind == value_kind::real;
}

// As whole numbers where both are, which doubles may not tell apart. Nothing if one is no number.
std::optional<std::partial_ordering> compare_as_numbers(std::string_view a, std::string_view b) {
    lng whole_a = 0;
    lng whole_b = 0;
    if (read_cell(a, whole_a) && read_cell(b, whole_b))
        return whole_a <=> whole_b;
    dbl real_a = 0;
    dbl real_b = 0;
    if (!read_cell(a, real_a) || !read_cell(b, real_b))
        return std::nullopt;
    return real_a <=> real_b;
}

std::optional<std::partial_ordering> compare_as_times(std::string_view a, std::string_view b,
                                                      const date_format &dates) {
    const auto time_a = read_time(a, dates);
    const auto time_b = time_a ? read_time(b, dates) : std::nullopt;
    if (!time_b)
        return std::nullopt;
    return time_a->microseconds <=> time_b->microseconds;
}

} // namespace

expression_evaluator::expression_evaluator(const expression &whole, std::size_t most_rows,
                                           column_reader read)
    : whole_(whole),
      read_(std::move(read)),
      capacity_(most_rows),
      blocks_(whole.nodes.size()),
      masks_(whole.nodes.size()),
      all_(most_rows, 1) {}

const value_block &expression_evaluator::evaluate(std::size_t rows) {
    rows_ = rows;
    fault_.reset();
    return of(whole_.root, all_.data());
}

void expression_evaluator::fail(failure what, std::size_t node, std::size_t row,
                                std::string_view wanted, std::string_view cell) {
    if (!fault_)
        fault_ = {what, node, row, wanted, cell};
}

value_block &expression_evaluator::begin(std::size_t i, value_kind kind) {
    value_block &block = blocks_[i];
    block.of = kind;
    block.missing.resize(capacity_);
    if (is_text(kind))
        block.texts.resize(capacity_);
    else if (kind == value_kind::real)
        block.reals.resize(capacity_);
    else
        block.wholes.resize(capacity_);
    return block;
}

value_block &expression_evaluator::of(std::size_t i, rows_mask active) {
    const expression_node &node = whole_.nodes[i];
    const auto literal = [&](value_kind kind) -> value_block & {
        value_block &block = begin(i, kind);
        std::fill_n(block.missing.begin(), rows_, std::uint8_t{0});
        return block;
    };
    switch (node.what) {
        case operation::column:
            read_(node.slot, blocks_[i]);
            return blocks_[i];
        case operation::whole: {
            value_block &block = literal(value_kind::whole);
            std::fill_n(block.wholes.begin(), rows_, node.whole);
            return block;
        }
        case operation::real: {
            value_block &block = literal(value_kind::real);
            std::fill_n(block.reals.begin(), rows_, node.real);
            return block;
        }
        case operation::truth: {
            value_block &block = literal(value_kind::truth);
            std::fill_n(block.wholes.begin(), rows_, lng{node.truth});
            return block;
        }
        case operation::text: {
            value_block &block = literal(value_kind::text);
            std::fill_n(block.texts.begin(), rows_, std::string_view(node.text));
            return block;
        }
        case operation::both:
            return conjunction(i, active, false);
        case operation::either:
            return conjunction(i, active, true);
        case operation::negation: {
            value_block &operand = of(node.left, active);
            to_truths(node.left, operand, active);
            value_block &block = begin(i, value_kind::truth);
            for (std::size_t row = 0; row < rows_; ++row) {
                block.wholes[row] = operand.wholes[row] ^ 1;
                block.missing[row] = operand.missing[row];
            }
            return block;
        }
        case operation::missing: {
            const value_block &operand = of(node.left, active);
            value_block &block = begin(i, value_kind::truth);
            for (std::size_t row = 0; row < rows_; ++row) {
                block.wholes[row] = operand.missing[row];
                block.missing[row] = 0;
            }
            return block;
        }
        case operation::less:
        case operation::less_or_equal:
        case operation::equal:
            return comparison(i, active);
        case operation::contains:
        case operation::begins:
        case operation::ends:
        case operation::like:
            return text_match(i, active);
        case operation::add:
        case operation::subtract:
        case operation::multiply:
        case operation::divide:
        case operation::remainder:
        case operation::round_to:
        case operation::power:
            return arithmetic(i, active);
        case operation::part_of_time:
        case operation::truncated_time:
            return function_of_time(i, active);
        default:
            return function_of_number(i, active);
    }
}

// One answer decides alone: no of "and", yes of "or". Where it does, the right side is not asked,
// so that what is no number there is no fault.
value_block &expression_evaluator::conjunction(std::size_t i, rows_mask active, bool deciding) {
    const expression_node &node = whole_.nodes[i];
    value_block &left = of(node.left, active);
    to_truths(node.left, left, active);
    std::vector<std::uint8_t> &open = masks_[i];
    open.resize(capacity_);
    const auto decides = [deciding](const value_block &block, std::size_t row) {
        return block.missing[row] == 0 && (block.wholes[row] != 0) == deciding;
    };
    bool any = false;
    for (std::size_t row = 0; row < rows_; ++row) {
        const bool asked = active[row] != 0 && !decides(left, row);
        open[row] = asked ? 1 : 0;
        any = any || asked;
    }
    value_block &block = begin(i, value_kind::truth);
    if (!any || fault_) {
        for (std::size_t row = 0; row < rows_; ++row) {
            block.wholes[row] = left.wholes[row];
            block.missing[row] = left.missing[row];
        }
        return block;
    }
    value_block &right = of(node.right, open.data());
    to_truths(node.right, right, open.data());
    for (std::size_t row = 0; row < rows_; ++row) {
        const bool decided = decides(left, row) || (open[row] != 0 && decides(right, row));
        block.wholes[row] = decided == deciding ? 1 : 0;
        block.missing[row] = !decided && ((left.missing[row] | right.missing[row]) != 0) ? 1 : 0;
    }
    return block;
}

void expression_evaluator::join_missing(value_block &result, const value_block &a,
                                        const value_block &b) const {
    for (std::size_t row = 0; row < rows_; ++row)
        result.missing[row] = a.missing[row] | b.missing[row];
}

// `order` gives that of a row's two values.
template <class Order>
void expression_evaluator::decide(std::size_t i, value_block &result, Order order) const {
    const auto each = [&](auto holds) {
        for (std::size_t row = 0; row < rows_; ++row)
            if (result.missing[row] == 0)
                result.wholes[row] = holds(order(row)) ? 1 : 0;
    };
    if (whole_.nodes[i].what == operation::equal)
        each([](auto o) { return std::is_eq(o); });
    else if (whole_.nodes[i].what == operation::less)
        each([](auto o) { return std::is_lt(o); });
    else
        each([](auto o) { return std::is_lteq(o); });
}

value_block &expression_evaluator::comparison(std::size_t i, rows_mask active) {
    const expression_node &node = whole_.nodes[i];
    value_block &a = of(node.left, active);
    value_block &b = of(node.right, active);
    const auto either = [&](auto is) { return is(a.of) || is(b.of); };
    const bool numbers = either(is_number);
    const bool truths = either([](value_kind kind) { return kind == value_kind::truth; });
    const bool times = either([](value_kind kind) { return kind == value_kind::time; });
    if (numbers) {
        to_numbers(node.left, a, active);
        to_numbers(node.right, b, active);
    } else if (truths) {
        to_truths(node.left, a, active);
        to_truths(node.right, b, active);
    } else if (times) {
        to_times(node.left, a, active);
        to_times(node.right, b, active);
    }
    value_block &result = begin(i, value_kind::truth);
    join_missing(result, a, b);
    if (fault_)
        return result;
    if (a.of == value_kind::real || b.of == value_kind::real) {
        to_reals(a);
        to_reals(b);
        decide(i, result, [&](std::size_t row) { return a.reals[row] <=> b.reals[row]; });
    } else if (numbers || truths || times) {
        decide(i, result, [&](std::size_t row) { return a.wholes[row] <=> b.wholes[row]; });
    } else {
        compare_texts(i, result, a, b);
    }
    return result;
}

void expression_evaluator::compare_texts(std::size_t i, value_block &result, const value_block &a,
                                         const value_block &b) const {
    const expression_node &node = whole_.nodes[i];
    const auto is_literal = [&](std::size_t operand) {
        return whole_.nodes[operand].what == operation::text;
    };
    const bool columns = !is_literal(node.left) && !is_literal(node.right);
    const bool times = columns || whole_.nodes[node.left].time || whole_.nodes[node.right].time;
    decide(i, result, [&](std::size_t row) -> std::partial_ordering {
        if (columns)
            if (const auto order = compare_as_numbers(a.texts[row], b.texts[row]))
                return *order;
        if (times)
            if (const auto order = compare_as_times(a.texts[row], b.texts[row], whole_.dates))
                return *order;
        return a.texts[row] <=> b.texts[row];
    });
}

value_block &expression_evaluator::text_match(std::size_t i, rows_mask active) {
    const expression_node &node = whole_.nodes[i];
    const value_block &values = of(node.left, active);
    const std::string_view wanted = whole_.nodes[node.right].text;
    value_block &result = begin(i, value_kind::truth);
    const auto each = [&](auto holds) {
        for (std::size_t row = 0; row < rows_; ++row) {
            result.missing[row] = values.missing[row];
            result.wholes[row] = values.missing[row] == 0 && holds(values.texts[row]) ? 1 : 0;
        }
    };
    if (node.what == operation::contains)
        each([&](std::string_view text) { return text.find(wanted) != text.npos; });
    else if (node.what == operation::begins)
        each([&](std::string_view text) { return text.starts_with(wanted); });
    else if (node.what == operation::ends)
        each([&](std::string_view text) { return text.ends_with(wanted); });
    else
        each([&](std::string_view text) { return is_like(text, wanted, '%', '_'); });
    return result;
}

value_block &expression_evaluator::function_of_time(std::size_t i, rows_mask active) {
    const expression_node &node = whole_.nodes[i];
    value_block &times = of(node.left, active);
    to_times(node.left, times, active);
    const bool part = node.what == operation::part_of_time;
    value_block &result = begin(i, part ? value_kind::whole : value_kind::time);
    for (std::size_t row = 0; row < rows_; ++row) {
        result.missing[row] = times.missing[row];
        if (times.missing[row] != 0)
            continue;
        const calendar_time at(times.wholes[row]);
        result.wholes[row] = part ? part_of(at, node.unit) : truncated(at, node.unit);
    }
    return result;
}

// ---- cells as what they are used as -------------------------------------------------------------

void expression_evaluator::to_numbers(std::size_t node, value_block &values, rows_mask active) {
    if (!is_text(values.of))
        return;
    values.wholes.resize(capacity_);
    values.reals.resize(capacity_);
    bool whole = true;
    for (std::size_t row = 0; row < rows_ && whole; ++row) {
        values.wholes[row] = 0;
        if (values.missing[row] == 0 && active[row] != 0)
            whole = read_cell(values.texts[row], values.wholes[row]);
    }
    values.of = whole ? value_kind::whole : value_kind::real;
    for (std::size_t row = 0; row < rows_ && !whole; ++row) {
        values.reals[row] = 0;
        if (values.missing[row] == 0 && active[row] != 0 &&
            !read_cell(values.texts[row], values.reals[row]))
            fail(failure::misfit, node, row, "number", values.texts[row]);
    }
}

void expression_evaluator::to_reals(value_block &values) const {
    if (values.of != value_kind::whole)
        return;
    values.reals.resize(capacity_);
    for (std::size_t row = 0; row < rows_; ++row)
        values.reals[row] = static_cast<double>(values.wholes[row]);
    values.of = value_kind::real;
}

void expression_evaluator::to_truths(std::size_t node, value_block &values, rows_mask active) {
    if (!is_text(values.of))
        return;
    values.wholes.resize(capacity_);
    values.of = value_kind::truth;
    for (std::size_t row = 0; row < rows_; ++row) {
        truth value{};
        if (values.missing[row] == 0 && active[row] != 0 && !read_cell(values.texts[row], value))
            fail(failure::misfit, node, row, "truth value", values.texts[row]);
        values.wholes[row] = value.value;
    }
}

void expression_evaluator::to_times(std::size_t node, value_block &values, rows_mask active) {
    if (!is_text(values.of))
        return;
    values.wholes.resize(capacity_);
    values.of = value_kind::time;
    for (std::size_t row = 0; row < rows_; ++row) {
        values.wholes[row] = 0;
        if (values.missing[row] != 0 || active[row] == 0)
            continue;
        if (const auto time = read_time(values.texts[row], whole_.dates))
            values.wholes[row] = time->microseconds;
        else
            fail(failure::misfit, node, row, "date or time", values.texts[row]);
    }
}

} // namespace vask::runner
