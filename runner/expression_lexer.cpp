#include "expression_lexer.h"

#include "terminal_text.h"
#include "user_error.h"

#include <array>

namespace vask::runner {
namespace {

bool begins_word(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || byte == '_' ||
           byte >= 0x80;
}
bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

} // namespace

void point_at(const expression::source &source, std::size_t at, const std::string &what) {
    const std::string_view text = source.text;
    fail("{}: {} at character {}:\n  {}\n  {}^", source.option, what,
         terminal_width(terminal_text(text.substr(0, at))) + 1, terminal_text(text),
         std::string(terminal_width(terminal_text(text.substr(0, at))), ' '));
}

void lexer::advance() {
    at_ = skipped(at_);
    next_ = {token::kind::end, {}, at_};
    if (at_ == text_.size())
        return;
    const char first = text_[at_];
    const char second = at_ + 1 < text_.size() ? text_[at_ + 1] : ' ';
    if (first == '"' || first == '\'' || first == '`')
        read_quoted(first);
    else if (begins_word(first))
        read(token::kind::word, [](char c) { return begins_word(c) || is_digit(c) || c == '.'; });
    else if (first == '#' && is_digit(second))
        read(token::kind::column, [](char c) { return c == '#' || is_digit(c); });
    else if (is_digit(first) || (first == '.' && is_digit(second)))
        read_number();
    else
        read_sign();
}

void lexer::read_number() {
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
void lexer::read_quoted(char quote) {
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

void lexer::read_sign() {
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

} // namespace vask::runner
