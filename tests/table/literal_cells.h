// Columns and wishes written out in tests.
#pragma once

#include "tests/table/plain_query.h"

#include <string>
#include <utility>
#include <vector>

namespace vask_test {

inline std::vector<cell> reals(const std::vector<double> &values) {
    std::vector<cell> made;
    for (const double value : values)
        made.push_back(cell::of_real(value));
    return made;
}

inline std::vector<cell> wholes(const std::vector<wide> &values) {
    std::vector<cell> made;
    for (const wide value : values)
        made.push_back(cell::of(value));
    return made;
}

inline std::vector<cell> words(const std::vector<std::string> &values) {
    std::vector<cell> made;
    for (const std::string &value : values)
        made.push_back(cell::of_text(value));
    return made;
}

inline wanted of(std::string function, std::string column = "v", double parameter = 0) {
    return {std::move(function), {std::move(column)}, parameter, ""};
}

} // namespace vask_test
