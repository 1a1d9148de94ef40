#include "expression.h"

#include "expression_functions.h"
#include "expression_lexer.h"
#include "name_list.h"
#include "nearest_name.h"
#include "user_error.h"

#include <algorithm>
#include <array>
#include <utility>

namespace vask::runner {
namespace {

//! Deeper trees than anybody writes, which evaluation still walks with little of the stack.
constexpr std::size_t deepest = 1000;
//! Definitions that use one another more than once each double the nodes.
constexpr std::size_t most_nodes = 100'000;

class parser {
public:
    parser(lexer &tokens, const name_finder &find, const date_format &dates)
        : tokens_(tokens), find_(find) {
        made_.sources.push_back(tokens.source());
        made_.dates = dates;
    }

    expression parse() {
        made_.root = disjunction();
        return std::move(made_);
    }

private:
    using node = expression_node;

    std::size_t add(node made, std::size_t at) {
        made.at = at;
        made.depth = made.what <= operation::text
                         ? 1
                         : 1 + std::max(depth_of(made.left), depth_of(made.right));
        if (made.depth > deepest)
            tokens_.complain("the expression is nested too deeply", at);
        made_.nodes.push_back(std::move(made));
        return made_.nodes.size() - 1;
    }
    std::size_t depth_of(std::size_t i) const { return made_.nodes[i].depth; }

    std::size_t add(operation what, std::size_t left, std::size_t right, std::size_t at) {
        return add(node{.what = what, .left = left, .right = right}, at);
    }
    std::size_t add(operation what, std::size_t operand, std::size_t at) {
        return add(what, operand, operand, at);
    }
    std::size_t negated(std::size_t condition, bool really, std::size_t at) {
        return really ? add(operation::negation, condition, at) : condition;
    }

    std::size_t disjunction() {
        std::size_t left = conjunction();
        for (std::size_t at = place(); tokens_.take_word("or"); at = place())
            left = add(operation::either, left, conjunction(), at);
        return left;
    }

    std::size_t conjunction() {
        std::size_t left = inverse();
        for (std::size_t at = place(); tokens_.take_word("and"); at = place())
            left = add(operation::both, left, inverse(), at);
        return left;
    }

    std::size_t inverse() {
        const std::size_t at = place();
        if (!tokens_.take_word("not"))
            return comparison();
        return nested([&] { return negated(inverse(), true, at); });
    }

    // Brackets, signs and "not" call the parser again, as deep as the stack allows with ease.
    template <class Parse>
    std::size_t nested(Parse parse) {
        constexpr int most_nested = 200;
        if (++nesting_ > most_nested)
            tokens_.complain("the expression is nested too deeply");
        const std::size_t result = parse();
        --nesting_;
        return result;
    }

    std::size_t comparison() {
        const std::size_t value = sum();
        const std::size_t at = place();
        static constexpr std::array<std::pair<std::string_view, operation>, 8> signs{
            {{"=", operation::equal},
             {"==", operation::equal},
             {"!=", operation::equal},
             {"<>", operation::equal},
             {"<", operation::less},
             {"<=", operation::less_or_equal},
             {">", operation::less},
             {">=", operation::less_or_equal}}};
        for (const auto &[sign, what] : signs)
            if (tokens_.take_sign(sign)) {
                const std::size_t other = sum();
                const bool turned = sign.starts_with('>');
                return negated(add(what, turned ? other : value, turned ? value : other, at),
                               sign == "!=" || sign == "<>", at);
            }
        if (tokens_.take_word("is")) {
            const bool is_not = tokens_.take_word("not");
            if (!tokens_.take_word("missing") && !tokens_.take_word("null"))
                tokens_.complain("expected 'missing'");
            return negated(add(operation::missing, value, at), is_not, at);
        }
        const bool is_not = tokens_.take_word("not");
        const std::optional<std::size_t> told = predicate(value);
        if (is_not && !told)
            tokens_.complain("expected in, between, contains, starts with, ends with or like");
        return told ? negated(*told, is_not, at) : value;
    }

    std::optional<std::size_t> predicate(std::size_t value) {
        const std::size_t at = place();
        if (tokens_.take_word("between")) {
            const std::size_t low = sum();
            if (!tokens_.take_word("and"))
                tokens_.complain("expected 'and'");
            const std::size_t above = add(operation::less_or_equal, low, value, at);
            const std::size_t below = add(operation::less_or_equal, value, sum(), at);
            return add(operation::both, above, below, at);
        }
        if (tokens_.take_word("in"))
            return one_of(value, at);
        if (tokens_.take_word("contains"))
            return add(operation::contains, value, quoted_text(), at);
        if (tokens_.take_word("like"))
            return add(operation::like, value, quoted_text(), at);
        for (const auto &[word, what] :
             {std::pair{"starts", operation::begins}, std::pair{"ends", operation::ends}})
            if (tokens_.take_word(word)) {
                if (!tokens_.take_word("with"))
                    tokens_.complain("expected 'with'");
                return add(what, value, quoted_text(), at);
            }
        return std::nullopt;
    }

    std::size_t one_of(std::size_t value, std::size_t at) {
        tokens_.expect_sign("(", "'('");
        std::vector<std::size_t> any;
        do
            any.push_back(add(operation::equal, value, sum(), at));
        while (tokens_.take_sign(","));
        tokens_.expect_sign(")", "',' or ')'");
        // In pairs, so that long lists make flat trees.
        while (any.size() > 1) {
            std::vector<std::size_t> pairs;
            for (std::size_t i = 0; i < any.size(); i += 2)
                pairs.push_back(i + 1 < any.size() ? add(operation::either, any[i], any[i + 1], at)
                                                   : any[i]);
            any = std::move(pairs);
        }
        return any.front();
    }

    std::size_t sum() {
        std::size_t left = product();
        while (true) {
            const std::size_t at = place();
            if (tokens_.take_sign("+"))
                left = add(operation::add, left, product(), at);
            else if (tokens_.take_sign("-"))
                left = add(operation::subtract, left, product(), at);
            else
                return left;
        }
    }

    std::size_t product() {
        std::size_t left = factor();
        while (true) {
            const std::size_t at = place();
            if (tokens_.take_sign("*"))
                left = add(operation::multiply, left, factor(), at);
            else if (tokens_.take_sign("/"))
                left = add(operation::divide, left, factor(), at);
            else if (tokens_.take_sign("%"))
                left = add(operation::remainder, left, factor(), at);
            else
                return left;
        }
    }

    std::size_t factor() {
        const std::size_t at = place();
        if (tokens_.take_sign("-"))
            return nested([&] { return negative(factor(), at); });
        if (tokens_.take_sign("+"))
            return nested([&] { return factor(); });
        if (tokens_.take_sign("("))
            return nested([&] {
                const std::size_t inner = disjunction();
                tokens_.expect_sign(")", "')'");
                return inner;
            });
        switch (tokens_.next().of) {
            case token::kind::number:
                return number();
            case token::kind::text:
                return quoted_text();
            case token::kind::word:
                if (tokens_.bracket_follows())
                    return nested([&] { return call(); });
                if (const std::string word = lower(tokens_.next().text);
                    word == "true" || word == "false") {
                    tokens_.advance();
                    return add(node{.what = operation::truth, .truth = word == "true"}, at);
                }
                [[fallthrough]];
            case token::kind::column:
                return named();
            case token::kind::end:
            case token::kind::sign:
                break;
        }
        tokens_.complain("expected a column or a value");
    }

    std::size_t number() {
        const std::string text = tokens_.next().text;
        const std::size_t at = place();
        tokens_.advance();
        node made{.what = operation::whole};
        if (!read_cell(text, made.whole)) {
            made.what = operation::real;
            read_cell(text, made.real);
        }
        return add(std::move(made), at);
    }

    std::size_t negative(std::size_t value, std::size_t at) {
        node &literal = made_.nodes[value];
        if (literal.what == operation::whole)
            literal.whole = -literal.whole; // the one without a negative is no whole number here
        else if (literal.what == operation::real)
            literal.real = -literal.real;
        else
            return add(operation::minus, value, at);
        return value;
    }

    std::size_t quoted_text() {
        if (tokens_.next().of != token::kind::text)
            tokens_.complain("expected a text in quotes");
        node made{.what = operation::text, .text = tokens_.next().text};
        if (const auto time = read_time(made.text, made_.dates))
            made.time = time->microseconds;
        const std::size_t at = place();
        tokens_.advance();
        return add(std::move(made), at);
    }

    std::size_t named() {
        const std::string name = tokens_.next().text;
        const std::size_t at = place();
        // Behind something else, a word is often meant as a text.
        const bool may_be_text = at > 0 && tokens_.next().of == token::kind::word;
        const auto complain = [&](std::string what) {
            point_at({std::move(what), made_.sources.front().text}, at, "it stands");
        };
        meaning found;
        try {
            found = find_(name);
        } catch (const unknown_column &error) {
            const std::string what = error.what();
            // What is nearly a name is rather misspelt.
            complain(may_be_text && !what.ends_with('?')
                         ? fmt::format("{} (a text stands in quotes: '{}')", what, name)
                         : what);
        } catch (const user_error &error) {
            complain(error.what());
        }
        tokens_.advance();
        if (const auto *const column = std::get_if<std::size_t>(&found))
            return add(node{.what = operation::column, .slot = slot_of(*column), .text = name}, at);
        return copied(*std::get<const expression *>(found), at);
    }

    std::size_t slot_of(std::size_t place) {
        const auto found = std::find(made_.columns.begin(), made_.columns.end(), place);
        const auto slot = static_cast<std::size_t>(found - made_.columns.begin());
        if (found == made_.columns.end())
            made_.columns.push_back(place);
        return slot;
    }

    std::size_t copied(const expression &used, std::size_t at) {
        const std::size_t first_node = made_.nodes.size();
        const std::size_t first_source = made_.sources.size();
        if (first_node + used.nodes.size() > most_nodes)
            tokens_.complain("with the definitions that it uses, the expression is too long,", at);
        made_.sources.insert(made_.sources.end(), used.sources.begin(), used.sources.end());
        for (node each : used.nodes) {
            each.left += first_node;
            each.right += first_node;
            each.source += first_source;
            if (each.what == operation::column)
                each.slot = slot_of(used.columns[each.slot]);
            made_.nodes.push_back(std::move(each));
        }
        return first_node + used.root;
    }

    std::size_t call() {
        const std::string name = lower(tokens_.next().text);
        const std::size_t at = place();
        tokens_.advance();
        tokens_.advance(); // the bracket
        if (name == truncation_name)
            return truncation(at);
        if (const auto unit = found_in(units, name); unit && is_part(*unit)) {
            const std::size_t value = last_argument();
            return add(
                node{.what = operation::part_of_time, .left = value, .right = value, .unit = *unit},
                at);
        }
        const auto what = found_in(number_functions, name);
        if (!what) {
            const auto nearest = nearest_name(function_names(), name);
            tokens_.complain(
                fmt::format("there is no function '{}'{}; there are {},", name,
                            nearest ? fmt::format(" (did you mean {}?)", *nearest) : "",
                            fmt::join(function_names(), ", ")),
                at);
        }
        const std::size_t value = disjunction();
        if (*what == operation::power) {
            tokens_.expect_sign(",", "',' and the exponent, as in pow(x, 2)");
            return add(*what, value, last_argument(), at);
        }
        if (*what == operation::round && tokens_.take_sign(","))
            return add(operation::round_to, value, last_argument(), at);
        tokens_.expect_sign(")", fmt::format("')' as {} takes one value", name));
        return add(*what, value, at);
    }

    std::size_t last_argument() {
        const std::size_t value = disjunction();
        tokens_.expect_sign(")", "')'");
        return value;
    }

    std::size_t truncation(std::size_t at) {
        const auto unit = tokens_.next().of == token::kind::text
                              ? found_in(units, lower(tokens_.next().text))
                              : std::nullopt;
        if (!unit || !truncates(*unit))
            tokens_.complain("expected 'year', 'quarter', 'month', 'week', 'day', 'hour', "
                             "'minute' or 'second', in quotes, as in date_trunc('month', x),");
        tokens_.advance();
        tokens_.expect_sign(",", "','");
        const std::size_t value = last_argument();
        return add(
            node{.what = operation::truncated_time, .left = value, .right = value, .unit = *unit},
            at);
    }

    std::size_t place() const { return tokens_.next().at; }

    lexer &tokens_;
    const name_finder &find_;
    expression made_;
    int nesting_ = 0;
};

// What may come next depends on what was read last.
void require_end(const lexer &tokens, const expression &read) {
    if (tokens.next().of == token::kind::end)
        return;
    const operation last = read.nodes[read.root].what;
    const bool is_condition = last >= operation::both && last <= operation::missing;
    tokens.complain(is_condition && tokens.is_sign(",")
                        ? "expected 'and', 'or' or the end; decimals have a point, as in 40.5: the "
                          "comma stands"
                    : is_condition
                        ? "expected 'and', 'or' or the end"
                        : "expected a comparison, such as = or <, or in, between, contains, starts "
                          "with, ends with, like or is missing, or an operator, such as + or *,");
}

} // namespace

void expression::complain(std::size_t node, const std::string &what) const {
    point_at(sources[nodes[node].source], nodes[node].at, what);
}

expression parse_expression(std::string_view text, std::string_view option, const name_finder &find,
                            const date_format &dates) {
    lexer tokens({std::string(option), std::string(text)});
    expression result = parser(tokens, find, dates).parse();
    require_end(tokens, result);
    return result;
}

void parse_definitions(std::string_view text, std::string_view option, const name_finder &find,
                       const std::function<void(definition)> &add, const date_format &dates) {
    lexer tokens({std::string(option), std::string(text)});
    while (true) {
        const token name = tokens.next();
        // A name in double quotes is one, too, as in lists of columns.
        if ((name.of != token::kind::word && name.of != token::kind::column &&
             name.of != token::kind::text) ||
            name.text.empty())
            tokens.complain("expected a name and what it stands for, as in 'total = x + y',");
        tokens.advance();
        tokens.expect_sign("=", "'=' behind the name");
        definition made{name.text, parser(tokens, find, dates).parse()};
        const bool goes_on = tokens.take_sign(",");
        if (!goes_on)
            require_end(tokens, made.value);
        add(std::move(made));
        if (!goes_on)
            return;
    }
}

} // namespace vask::runner
