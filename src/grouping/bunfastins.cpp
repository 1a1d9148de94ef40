#include "grouping/bunfastins.h"

#include "kernel/column.h"

#include <cstring>

namespace vask {

namespace {

char *element_place(const BATcol &column, BUN position) noexcept {
    return static_cast<char *>(column.base) + (static_cast<std::size_t>(position) << column.shift);
}

//! What a column stores of an offset: less the bias while it is narrow.
std::uint32_t stored_offset(const BATcol &column, std::uint32_t offset) noexcept {
    return column.width < 3 ? offset - narrow_offset_bias : offset;
}

bool offset_fits(const BATcol &column, std::uint32_t offset) noexcept {
    return std::uint64_t{stored_offset(column, offset)} < std::uint64_t{1} << (8 * column.width);
}

bool append_text(BATcol &column, BUN position, const void *value) {
    std::uint32_t offset = 0;
    if (BATatoms[column.type].atom_put(column.vheap, &offset, value, &column) == 0)
        return false;
    if (!offset_fits(column, offset) && GDKupgradevarheap(&column, offset, 0) == 0)
        return false;
    // Little-endian machines only: the low bytes of the offset are its narrow forms.
    const std::uint32_t stored = stored_offset(column, offset);
    std::memcpy(element_place(column, position), &stored, static_cast<std::size_t>(column.width));
    return true;
}

bool append_value(BATcol &column, BUN position, const void *value) {
    column.free += static_cast<std::uint64_t>(column.width);
    if (column.type == TYPE_void)
        return true;
    if (column.varsized)
        return append_text(column, position, value);
    const BATatom &atom = BATatoms[column.type];
    char *place = element_place(column, position);
    if (atom.atom_put != nullptr)
        return atom.atom_put(column.vheap, place, value, &column) != 0;
    if (atom.atom_fix != nullptr)
        atom.atom_fix(value);
    std::memcpy(place, value, static_cast<std::size_t>(atom.atom_size));
    return true;
}

} // namespace

void record_bat_too_large() {
    GDKerror("bunfastins: bat too large\n");
}

bool vask_make_room(BAT &b) {
    const BUN position = end_position(b);
    if (position == last_position || b.info->count == last_position) {
        record_bat_too_large();
        return false;
    }
    return position < b.info->capacity || BATextend(&b, BATgrows(&b)) != nullptr;
}

bool vask_bunfastins(BAT &b, const void *head_value, const void *tail_value) {
    if (!vask_make_room(b))
        return false;
    const BUN position = end_position(b);
    if (!append_value(*b.head, position, head_value) ||
        !append_value(*b.tail, position, tail_value))
        return false;
    ++b.info->count;
    return true;
}

} // namespace vask
