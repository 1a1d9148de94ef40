#include "expression_evaluator.h"

#include "text_pattern.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <compare>
#include <limits>
#include <utility>

namespace vask::runner {
namespace {

//! What stands for a missing value in a column is no result.
constexpr lng no_whole = std::numeric_limits<lng>::min();

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

std::optional<std::partial_ordering> compare_as_times(std::string_view a, std::string_view b) {
    timestamp time_a{};
    timestamp time_b{};
    if (!read_cell(a, time_a) || !read_cell(b, time_b))
        return std::nullopt;
    return time_a.microseconds <=> time_b.microseconds;
}

double rounded_to(double value, double digits) {
    const double scale = std::pow(10.0, digits);
    const double result = std::round(value * scale) / scale;
    // Where the scale leaves doubles, the value has no such digits to lose, or nothing else.
    return std::isfinite(result) ? result : scale == 0 ? 0 : value;
}

// ---- calendar -----------------------------------------------------------------------------------

using std::chrono::microseconds;
using moment = std::chrono::sys_time<microseconds>;

struct calendar_time {
    explicit calendar_time(lng value)
        : time(microseconds(value)),
          day(std::chrono::floor<std::chrono::days>(time)),
          date(day),
          clock(std::chrono::floor<std::chrono::seconds>(time) - day) {}

    moment time;
    std::chrono::sys_days day;
    std::chrono::year_month_day date;
    std::chrono::hh_mm_ss<std::chrono::seconds> clock;

    unsigned quarter() const { return (static_cast<unsigned>(date.month()) - 1) / 3; }
};

lng part_of(const calendar_time &t, time_unit unit) {
    switch (unit) {
        case time_unit::year:
            return static_cast<int>(t.date.year());
        case time_unit::quarter:
            return t.quarter() + 1;
        case time_unit::month:
            return static_cast<unsigned>(t.date.month());
        case time_unit::day:
            return static_cast<unsigned>(t.date.day());
        case time_unit::hour:
            return t.clock.hours().count();
        case time_unit::minute:
            return t.clock.minutes().count();
        case time_unit::second:
            return t.clock.seconds().count();
        case time_unit::week:
        case time_unit::weekday:
            break;
    }
    return std::chrono::weekday(t.day).iso_encoding();
}

lng truncated(const calendar_time &t, time_unit unit) {
    using namespace std::chrono;
    const auto at = [](auto time) {
        return lng{sys_time<microseconds>(time).time_since_epoch().count()};
    };
    switch (unit) {
        case time_unit::year:
            return at(sys_days(t.date.year() / January / 1));
        case time_unit::quarter:
            return at(sys_days(t.date.year() / month(t.quarter() * 3 + 1) / 1));
        case time_unit::month:
            return at(sys_days(t.date.year() / t.date.month() / 1));
        case time_unit::week:
            return at(t.day - (weekday(t.day) - Monday));
        case time_unit::hour:
            return at(floor<hours>(t.time));
        case time_unit::minute:
            return at(floor<minutes>(t.time));
        case time_unit::second:
            return at(floor<seconds>(t.time));
        case time_unit::day:
        case time_unit::weekday:
            break;
    }
    return at(t.day);
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
            if (const auto order = compare_as_times(a.texts[row], b.texts[row]))
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

// `work` sets the result and tells whether it fits.
template <class Work>
void expression_evaluator::work_whole(std::size_t i, rows_mask active, const value_block &a,
                                      const value_block &b, Work work) {
    value_block &result = begin(i, value_kind::whole);
    join_missing(result, a, b);
    for (std::size_t row = 0; row < rows_; ++row) {
        lng value = 0;
        const bool fits = work(a.wholes[row], b.wholes[row], value) && value != no_whole;
        result.wholes[row] = value;
        if (!fits && result.missing[row] == 0 && active[row] != 0)
            fail(failure::overflow, i, row);
    }
}

// `work` gives the result, NaN where there is none.
template <class Work>
void expression_evaluator::work_real(std::size_t i, rows_mask active, const value_block &a,
                                     const value_block &b, Work work) {
    value_block &result = begin(i, value_kind::real);
    join_missing(result, a, b);
    for (std::size_t row = 0; row < rows_; ++row) {
        const double value = work(a.reals[row], b.reals[row]);
        result.reals[row] = value;
        if (std::isnan(value) && result.missing[row] == 0 && !std::isnan(a.reals[row]) &&
            !std::isnan(b.reals[row])) {
            result.missing[row] = 1;
            undefined_ += active[row];
        }
    }
}

value_block &expression_evaluator::arithmetic(std::size_t i, rows_mask active) {
    const expression_node &node = whole_.nodes[i];
    value_block &a = of(node.left, active);
    value_block &b = of(node.right, active);
    if (node.what == operation::subtract &&
        (a.of == value_kind::time || b.of == value_kind::time)) {
        to_times(node.left, a, active);
        to_times(node.right, b, active);
        value_block &result = begin(i, value_kind::real);
        join_missing(result, a, b);
        constexpr double microseconds_of_second = 1e6;
        for (std::size_t row = 0; row < rows_; ++row)
            result.reals[row] =
                (static_cast<double>(a.wholes[row]) - static_cast<double>(b.wholes[row])) /
                microseconds_of_second;
        return result;
    }
    to_numbers(node.left, a, active);
    to_numbers(node.right, b, active);
    if (fault_)
        return begin(i, value_kind::whole);
    constexpr double none = std::numeric_limits<double>::quiet_NaN();
    const bool whole = a.of == value_kind::whole && b.of == value_kind::whole;
    const auto reals = [&](auto work) {
        to_reals(a);
        to_reals(b);
        work_real(i, active, a, b, work);
    };
    switch (node.what) {
        case operation::add:
            if (whole)
                work_whole(i, active, a, b, [](lng x, lng y, lng &result) {
                    return !__builtin_add_overflow(x, y, &result);
                });
            else
                reals([](double x, double y) { return x + y; });
            break;
        case operation::subtract:
            if (whole)
                work_whole(i, active, a, b, [](lng x, lng y, lng &result) {
                    return !__builtin_sub_overflow(x, y, &result);
                });
            else
                reals([](double x, double y) { return x - y; });
            break;
        case operation::multiply:
            if (whole)
                work_whole(i, active, a, b, [](lng x, lng y, lng &result) {
                    return !__builtin_mul_overflow(x, y, &result);
                });
            else
                reals([](double x, double y) { return x * y; });
            break;
        case operation::divide:
            reals([](double x, double y) { return y == 0 ? none : x / y; });
            break;
        case operation::remainder:
            if (whole) {
                work_whole(i, active, a, b, [](lng x, lng y, lng &result) {
                    result = y == 0 || y == -1 ? 0 : x % y;
                    return true;
                });
                value_block &result = blocks_[i];
                for (std::size_t row = 0; row < rows_; ++row)
                    if (b.wholes[row] == 0 && result.missing[row] == 0) {
                        result.missing[row] = 1;
                        undefined_ += active[row];
                    }
            } else {
                reals([](double x, double y) { return std::fmod(x, y); });
            }
            break;
        case operation::round_to:
            reals(rounded_to);
            break;
        default:
            reals([](double x, double y) { return std::pow(x, y); });
    }
    return blocks_[i];
}

value_block &expression_evaluator::function_of_number(std::size_t i, rows_mask active) {
    const expression_node &node = whole_.nodes[i];
    value_block &a = of(node.left, active);
    to_numbers(node.left, a, active);
    if (fault_)
        return begin(i, value_kind::whole);
    const bool keeps_whole = node.what == operation::minus || node.what == operation::absolute ||
                             node.what == operation::floor || node.what == operation::ceiling ||
                             node.what == operation::round;
    if (a.of == value_kind::whole && keeps_whole) {
        const operation what = node.what;
        work_whole(i, active, a, a, [what](lng x, lng, lng &result) {
            const bool turned = what == operation::minus || (what == operation::absolute && x < 0);
            // What stands for a missing value has no negative.
            result = turned && x != no_whole ? -x : x;
            return true;
        });
        return blocks_[i];
    }
    to_reals(a);
    const auto work = [&](auto f) {
        work_real(i, active, a, a, [f](double x, double) { return f(x); });
    };
    constexpr double none = std::numeric_limits<double>::quiet_NaN();
    switch (node.what) {
        case operation::minus:
            work([](double x) { return -x; });
            break;
        case operation::absolute:
            work([](double x) { return std::abs(x); });
            break;
        case operation::floor:
            work([](double x) { return std::floor(x); });
            break;
        case operation::ceiling:
            work([](double x) { return std::ceil(x); });
            break;
        case operation::round:
            work([](double x) { return std::round(x); });
            break;
        case operation::exponential:
            work([](double x) { return std::exp(x); });
            break;
        case operation::logarithm:
            work([](double x) { return x == 0 ? none : std::log(x); });
            break;
        case operation::logarithm_2:
            work([](double x) { return x == 0 ? none : std::log2(x); });
            break;
        case operation::logarithm_10:
            work([](double x) { return x == 0 ? none : std::log10(x); });
            break;
        default:
            work([](double x) { return std::sqrt(x); });
    }
    return blocks_[i];
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
        timestamp value{};
        if (values.missing[row] == 0 && active[row] != 0 && !read_cell(values.texts[row], value))
            fail(failure::misfit, node, row, "date or time", values.texts[row]);
        values.wholes[row] = value.microseconds;
    }
}

} // namespace vask::runner
