// Reading lists of names and aggregates from the command line.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vask::runner {

//! A column's name, or a number or * where an aggregate takes one.
struct argument {
    std::string text;
    bool quoted = false; //!< was in quotes, so it is a name whatever it looks like
};

//! An aggregate as it was written: `text` is the whole of it, without spaces around and without
//! the name behind "as".
struct aggregate_call {
    std::string text;
    std::string function; //!< in lower case
    std::vector<argument> arguments;
    std::optional<std::string> alias{}; //!< what stands behind "as"

    //! What its result is called.
    const std::string &title() const { return alias ? *alias : text; }
};

//! With its ASCII letters in lower case.
std::string lower(std::string_view text);

//! Parses `sum(v1) as total, sum("unit price, net")`. A name may stand in double quotes, with
//! quotes in it doubled; without them it ends at a comma or bracket. What stands behind a colon in
//! an aggregate's name may be a list, as in `perc:50,95(x)`. Throws user_error.
std::vector<aggregate_call> parse_aggregates(std::string_view text);

//! Parses `a,"b, c",d`. `option` names the option in messages.
std::vector<std::string> parse_names(std::string_view text, std::string_view option);

//! Parses `N/A, " ", -99,` into texts of any kind: those in quotes as they stand there, the others
//! without the spaces around them, and an empty text where there is nothing between two commas.
std::vector<std::string> parse_words(std::string_view text, std::string_view option);

//! The name as an argument of an aggregate, from which parse_aggregates reads it back.
std::string as_argument(std::string_view name);

//! The text as an item from which parse_words reads it back.
std::string as_word(std::string_view text);

//! Parses `a:int,"b, c":str` into names and what stands behind their last colon.
std::vector<std::pair<std::string, std::string>> parse_assignments(std::string_view text,
                                                                   std::string_view option);

} // namespace vask::runner
