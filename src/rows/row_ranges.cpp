#include "rows/row_ranges.h"

#include "kernel/frame.h"

#include <algorithm>

namespace vask {

std::uint32_t vask_range_count(const BAT &b) noexcept {
    return std::min(b.info->count, static_cast<std::uint32_t>(GDKnr_threads));
}

void tell_ranges(const BAT &b) {
    const std::uint32_t ranges = vask_range_count(b);
    tell_plan("%u range%s", ranges, ranges == 1 ? "" : "s");
}

gdk_vector<vask_row_range> vask_row_ranges(const BAT &b, std::uint32_t ranges) {
    gdk_vector<vask_row_range> result;
    if (ranges == 0)
        return result;
    result.reserve(ranges);
    const BUN chunk = b.info->count / ranges;
    for (std::uint32_t i = 0; i < ranges; ++i) {
        const BUN begin = b.info->first + i * chunk;
        result.push_back({begin, i + 1 == ranges ? b.info->first + b.info->count : begin + chunk});
    }
    return result;
}

} // namespace vask
