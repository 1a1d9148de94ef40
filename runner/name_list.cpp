#include "name_list.h"

#include "user_error.h"

#include <algorithm>

namespace vask::runner {
namespace {

constexpr std::string_view spaces = " \t\r\n";

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(spaces);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(spaces) - first + 1);
}

class scanner {
public:
    scanner(std::string_view text, std::string_view option) : text_(text), option_(option) {}

    bool at_end() {
        skip_spaces();
        return at_ == text_.size();
    }
    std::size_t place() const { return at_; }
    std::string_view since(std::size_t begin) const {
        return trimmed(text_.substr(begin, at_ - begin));
    }

    bool take(char c) {
        skip_spaces();
        if (at_ == text_.size() || text_[at_] != c)
            return false;
        ++at_;
        return true;
    }

    //! A word in lower case, in any case, with nothing behind it that could belong to it.
    bool take_word(std::string_view word) {
        skip_spaces();
        const std::string_view rest = text_.substr(at_);
        if (lower(rest.substr(0, word.size())) != word ||
            (rest.size() > word.size() &&
             (spaces.find(rest[word.size()]) == spaces.npos && rest[word.size()] != '"')))
            return false;
        at_ += word.size();
        return true;
    }

    void expect(char c, std::string_view where) {
        if (!take(c))
            complain(fmt::format("expected '{}' {}", c, where));
    }

    //! Text in quotes, or all up to one of `ends`, which may be nothing.
    argument take_text(std::string_view ends) {
        skip_spaces();
        if (at_ < text_.size() && text_[at_] == '"')
            return {take_quoted(), true};
        const std::size_t end = std::min(text_.find_first_of(ends, at_), text_.size());
        const std::string_view found = trimmed(text_.substr(at_, end - at_));
        at_ = end;
        return {std::string(found), false};
    }

    argument take_argument(std::string_view ends) {
        argument found = take_text(ends);
        if (found.text.empty() && !found.quoted)
            complain("expected a name");
        return found;
    }

    [[noreturn]] void complain(const std::string &what) {
        skip_spaces();
        const std::string_view rest = text_.substr(at_);
        fail("{}: {} {}", option_, what,
             rest.empty() ? std::string("at its end") : fmt::format("before '{}'", rest));
    }

private:
    void skip_spaces() { at_ = std::min(text_.find_first_not_of(spaces, at_), text_.size()); }

    std::string take_quoted() {
        const std::size_t begin = at_;
        std::string name;
        for (++at_; at_ < text_.size(); ++at_) {
            if (text_[at_] != '"') {
                name += text_[at_];
            } else if (text_.substr(at_ + 1).starts_with('"')) {
                name += '"';
                ++at_;
            } else {
                ++at_;
                return name;
            }
        }
        fail("{}: the quotes that open in '{}' are not closed", option_, text_.substr(begin));
    }

    std::string_view text_;
    std::string_view option_;
    std::size_t at_ = 0;
};

// Calls `item` for each item of a list with commas between.
template <class Item>
void scan_list(scanner &scan, Item item) {
    do
        item();
    while (scan.take(','));
    if (!scan.at_end())
        scan.complain("expected a comma");
}

// In quotes if they are needed so that it is read as one up to one of `ends`.
std::string quoted_for(std::string_view text, std::string_view ends) {
    if (!text.empty() && trimmed(text) == text && !text.starts_with('"') &&
        text.find_first_of(ends) == std::string_view::npos)
        return std::string(text);
    std::string word = "\"";
    for (const char c : text)
        word.append(c == '"' ? 2 : 1, c);
    return word + '"';
}

} // namespace

std::string lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return result;
}

std::vector<aggregate_call> parse_aggregates(std::string_view text) {
    scanner scan(text, "--agg");
    std::vector<aggregate_call> calls;
    scan_list(scan, [&] {
        aggregate_call call;
        const std::size_t begin = scan.place();
        const std::string written = scan.take_argument(",()").text;
        if (written.empty()) // in quotes
            scan.complain("expected the name of a function");
        call.function = lower(written);
        // Behind a colon, commas stand between numbers of percent.
        while (call.function.find(':') != call.function.npos && scan.take(','))
            call.function += "," + scan.take_argument(",()").text;
        // As in "sum x".
        const std::size_t blank = std::min(written.find(' '), written.size());
        const std::string column = blank == written.size() ? "column" : written.substr(blank + 1);
        scan.expect('(', fmt::format("after '{0}', as in {0}({1}),", call.function.substr(0, blank),
                                     column));
        do
            call.arguments.push_back(scan.take_argument(",()"));
        while (scan.take(','));
        scan.expect(')', "after the column");
        call.text = scan.since(begin);
        if (scan.take_word("as"))
            call.alias = scan.take_argument(",").text;
        calls.push_back(std::move(call));
    });
    return calls;
}

std::vector<std::string> parse_names(std::string_view text, std::string_view option) {
    scanner scan(text, option);
    std::vector<std::string> names;
    scan_list(scan, [&] { names.push_back(scan.take_argument(",").text); });
    return names;
}

std::vector<std::string> parse_words(std::string_view text, std::string_view option) {
    scanner scan(text, option);
    std::vector<std::string> words;
    scan_list(scan, [&] { words.push_back(scan.take_text(",").text); });
    return words;
}

std::string as_word(std::string_view text) {
    return quoted_for(text, ",");
}

std::string as_argument(std::string_view name) {
    return quoted_for(name, ",()");
}

std::vector<std::pair<std::string, std::string>> parse_assignments(std::string_view text,
                                                                   std::string_view option) {
    scanner scan(text, option);
    std::vector<std::pair<std::string, std::string>> pairs;
    scan_list(scan, [&] {
        argument name = scan.take_argument(",");
        if (name.quoted) {
            scan.expect(':', "after the name,");
            pairs.emplace_back(std::move(name.text), scan.take_argument(",").text);
            return;
        }
        const std::size_t colon = name.text.rfind(':');
        if (colon == std::string::npos)
            scan.complain(fmt::format("expected name:type instead of '{}'", name.text));
        pairs.emplace_back(trimmed(std::string_view(name.text).substr(0, colon)),
                           trimmed(std::string_view(name.text).substr(colon + 1)));
    });
    return pairs;
}

} // namespace vask::runner
