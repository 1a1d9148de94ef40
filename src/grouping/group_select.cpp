#include "grouping/group_select.h"

#include "kernel/column.h"
#include "kernel/frame.h"

namespace vask {

namespace {

//! Drops the fetched and the creator's reference of a BAT that the kernel made for us.
void drop(std::int32_t id) {
    BBPdecref(id, 0);
    BBPdecref(id, 1);
}

vask_group_strategy serial_because(const char *reason) {
    tell_plan("serial path: %s", reason);
    return VASK_GROUP_SERIAL;
}

//! The hash path takes a column whose rows begin at position 0, for which its ranges are laid out.
vask_group_strategy hash_unless_view(const BAT &b, const char *reason) {
    if (b.info->first != 0)
        return serial_because("the rows begin above position 0");
    tell_plan("hash path: %s", reason);
    return VASK_GROUP_HASH;
}

//! The path of a column with few or many groups in its sample. The sort path finds the position of
//! a row from its oid by arithmetic, which takes a dense head of proper oids.
vask_group_strategy path_of_sample(const BAT &b, bool many_groups) {
    if (!many_groups)
        return hash_unless_view(b, "few values in a sample");
    if (!is_dense(*b.head) || b.head->seqbase == oid_nil)
        return serial_because("the rows are not numbered without gaps");
    tell_plan("sort path: many values in a sample");
    return VASK_GROUP_SORT;
}

//! Counts the groups of a sample; false when that fails. The caller reports a failure of its own.
bool count_groups(BAT *sample, BUN &groups) {
    std::int32_t histogram_id = int_nil;
    std::int32_t map_id = int_nil;
    // A BAT's number is its record's first field, so its address is that of a number variable.
    if (char *const failed = GRPgroup(&histogram_id, &map_id, &sample->bat_id)) {
        GDKfree(failed);
        return false;
    }
    BAT *histogram = vask_descriptor(histogram_id);
    if (histogram == nullptr)
        return false;
    BAT *map = vask_descriptor(map_id);
    if (map == nullptr) {
        drop(histogram_id);
        return false;
    }
    groups = histogram->info->count;
    drop(map_id);
    drop(histogram_id);
    return true;
}

} // namespace

vask_group_strategy vask_group_select(BAT *b) {
    static const std::uint32_t sample_size = GDKgroup_algo_select_sample_size;
    static const std::uint32_t vask_size = GDKgroup_algo_select_vask_size;
    static const std::uint32_t uniqueness_thresh = GDKgroup_algo_select_uniqueness_thresh;

    const BATcol &tail = *b->tail;
    if (tail.key != 0)
        return serial_because("the values are marked as unique");
    if (b->info->count <= vask_size)
        return serial_because("few rows");
    // By type and not by storage: a user atom that is stored as text is sampled.
    if (tail.type == TYPE_str)
        return hash_unless_view(*b, "text");
    // One thread gains nothing over the serial operator, but on floats.
    if (GDKnr_threads == 1 && tail.type != TYPE_flt && tail.type != TYPE_dbl)
        return serial_because("one thread");

    BAT *sample = BATsample(b, sample_size);
    if (sample == nullptr)
        return VASK_GROUP_FAILED;
    BUN groups = 0;
    const vask_group_strategy path = count_groups(sample, groups)
                                         ? path_of_sample(*b, groups > uniqueness_thresh)
                                         : VASK_GROUP_FAILED;
    BBPreclaim(sample);
    return path;
}

} // namespace vask
