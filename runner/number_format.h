// How a file writes numbers.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vask::runner {

//! The marks within numbers. The readers of cells know a point and no thousands.
struct number_format {
    char decimal = '.';
    char thousands = '\0'; //!< between groups of three digits; NUL: there is none

    bool is_plain() const noexcept { return decimal == '.' && thousands == '\0'; }
};

//! A cell in the spelling that the readers take, in `memory` if it has to be another one. Nothing
//! for one that is no number in the format: groups of other than three digits, or a point where it
//! is no mark. A cell that is no number at all may come back, too.
std::optional<std::string_view> plain_spelling(std::string_view cell, const number_format &format,
                                               std::string &memory);

//! What a cell that is no number looks like, for people who think that it is one, and what to do;
//! nothing for other cells. A sentence to be put behind another, from a blank on.
std::string number_hint(std::string_view cell);

} // namespace vask::runner
