// Numbers that expressions work out.
#include "expression_evaluator.h"

#include <cmath>
#include <limits>
#include <optional>

namespace vask::runner {
namespace {

//! What stands for a missing value in a column is no result.
constexpr lng no_whole = std::numeric_limits<lng>::min();

constexpr double none = std::numeric_limits<double>::quiet_NaN();

double rounded_to(double value, double digits) {
    const double scale = std::pow(10.0, digits);
    const double result = std::round(value * scale) / scale;
    // Where the scale leaves doubles, the value has no such digits to lose, or nothing else.
    return std::isfinite(result) ? result : scale == 0 ? 0 : value;
}

} // namespace

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

// A rest by 0 is missing.
void expression_evaluator::leave_out_zero_divisors(value_block &result, const value_block &divisors,
                                                   rows_mask active) {
    for (std::size_t row = 0; row < rows_; ++row)
        if (divisors.wholes[row] == 0 && result.missing[row] == 0) {
            result.missing[row] = 1;
            undefined_ += active[row];
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
    const bool whole = a.of == value_kind::whole && b.of == value_kind::whole;
    const auto reals = [&](auto work) {
        to_reals(a);
        to_reals(b);
        work_real(i, active, a, b, work);
    };
    const auto numbers = [&](auto of_whole, auto of_real) {
        if (whole)
            work_whole(i, active, a, b, of_whole);
        else
            reals(of_real);
    };
    switch (node.what) {
        case operation::add:
            numbers([](lng x, lng y, lng &sum) { return !__builtin_add_overflow(x, y, &sum); },
                    [](double x, double y) { return x + y; });
            break;
        case operation::subtract:
            numbers([](lng x, lng y, lng &rest) { return !__builtin_sub_overflow(x, y, &rest); },
                    [](double x, double y) { return x - y; });
            break;
        case operation::multiply:
            numbers(
                [](lng x, lng y, lng &product) { return !__builtin_mul_overflow(x, y, &product); },
                [](double x, double y) { return x * y; });
            break;
        case operation::divide:
            reals([](double x, double y) { return y == 0 ? none : x / y; });
            break;
        case operation::remainder:
            numbers(
                [](lng x, lng y, lng &rest) {
                    rest = y == 0 || y == -1 ? 0 : x % y;
                    return true;
                },
                [](double x, double y) { return std::fmod(x, y); });
            if (whole)
                leave_out_zero_divisors(blocks_[i], b, active);
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
    const auto logarithm = [&](auto f) { work([f](double x) { return x == 0 ? none : f(x); }); };
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
            logarithm([](double x) { return std::log(x); });
            break;
        case operation::logarithm_2:
            logarithm([](double x) { return std::log2(x); });
            break;
        case operation::logarithm_10:
            logarithm([](double x) { return std::log10(x); });
            break;
        default:
            work([](double x) { return std::sqrt(x); });
    }
    return blocks_[i];
}

} // namespace vask::runner
