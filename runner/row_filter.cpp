#include "row_filter.h"

#include "cell_values.h"
#include "name_list.h"
#include "user_error.h"

#include <algorithm>
#include <array>
#include <compare>
#include <utility>

namespace vask::runner {
namespace {

using operand = row_filter::operand;
using operation = row_filter::operation;
using node = row_filter::node;

// ---- parsing ------------------------------------------------------------------------------------

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

class parser {
public:
    parser(std::string_view text, const std::function<std::size_t(const std::string &)> &place_of,
           std::vector<std::size_t> &columns, std::vector<node> &nodes)
        : text_(text), place_of_(place_of), columns_(columns), nodes_(nodes) {
        advance();
    }

    std::size_t parse() {
        const std::size_t root = disjunction();
        if (next_.of != token::kind::end)
            complain("expected 'and', 'or' or the end", next_.at);
        return root;
    }

private:
    [[noreturn]] void complain(const std::string &what, std::size_t at) const {
        fail("--where: {} at character {}:\n  {}\n  {}^", what, at + 1, text_,
             std::string(at, ' '));
    }

    // ---- tokens ----

    void advance() {
        at_ = std::min(text_.find_first_not_of(" \t\n", at_), text_.size());
        next_ = {token::kind::end, {}, at_};
        if (at_ == text_.size())
            return;
        const char first = text_[at_];
        const char second = at_ + 1 < text_.size() ? text_[at_ + 1] : ' ';
        if (first == '"' || first == '\'' || first == '`')
            take_quoted(first);
        else if (begins_word(first))
            take(token::kind::word,
                 [](char c) { return begins_word(c) || is_digit(c) || c == '.'; });
        else if (is_digit(first) || ((first == '-' || first == '+' || first == '.') &&
                                     (is_digit(second) || second == '.')))
            take_number();
        else
            take_sign();
    }

    template <class Belongs>
    void take(token::kind of, Belongs belongs) {
        const std::size_t begin = at_;
        while (at_ < text_.size() && belongs(text_[at_]))
            ++at_;
        next_ = {of, std::string(text_.substr(begin, at_ - begin)), begin};
    }

    void take_number() {
        const std::size_t begin = at_;
        ++at_;
        // A sign belongs to a number behind its exponent, too.
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
    void take_quoted(char quote) {
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

    void take_sign() {
        static constexpr std::array<std::string_view, 11> signs{"==", "!=", "<>", "<=", ">=", "=",
                                                                "<",  ">",  "(",  ")",  ","};
        for (const std::string_view sign : signs)
            if (text_.substr(at_).starts_with(sign)) {
                next_ = {token::kind::sign, std::string(sign), at_};
                at_ += sign.size();
                return;
            }
        complain("nothing can begin with this character,", at_);
    }

    bool take_sign(std::string_view sign) {
        if (next_.of != token::kind::sign || next_.text != sign)
            return false;
        advance();
        return true;
    }

    bool take_word(std::string_view word) {
        if (next_.of != token::kind::word || lower(next_.text) != word)
            return false;
        advance();
        return true;
    }

    // ---- conditions ----

    std::size_t add(node made) {
        nodes_.push_back(std::move(made));
        return nodes_.size() - 1;
    }
    std::size_t negated(std::size_t condition, bool really = true) {
        return really ? add({.what = operation::negation, .left = condition}) : condition;
    }

    std::size_t disjunction() {
        std::size_t left = conjunction();
        while (take_word("or"))
            left = add({.what = operation::either, .left = left, .right = conjunction()});
        return left;
    }

    std::size_t conjunction() {
        std::size_t left = negation();
        while (take_word("and"))
            left = add({.what = operation::both, .left = left, .right = negation()});
        return left;
    }

    std::size_t negation() {
        // Conditions nest as deep as the stack allows with ease.
        constexpr int deepest = 200;
        if (++depth_ > deepest)
            complain("the condition is nested too deeply", next_.at);
        std::size_t result = 0;
        if (take_word("not")) {
            result = negated(negation());
        } else if (take_sign("(")) {
            result = disjunction();
            if (!take_sign(")"))
                complain("expected ')'", next_.at);
        } else {
            result = comparison();
        }
        --depth_;
        return result;
    }

    std::size_t comparison() {
        const operand value = take_operand();
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
            if (next_.of == token::kind::sign && next_.text == sign) {
                advance();
                operand other = take_operand();
                const bool turned = sign.starts_with('>');
                return negated(
                    add({.what = what, .a = turned ? other : value, .b = turned ? value : other}),
                    sign == "!=" || sign == "<>");
            }
        if (take_word("is")) {
            const bool is_not = take_word("not");
            if (!take_word("missing") && !take_word("null"))
                complain("expected 'missing'", next_.at);
            return negated(add({.what = operation::missing, .a = value}), is_not);
        }
        const bool is_not = take_word("not");
        return negated(predicate(value), is_not);
    }

    std::size_t predicate(const operand &value) {
        if (take_word("between")) {
            const operand low = take_operand();
            if (!take_word("and"))
                complain("expected 'and'", next_.at);
            const std::size_t above = add({.what = operation::less_or_equal, .a = low, .b = value});
            const std::size_t below =
                add({.what = operation::less_or_equal, .a = value, .b = take_operand()});
            return add({.what = operation::both, .left = above, .right = below});
        }
        if (take_word("in"))
            return one_of(value);
        if (take_word("contains"))
            return add({.what = operation::contains, .a = value, .b = take_text()});
        if (take_word("like"))
            return add({.what = operation::like, .a = value, .b = take_text()});
        for (const auto &[word, what] :
             {std::pair{"starts", operation::begins}, std::pair{"ends", operation::ends}})
            if (take_word(word)) {
                if (!take_word("with"))
                    complain("expected 'with'", next_.at);
                return add({.what = what, .a = value, .b = take_text()});
            }
        complain("expected a comparison, such as = or <, or in, between, contains, starts with, "
                 "ends with, like or is missing,",
                 next_.at);
    }

    std::size_t one_of(const operand &value) {
        if (!take_sign("("))
            complain("expected '('", next_.at);
        std::size_t any = add({.what = operation::equal, .a = value, .b = take_operand()});
        while (take_sign(",")) {
            const std::size_t next =
                add({.what = operation::equal, .a = value, .b = take_operand()});
            any = add({.what = operation::either, .left = any, .right = next});
        }
        if (!take_sign(")"))
            complain("expected ',' or ')'", next_.at);
        return any;
    }

    operand take_text() {
        if (next_.of != token::kind::text)
            complain("expected a text in quotes", next_.at);
        operand result{operand::kind::text, 0, next_.text};
        advance();
        return result;
    }

    operand take_operand() {
        operand result{operand::kind::text, 0, next_.text};
        timestamp time{};
        switch (next_.of) {
            case token::kind::number:
                result.of = operand::kind::number;
                break;
            case token::kind::text:
                if (read_cell(next_.text, time))
                    result.of = operand::kind::time;
                break;
            case token::kind::word:
                if (const std::string word = lower(next_.text); word == "true" || word == "false") {
                    result.of = operand::kind::truth;
                    break;
                }
                [[fallthrough]];
            case token::kind::column:
                result.of = operand::kind::column;
                result.slot = slot_of(place_of_(next_.text));
                break;
            case token::kind::end:
            case token::kind::sign:
                complain("expected a column or a value", next_.at);
        }
        advance();
        return result;
    }

    std::size_t slot_of(std::size_t place) {
        const auto found = std::find(columns_.begin(), columns_.end(), place);
        const auto slot = static_cast<std::size_t>(found - columns_.begin());
        if (found == columns_.end())
            columns_.push_back(place);
        return slot;
    }

    std::string_view text_;
    const std::function<std::size_t(const std::string &)> &place_of_;
    std::vector<std::size_t> &columns_;
    std::vector<node> &nodes_;
    std::size_t at_ = 0;
    token next_;
    int depth_ = 0;
};

// ---- comparing ----------------------------------------------------------------------------------

enum class answer : std::uint8_t { no, yes, unknown };

answer answer_of(bool value) {
    return value ? answer::yes : answer::no;
}

// As whole numbers where both are, which doubles may not tell apart. Nothing if one is no number.
std::optional<std::partial_ordering> compare_numbers(std::string_view a, std::string_view b) {
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

std::optional<std::partial_ordering> compare_times(std::string_view a, std::string_view b) {
    timestamp time_a{};
    timestamp time_b{};
    if (!read_cell(a, time_a) || !read_cell(b, time_b))
        return std::nullopt;
    return time_a.microseconds <=> time_b.microseconds;
}

std::optional<std::partial_ordering> compare_truths(std::string_view a, std::string_view b) {
    truth truth_a{};
    truth truth_b{};
    if (!read_cell(a, truth_a) || !read_cell(b, truth_b))
        return std::nullopt;
    return truth_a.value <=> truth_b.value;
}

// % stands for any bytes, _ for one.
bool is_like(std::string_view text, std::string_view pattern) {
    std::size_t at = 0;
    std::size_t in_pattern = 0;
    std::size_t star = std::string_view::npos; // the last %, and where the text went on behind it
    std::size_t retry = 0;
    while (at < text.size()) {
        if (in_pattern < pattern.size() && pattern[in_pattern] == '%') {
            star = in_pattern++;
            retry = at;
        } else if (in_pattern < pattern.size() &&
                   (pattern[in_pattern] == '_' || pattern[in_pattern] == text[at])) {
            ++in_pattern;
            ++at;
        } else if (star != std::string_view::npos) {
            in_pattern = star + 1;
            at = ++retry;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('%', in_pattern) == std::string_view::npos;
}

class evaluation {
public:
    evaluation(const std::vector<node> &nodes, std::span<const row_filter::cell> cells,
               std::optional<row_filter::misfit> &fault)
        : nodes_(nodes), cells_(cells), fault_(fault) {}

    answer of(std::size_t i) {
        const node &condition = nodes_[i];
        switch (condition.what) {
            case operation::both:
                return joined(condition, answer::no);
            case operation::either:
                return joined(condition, answer::yes);
            case operation::negation: {
                const answer value = of(condition.left);
                return value == answer::unknown ? value : answer_of(value == answer::no);
            }
            case operation::missing:
                return answer_of(is_missing(condition.a));
            default:
                break;
        }
        if (is_missing(condition.a) || is_missing(condition.b))
            return answer::unknown;
        const std::string_view a = text_of(condition.a);
        const std::string_view b = text_of(condition.b);
        switch (condition.what) {
            case operation::contains:
                return answer_of(a.find(b) != std::string_view::npos);
            case operation::begins:
                return answer_of(a.starts_with(b));
            case operation::ends:
                return answer_of(a.ends_with(b));
            case operation::like:
                return answer_of(is_like(a, b));
            default:
                break;
        }
        const std::optional<std::partial_ordering> order = compare(condition.a, condition.b);
        if (!order)
            return answer::unknown;
        if (condition.what == operation::equal)
            return answer_of(*order == 0);
        return answer_of(condition.what == operation::less ? *order < 0 : *order <= 0);
    }

private:
    // With the answer that decides alone: no of "and", yes of "or".
    answer joined(const node &condition, answer deciding) {
        const answer left = of(condition.left);
        if (left == deciding)
            return left;
        const answer right = of(condition.right);
        return right == deciding || left != answer::unknown ? right : left;
    }

    bool is_missing(const operand &value) const {
        return value.of == operand::kind::column && cells_[value.slot].missing;
    }
    std::string_view text_of(const operand &value) const {
        return value.of == operand::kind::column ? cells_[value.slot].text : value.text;
    }

    // Nothing where one is no value of the other's kind, which is a fault.
    std::optional<std::partial_ordering> compare(const operand &a, const operand &b) {
        using kind = operand::kind;
        const std::string_view text_a = text_of(a);
        const std::string_view text_b = text_of(b);
        const auto either = [&](kind of) { return a.of == of || b.of == of; };
        if (either(kind::number) || either(kind::truth)) {
            const bool number = either(kind::number);
            const auto order =
                number ? compare_numbers(text_a, text_b) : compare_truths(text_a, text_b);
            if (!order && (a.of == kind::column || b.of == kind::column))
                fault_ = {a.of == kind::column ? a.slot : b.slot,
                          number ? "number" : "truth value"};
            return order;
        }
        const bool columns = a.of == kind::column && b.of == kind::column;
        if (columns)
            if (const auto order = compare_numbers(text_a, text_b))
                return order;
        if (columns || either(kind::time))
            if (const auto order = compare_times(text_a, text_b))
                return order;
        return text_a <=> text_b;
    }

    const std::vector<node> &nodes_;
    std::span<const row_filter::cell> cells_;
    std::optional<row_filter::misfit> &fault_;
};

} // namespace

row_filter::row_filter(std::string_view text,
                       const std::function<std::size_t(const std::string &)> &place_of)
    : root_(parser(text, place_of, columns_, nodes_).parse()) {}

bool row_filter::keeps(std::span<const cell> cells, std::optional<misfit> &fault) const {
    return evaluation(nodes_, cells, fault).of(root_) == answer::yes;
}

} // namespace vask::runner
