// Generated expressions beside a reference that works out one row of one node after another.
#include "runner/expression.h"
#include "runner/expression_evaluator.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

namespace vask::runner {
namespace {

// Nothing for a missing value.
using number = std::optional<std::variant<lng, dbl>>;
using answer = std::optional<bool>;

struct row {
    std::optional<lng> a, b;
    std::optional<dbl> x;
    std::optional<bool> f;
};

struct written_number {
    std::string text;
    std::function<number(const row &)> of;
};
struct written_answer {
    std::string text;
    std::function<answer(const row &)> of;
};

dbl real(const number &value) {
    return std::visit([](auto v) { return static_cast<dbl>(v); }, *value);
}
bool is_whole(const number &value) {
    return std::holds_alternative<lng>(*value);
}
// What has no result is missing.
number result(dbl value) {
    return std::isnan(value) ? number() : number(value);
}

number worked_out(char sign, const number &a, const number &b) {
    if (!a || !b)
        return {};
    if (sign == '/')
        return real(b) == 0 ? number() : number(real(a) / real(b));
    if (is_whole(a) && is_whole(b)) {
        const lng v = std::get<lng>(*a);
        const lng w = std::get<lng>(*b);
        if (sign == '%')
            return w == 0 ? number() : number(v % w);
        return sign == '+' ? v + w : sign == '-' ? v - w : v * w;
    }
    if (sign == '%')
        return result(std::fmod(real(a), real(b)));
    return result(sign == '+'   ? real(a) + real(b)
                  : sign == '-' ? real(a) - real(b)
                                : real(a) * real(b));
}

answer compared(const std::string &sign, const number &a, const number &b) {
    if (!a || !b)
        return {};
    if (sign == "=")
        return real(a) == real(b);
    if (sign == "!=")
        return real(a) != real(b);
    return sign == "<" ? real(a) < real(b) : real(a) >= real(b);
}

class generator {
public:
    explicit generator(unsigned seed) : random_(seed) {}

    std::size_t below(std::size_t bound) { return random_() % bound; }

    written_number number_of(int depth) {
        switch (below(depth > 0 ? 8 : 4)) {
            case 0:
                return {"a", [](const row &r) { return r.a ? number(*r.a) : number(); }};
            case 1:
                return {"`b`", [](const row &r) { return r.b ? number(*r.b) : number(); }};
            case 2:
                return {"x", [](const row &r) { return r.x ? number(*r.x) : number(); }};
            case 3: {
                const auto value = static_cast<lng>(below(4));
                return {std::to_string(value), [value](const row &) { return number(value); }};
            }
            case 4: {
                const written_number of = number_of(depth - 1);
                return {"-" + of.text, [of](const row &r) {
                            const number v = of.of(r);
                            if (!v)
                                return v;
                            return is_whole(v) ? number(-std::get<lng>(*v)) : number(-real(v));
                        }};
            }
            case 5: {
                const written_number of = number_of(depth - 1);
                return {"floor(" + of.text + ")", [of](const row &r) {
                            const number v = of.of(r);
                            return !v || is_whole(v) ? v : number(std::floor(real(v)));
                        }};
            }
            default: {
                const char sign = "+-*/%"[below(5)];
                const written_number left = number_of(depth - 1);
                const written_number right = number_of(depth - 1);
                std::string text = "(";
                text.append(left.text).append(1, sign).append(right.text).append(")");
                return {text,
                        [=](const row &r) { return worked_out(sign, left.of(r), right.of(r)); }};
            }
        }
    }

    written_answer answer_of(int depth) {
        switch (below(depth > 0 ? 7 : 3)) {
            case 0:
                return {"f", [](const row &r) { return r.f; }};
            case 1:
            case 2: {
                const std::string sign = std::vector<std::string>{"=", "!=", "<", ">="}[below(4)];
                const written_number left = number_of(depth);
                const written_number right = number_of(depth);
                return {left.text + " " + sign + " " + right.text,
                        [=](const row &r) { return compared(sign, left.of(r), right.of(r)); }};
            }
            case 3: {
                const written_answer of = answer_of(depth - 1);
                return {"not (" + of.text + ")", [of](const row &r) {
                            const answer v = of.of(r);
                            return v ? answer(!*v) : v;
                        }};
            }
            case 4: {
                const written_number of = number_of(depth);
                return {of.text + " is missing",
                        [of](const row &r) { return answer(!of.of(r).has_value()); }};
            }
            default: {
                const bool both = below(2) == 0;
                const written_answer left = answer_of(depth - 1);
                const written_answer right = answer_of(depth - 1);
                return {"(" + left.text + ")" + (both ? " and (" : " or (") + right.text + ")",
                        [=](const row &r) -> answer {
                            const answer v = left.of(r);
                            const answer w = right.of(r);
                            // The answer that decides alone.
                            if ((v && *v != both) || (w && *w != both))
                                return !both;
                            return v && w ? answer(both) : answer();
                        }};
            }
        }
    }

    row any_row() {
        row made;
        if (below(5) > 0)
            made.a = static_cast<lng>(below(7)) - 3;
        if (below(5) > 0)
            made.b = static_cast<lng>(below(9)) - 2;
        if (below(5) > 0)
            made.x = static_cast<dbl>(below(9)) / 2 - 2;
        if (below(5) > 0)
            made.f = below(2) == 0;
        return made;
    }

private:
    std::mt19937 random_;
};

const std::vector<std::string> names{"a", "b", "x", "f"};

// The values of all rows, worked out by blocks.
std::vector<number> evaluated(const expression &whole, const std::vector<row> &rows,
                              std::size_t block_rows) {
    std::size_t begin = 0;
    std::size_t count = 0;
    const auto read = [&](std::size_t slot, value_block &block) {
        const std::size_t place = whole.columns[slot];
        block.of = place == 2   ? value_kind::real
                   : place == 3 ? value_kind::truth
                                : value_kind::whole;
        block.missing.resize(block_rows);
        block.wholes.resize(block_rows);
        block.reals.resize(block_rows);
        for (std::size_t i = 0; i < count; ++i) {
            const row &r = rows[begin + i];
            const auto take = [&](const auto &value, auto &into) {
                block.missing[i] = value ? 0 : 1;
                // What stands where a value is missing has no say.
                into[i] = value ? *value : 1;
            };
            if (place == 2)
                take(r.x, block.reals);
            else if (place == 3)
                take(r.f, block.wholes);
            else
                take(place == 0 ? r.a : r.b, block.wholes);
        }
    };
    expression_evaluator evaluator(whole, block_rows, read);
    std::vector<number> values;
    for (; begin < rows.size(); begin += count) {
        count = std::min(block_rows, rows.size() - begin);
        const value_block &block = evaluator.evaluate(count);
        EXPECT_FALSE(evaluator.failed());
        for (std::size_t i = 0; i < count; ++i) {
            if (block.missing[i] != 0)
                values.emplace_back();
            else if (block.of == value_kind::real)
                values.emplace_back(block.reals[i]);
            else
                values.emplace_back(block.wholes[i]);
        }
    }
    return values;
}

TEST(Expression, GeneratedOnesAgreeWithTheReference) {
    const name_finder find = [](const std::string &name) -> meaning {
        return static_cast<std::size_t>(std::find(names.begin(), names.end(), name) -
                                        names.begin());
    };
    for (unsigned seed = 0; seed < 1500; ++seed) {
        generator random(seed);
        std::vector<row> rows(1 + random.below(70));
        std::generate(rows.begin(), rows.end(), [&] { return random.any_row(); });
        std::vector<number> expected;
        std::string text;
        if (seed % 2 == 0) {
            const written_number made = random.number_of(4);
            text = made.text;
            for (const row &r : rows)
                expected.push_back(made.of(r));
        } else {
            const written_answer made = random.answer_of(4);
            text = made.text;
            for (const row &r : rows) {
                const answer value = made.of(r);
                expected.push_back(value ? number(lng{*value}) : number());
            }
        }
        const expression whole = parse_expression(text, "--let", find);
        std::vector<value_kind> kinds;
        for (const std::size_t place : whole.columns)
            kinds.push_back(place == 2   ? value_kind::real
                            : place == 3 ? value_kind::truth
                                         : value_kind::whole);
        const value_kind kind = kind_of(whole, kinds);
        for (number &value : expected)
            if (value && kind == value_kind::real)
                value = real(value);
        for (const std::size_t block_rows : {std::size_t{1}, std::size_t{16}, std::size_t{100}})
            EXPECT_EQ(evaluated(whole, rows, block_rows), expected)
                << "seed " << seed << ", blocks of " << block_rows << ": " << text;
    }
}

} // namespace
} // namespace vask::runner
