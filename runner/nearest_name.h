// Guessing which name was meant by one that is not there.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vask::runner {

//! The first of the names that differ least from what was written, by single-character edits and
//! whatever the case of letters; none where more than a third of the letters would be wrong.
std::optional<std::string> nearest_name(const std::vector<std::string> &names,
                                        std::string_view wanted);

} // namespace vask::runner
