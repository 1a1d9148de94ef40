#include "expression.h"

#include "name_list.h"
#include "nearest_name.h"
#include "terminal_text.h"
#include "user_error.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

namespace vask::runner {
namespace {

[[noreturn]] void point_at(const expression::source &source, std::size_t at,
                           const std::string &what) {
    const std::string_view text = source.text;
    fail("{}: {} at character {}:\n  {}\n  {}^", source.option, what,
         terminal_width(terminal_text(text.substr(0, at))) + 1, terminal_text(text),
         std::string(terminal_width(terminal_text(text.substr(0, at))), ' '));
}

// ---- tokens -------------------------------------------------------------------------------------

struct token {
    enum class kind : std::uint8_t { end, word, column, number, text, sign };
    kind of = kind::end;
    std::string text;
    std::size_t at = 0;
};

bool begins_word(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || byte == '_' ||
           byte >= 0x80;
}
bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

class lexer {
public:
    explicit lexer(expression::source source) : source_(std::move(source)), text_(source_.text) {
        advance();
    }
    lexer(const lexer &) = delete;
    lexer &operator=(const lexer &) = delete;

    const expression::source &source() const { return source_; }
    const token &next() const { return next_; }
    //! Whether the token is one of these signs, and a bracket follows where one is asked for.
    bool is_sign(std::string_view sign) const {
        return next_.of == token::kind::sign && next_.text == sign;
    }
    bool bracket_follows() const { return text_.substr(skipped(at_)).starts_with('('); }

    [[noreturn]] void complain(const std::string &what, std::size_t at) const {
        point_at(source_, at, what);
    }
    [[noreturn]] void complain(const std::string &what) const { complain(what, next_.at); }

    bool take_sign(std::string_view sign) {
        if (!is_sign(sign))
            return false;
        advance();
        return true;
    }
    void expect_sign(std::string_view sign, std::string_view expected) {
        if (!take_sign(sign))
            complain(fmt::format("expected {}", expected));
    }
    bool take_word(std::string_view word) {
        if (next_.of != token::kind::word || lower(next_.text) != word)
            return false;
        advance();
        return true;
    }

    void advance() {
        at_ = skipped(at_);
        next_ = {token::kind::end, {}, at_};
        if (at_ == text_.size())
            return;
        const char first = text_[at_];
        const char second = at_ + 1 < text_.size() ? text_[at_ + 1] : ' ';
        if (first == '"' || first == '\'' || first == '`')
            read_quoted(first);
        else if (begins_word(first))
            read(token::kind::word,
                 [](char c) { return begins_word(c) || is_digit(c) || c == '.'; });
        else if (first == '#' && is_digit(second))
            read(token::kind::column, [](char c) { return c == '#' || is_digit(c); });
        else if (is_digit(first) || (first == '.' && is_digit(second)))
            read_number();
        else
            read_sign();
    }

private:
    std::size_t skipped(std::size_t at) const {
        return std::min(text_.find_first_not_of(" \t\n", at), text_.size());
    }

    template <class Belongs>
    void read(token::kind of, Belongs belongs) {
        const std::size_t begin = at_;
        while (at_ < text_.size() && belongs(text_[at_]))
            ++at_;
        next_ = {of, std::string(text_.substr(begin, at_ - begin)), begin};
    }

    void read_number() {
        const std::size_t begin = at_;
        ++at_;
        // A sign belongs to a number behind its exponent.
        while (at_ < text_.size() &&
               (is_digit(text_[at_]) || begins_word(text_[at_]) || text_[at_] == '.' ||
                ((text_[at_] == '-' || text_[at_] == '+') &&
                 (text_[at_ - 1] == 'e' || text_[at_ - 1] == 'E'))))
            ++at_;
        next_ = {token::kind::number, std::string(text_.substr(begin, at_ - begin)), begin};
        dbl value = 0;
        if (!read_cell(next_.text, value))
            complain(fmt::format("'{}' is no number; a text stands in quotes,", next_.text), begin);
    }

    // A quote in it is doubled.
    void read_quoted(char quote) {
        const std::size_t begin = at_;
        std::string text;
        for (++at_; at_ < text_.size(); ++at_) {
            if (text_[at_] == quote && !text_.substr(at_ + 1).starts_with(quote)) {
                ++at_;
                next_ = {quote == '`' ? token::kind::column : token::kind::text, std::move(text),
                         begin};
                return;
            }
            if (text_[at_] == quote)
                ++at_;
            text += text_[at_];
        }
        complain("the quotes are not closed that open", begin);
    }

    void read_sign() {
        static constexpr std::array<std::string_view, 16> signs{
            "==", "!=", "<>", "<=", ">=", "=", "<", ">", "(", ")", ",", "+", "-", "*", "/", "%"};
        for (const std::string_view sign : signs)
            if (text_.substr(at_).starts_with(sign)) {
                next_ = {token::kind::sign, std::string(sign), at_};
                at_ += sign.size();
                return;
            }
        complain("nothing can begin with this character,", at_);
    }

    const expression::source source_;
    const std::string_view text_;
    std::size_t at_ = 0;
    token next_;
};

// ---- functions ----------------------------------------------------------------------------------

constexpr std::string_view truncation_name = "date_trunc";
constexpr std::string_view power_name = "pow";

constexpr std::array<std::pair<std::string_view, operation>, 11> number_functions{
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

constexpr std::array<std::pair<std::string_view, time_unit>, 9> units{
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
bool is_part(time_unit unit) {
    return unit != time_unit::week;
}
bool truncates(time_unit unit) {
    return unit != time_unit::weekday;
}

std::vector<std::string> function_names() {
    std::vector<std::string> names{std::string(truncation_name)};
    for (const auto &[name, what] : number_functions)
        names.emplace_back(name);
    for (const auto &[name, unit] : units)
        if (is_part(unit))
            names.emplace_back(name);
    return names;
}

// ---- parsing ------------------------------------------------------------------------------------

//! Deeper trees than anybody writes, which evaluation still walks with little of the stack.
constexpr std::size_t deepest = 1000;
//! Definitions that use one another more than once each double the nodes.
constexpr std::size_t most_nodes = 100'000;

class parser {
public:
    parser(lexer &tokens, const name_finder &find) : tokens_(tokens), find_(find) {
        made_.sources.push_back(tokens.source());
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
        if (timestamp time{}; read_cell(made.text, time))
            made.time = time.microseconds;
        const std::size_t at = place();
        tokens_.advance();
        return add(std::move(made), at);
    }

    std::size_t named() {
        const std::string name = tokens_.next().text;
        const std::size_t at = place();
        meaning found;
        try {
            found = find_(name);
        } catch (const user_error &error) {
            point_at({std::string(error.what()), made_.sources.front().text}, at, "it stands");
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
    tokens.complain(is_condition
                        ? "expected 'and', 'or' or the end"
                        : "expected a comparison, such as = or <, or in, between, contains, starts "
                          "with, ends with, like or is missing, or an operator, such as + or *,");
}

} // namespace

void expression::complain(std::size_t node, const std::string &what) const {
    point_at(sources[nodes[node].source], nodes[node].at, what);
}

expression parse_expression(std::string_view text, std::string_view option,
                            const name_finder &find) {
    lexer tokens({std::string(option), std::string(text)});
    expression result = parser(tokens, find).parse();
    require_end(tokens, result);
    return result;
}

void parse_definitions(std::string_view text, std::string_view option, const name_finder &find,
                       const std::function<void(definition)> &add) {
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
        definition made{name.text, parser(tokens, find).parse()};
        const bool goes_on = tokens.take_sign(",");
        if (!goes_on)
            require_end(tokens, made.value);
        add(std::move(made));
        if (!goes_on)
            return;
    }
}

} // namespace vask::runner
