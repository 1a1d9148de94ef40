#include "rows/row_ranges.h"

#include <algorithm>

namespace vask {

std::uint32_t vask_range_count(const BAT &b) noexcept {
    return std::min(b.info->count, static_cast<std::uint32_t>(GDKnr_threads));
}

gdk_vector<vask_row_range> vask_row_ranges(const BAT &b, std::uint32_t ranges) {
    gdk_vector<vask_row_range> result;
    if (ranges == 0)
        return result;
    result.reserve(ranges);
    const BUN chunk = b.info->count / ranges;
    for (std::uint32_t i = 0; i < ranges; ++i) {
        const BUN low = b.info->first + i * chunk;
        const BUN high = i + 1 == ranges ? b.info->first - 1 + b.info->count : low + chunk - 1;
        result.push_back({low, high});
    }
    return result;
}

} // namespace vask
