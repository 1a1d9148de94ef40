#include "kernel/frame.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace vask {

namespace {

std::uint32_t absolute(std::int32_t id) noexcept {
    const auto bits = static_cast<std::uint32_t>(id);
    return id < 0 ? 0U - bits : bits;
}

const BBPrec &pool_record(std::int32_t id) noexcept {
    const std::uint32_t n = absolute(id);
    return BBParr[n >> 16][n & 0xffff];
}

//! Whether the number names a BAT in the pool. 0 and int_nil stand for "no BAT" and say nothing;
//! any other bad number is traced under `caller` on request.
bool is_in_pool(std::int32_t id, const char *caller) {
    if (id == 0 || id == int_nil)
        return false;
    if (static_cast<std::int64_t>(absolute(id)) < published(BBPsize) &&
        published(pool_record(id).logical_name) != nullptr)
        return true;
    if (GDKdebug & DEBUG_RANGE_ERROR)
        THRprintf(THRgetdata(0), "#%s: range error %d\n", caller, static_cast<int>(id));
    return false;
}

std::uint64_t sign_extended(std::int32_t setting) noexcept {
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(setting));
}

} // namespace

void tell_plan(const char *format, ...) {
    if ((GDKdebug & DEBUG_PLAN) == 0)
        return;
    constexpr std::size_t longest = 200;
    std::array<char, longest> text;
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    THRprintf(THRgetdata(0), "#plan: %s\n", text.data());
}

BAT *vask_descriptor(std::int32_t id) {
    if (!is_in_pool(id, "BATdescriptor"))
        return nullptr;
    const int valid = BBPincref(id, 0);
    const BBPrec &record = pool_record(id);
    BAT *b = published(id > 0 ? record.desc : record.desc_mirror);
    if (b == nullptr && valid != 0)
        b = BBPdescriptor(id);
    return b;
}

const char *vask_bat_name(std::int32_t id) {
    if (!is_in_pool(id, "BBPname"))
        return "";
    const BBPrec &record = pool_record(id);
    const char *mirror_name = id < 0 ? published(record.mirror_name) : nullptr;
    return mirror_name != nullptr ? mirror_name : published(record.logical_name);
}

BAT *mirror_of(const BAT &b) noexcept {
    const BBPrec &record = pool_record(b.bat_id);
    return published(b.bat_id > 0 ? record.desc_mirror : record.desc);
}

std::uint64_t partition_count(BUN rows) {
    const std::uint64_t smallest_part = sign_extended(GDKmin_part_size);
    const std::uint64_t threads = sign_extended(GDKnr_threads);
    std::uint64_t count = 1;
    if (rows > smallest_part) {
        const std::uint64_t allowed =
            sign_extended(GDKpart_size_div) * std::max<std::uint64_t>(threads, 1);
        count = std::min({allowed, rows / smallest_part, max_partitions});
    }
    const std::uint64_t parts = std::min(count, threads);
    tell_plan("%u partition%s", static_cast<unsigned>(parts), parts == 1 ? "" : "s");
    return parts;
}

void freeze(BAT &b) noexcept {
    if (b.state->access == ACCESS_WRITABLE)
        b.state->access = ACCESS_READ;
}

BAT *seal(BAT *b) {
    // The upper of the two access bits alone decides: a frozen BAT is still sealed by the kernel.
    constexpr unsigned upper_bit = 2;
    return (b->state->access & upper_bit) ? b : BATsetaccess(b, ACCESS_READ);
}

bool hand_over_sealed(std::int32_t *result, BAT *b) {
    BAT *sealed = seal(b);
    if (sealed == nullptr) {
        BBPreclaim(b);
        return false;
    }
    hand_over(result, *sealed);
    return true;
}

void mark_nonil_unsorted(BATcol &column) noexcept {
    column.nonil = 1;
    column.nil = 0;
    column.sorted = 0;
}

void mark_unordered(BATcol &column) noexcept {
    column.sorted = 0;
    column.dense = 0;
    column.nonil = 0;
}

void mark_nil(BATcol &column) noexcept {
    column.nonil = 0;
    column.nil = 1;
}

void vask_grp_result_view(BAT **result, BAT *e, marked place) {
    BAT *fresh = *result;
    BATsetcount(fresh, e->info->count);
    freeze(*fresh);
    if (place == marked::before_view)
        mark_nonil_unsorted(*fresh->tail);
    BAT *view = VIEWcreate(e, fresh);
    BBPreleaseref(fresh->bat_id);
    *result = view;
    if (view == nullptr)
        return;
    ALIGNsetH(view, e);
    if (place == marked::in_view)
        mark_nonil_unsorted(*view->tail);
}

} // namespace vask
