#include "grouping/pairs/derive_mask.h"

#include "grouping/table/custom_mask.h"
#include "kernel/column.h"
#include "kernel/frame.h"

#include <bit>

namespace vask {

namespace {

constexpr BUN smallest_sampled = 8192;
constexpr BUN sample_rows = 1024;

//! How many pairs the whole column has, from the sizes of the groups in the refined sample: each of
//! them stands for the more groups the fewer of its rows were drawn. Kept in 32 bits.
std::uint32_t estimate_pairs(const BAT &histogram, BUN rows) {
    // Damps the groups of a single row, of which a sample of nearly unique values is full.
    constexpr wrd damping = 4;
    const double rows_per_sampled = rows * (1.0 / sample_rows);
    const wrd *sizes = rows_of<const wrd>(*histogram.tail);
    std::uint32_t pairs = 0;
    for (BUN p = histogram.info->first; p < end_position(histogram); ++p)
        pairs +=
            static_cast<std::uint32_t>(rows_per_sampled / static_cast<double>(sizes[p] + damping));
    return pairs;
}

//! Drops the fetched reference of a BAT that GRPderive handed out, and the one it came with.
void drop(std::int32_t id) {
    BBPreleaseref(id);
    BBPdecref(id, 1);
}

} // namespace

std::uint32_t vask_derive_mask(BAT *map, BAT *histo, BAT *b) {
    const std::uint32_t groups = histo->info->count;
    const std::uint32_t base = covering_mask(groups);
    if (b->info->count <= smallest_sampled)
        return base;

    BAT *sample = BATsample(b, sample_rows);
    if (sample == nullptr)
        return 0;
    std::int32_t histogram_id = int_nil;
    std::int32_t map_id = int_nil;
    // A BAT's number is its record's first field, so its address is that of a number variable.
    char *const failed =
        GRPderive(&histogram_id, &map_id, &histo->bat_id, &map->bat_id, &sample->bat_id);
    BAT *histogram = failed == nullptr ? vask_descriptor(histogram_id) : nullptr;
    const BAT *refined = histogram != nullptr ? vask_descriptor(map_id) : nullptr;
    if (refined == nullptr) {
        if (histogram != nullptr)
            BBPreleaseref(histogram_id);
        BBPdecref(sample->bat_id, 0);
        if (failed == nullptr) {
            BBPdecref(histogram_id, 1);
            BBPdecref(map_id, 1);
        } else {
            GDKfree(failed);
        }
        return 0;
    }
    BBPdecref(sample->bat_id, 0);

    BATaccess(histogram, 2, 0, 1);
    std::uint32_t pairs = estimate_pairs(*histogram, b->info->count);
    BATaccess(histogram, 2, 0, -1);
    drop(histogram_id);
    drop(map_id);
    if (pairs == 0)
        pairs = groups;
    return pairs == 0 || std::bit_width(pairs) <= std::bit_width(groups) ? base
                                                                         : covering_mask(pairs);
}

} // namespace vask
