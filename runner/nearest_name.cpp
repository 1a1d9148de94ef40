#include "nearest_name.h"

#include "name_list.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>

namespace vask::runner {
namespace {

// Single-character edits that turn one name into the other.
std::size_t edit_distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

} // namespace

std::optional<std::string> nearest_name(const std::vector<std::string> &names,
                                        std::string_view wanted) {
    // About one letter in three may be wrong: any short name is close to any other.
    const std::size_t most = std::min<std::size_t>(wanted.size() / 3, 2);
    std::optional<std::string> nearest;
    // Of equally near ones the name of about as many letters: medain is median, not mean.
    std::pair<std::size_t, std::size_t> least{most, wanted.size() + most + 1};
    for (const std::string &name : names) {
        const std::size_t longer = std::max(name.size(), wanted.size());
        const std::pair<std::size_t, std::size_t> own{edit_distance(lower(name), lower(wanted)),
                                                      longer -
                                                          std::min(name.size(), wanted.size())};
        if (own >= least)
            continue;
        least = own;
        nearest = name;
    }
    return nearest;
}

} // namespace vask::runner
