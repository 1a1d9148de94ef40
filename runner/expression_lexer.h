// The words, numbers, texts and signs of an expression.
#pragma once

#include "expression.h"
#include "name_list.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace vask::runner {

//! Throws user_error with the text and a mark below the place in it.
[[noreturn]] void point_at(const expression::source &source, std::size_t at,
                           const std::string &what);

struct token {
    enum class kind : std::uint8_t { end, word, column, number, text, sign };
    kind of = kind::end;
    std::string text;
    std::size_t at = 0;
};

//! Reads a text token by token, with the next one in view.
class lexer {
public:
    //! Throws user_error, as advance() does, for what begins no token.
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

    void advance();

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

    void read_number();
    void read_quoted(char quote);
    void read_sign();

    const expression::source source_;
    const std::string_view text_;
    std::size_t at_ = 0;
    token next_;
};

} // namespace vask::runner
