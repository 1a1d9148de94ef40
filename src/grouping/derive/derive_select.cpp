#include "grouping/derive/derive_select.h"

#include "kernel/frame.h"

#include <bit>

namespace vask {

namespace {

// Fewer rows are refined sooner by one thread.
constexpr BUN smallest_parallel = 8192;
constexpr BUN sample_rows = 1024;

// The limits, as the exact floats that they are compared with: 0.3 old groups per row, above which
// there is nothing to share out, and 0.0005 (old groups times the sample's values) per row, above
// which pairs are too many for tables of them.
constexpr float most_groups_per_row = std::bit_cast<float>(0x3e99999aU);
constexpr float most_pairs_per_row = std::bit_cast<float>(0x3a03126fU);

vask_derive_strategy serial_because(const char *reason) {
    tell_plan("serial path: %s", reason);
    return VASK_DERIVE_SERIAL;
}

} // namespace

vask_derive_strategy vask_derive_select(BAT *b, const BAT *map, const BAT *histo) {
    const BUN rows = map->info->count;
    const BUN groups = histo->info->count;
    if (b->info->count < smallest_parallel || rows == 0 || groups == 0)
        return serial_because("few rows");
    if (GDKnr_threads < 2)
        return serial_because("one thread");

    BAT *sample = BATsample(b, sample_rows);
    if (sample == nullptr)
        return VASK_DERIVE_FAILED;
    std::int32_t histogram_id = int_nil;
    std::int32_t map_id = int_nil;
    // A call that fails leaves int_nil, which cannot be fetched. A BAT's number is its record's
    // first field, so its address is that of a number variable.
    if (char *const failed = GRPgroup(&histogram_id, &map_id, &sample->bat_id))
        GDKfree(failed);
    const BAT *histogram = vask_descriptor(histogram_id);
    if (histogram == nullptr) {
        BBPreclaim(sample);
        return VASK_DERIVE_FAILED;
    }
    const BUN distinct = histogram->info->count;
    BBPreclaim(sample);
    BBPreleaseref(histogram_id);
    BBPdecref(histogram_id, 1);
    BBPdecref(map_id, 1);

    const float ratio = static_cast<float>(groups) / static_cast<float>(rows);
    if (ratio >= most_groups_per_row)
        return serial_because("many groups before");
    const bool many_pairs = static_cast<float>(distinct) * ratio > most_pairs_per_row;
    tell_plan("%s path: %u groups before and %s values in a sample",
              many_pairs ? "buckets" : "pairs", groups, many_pairs ? "many" : "few");
    return many_pairs ? VASK_DERIVE_BUCKETS : VASK_DERIVE_PAIRS;
}

} // namespace vask
