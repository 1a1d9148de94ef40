#include "statistics/paired_rows.h"

#include "kernel/column.h"
#include "kernel/element_types.h"
#include "rows/isa.h"

#include <algorithm>

namespace vask {

namespace {

bool is_one_byte_type_but_bte(int storage) noexcept {
    return storage == TYPE_bit || storage == TYPE_byte;
}

//! Most blocks hold no nil, so they are counted first: that needs no flags.
template <class T>
VASK_ALWAYS_INLINE bool mark_elements(const T *elements, T nil, std::size_t n,
                                      std::uint8_t *__restrict flags) noexcept {
    // At the width of the elements, if they are wide, a vector holds as many of both.
    std::conditional_t<sizeof(T) == 8, std::uint64_t, std::uint32_t> nils = 0;
    for (std::size_t i = 0; i < n; ++i)
        nils |= elements[i] == nil;
    if (nils == 0)
        return false;
    for (std::size_t i = 0; i < n; ++i)
        flags[i] = static_cast<std::uint8_t>(flags[i] | (elements[i] == nil));
    return true;
}

template <class T>
bool mark_nils_of(const BATcol &column, vask_row_range block, std::uint8_t *flags) {
    const T nil = nil_of<T>(column.type);
    const std::size_t n = block.size();
    if (!is_array_of<T>(column)) {
        for (BUN i = 0; i < n; ++i)
            flags[i] |= element_at<T>(column, block.begin + i) == nil;
        return true;
    }
    const T *elements = rows_of<const T>(column) + block.begin;
    return with_best_instruction_set([=]() __attribute__((always_inline)) {
        return mark_elements(elements, nil, n, flags);
    });
}

} // namespace

std::optional<class_pair> class_pair_of(const BATcol &x, const BATcol &y) noexcept {
    const int sx = storage_of(x);
    const int sy = storage_of(y);
    // A void column stores nothing of which a byte could be read.
    if (is_one_byte_type_but_bte(sx) && sy != TYPE_void)
        return class_pair{TYPE_bte, TYPE_bte};
    if (!has_storage_class(sx) || !has_storage_class(sy) ||
        (sx == TYPE_bte && is_one_byte_type_but_bte(sy)))
        return std::nullopt;
    return class_pair{sx, is_one_byte_type_but_bte(sy) ? int{TYPE_bte} : sy};
}

double_rows::double_rows(const BATcol &column, int storage_class) noexcept
    : column_(&column),
      convert_(converter_from<dbl>(storage_class)),
      mark_(visit_storage_class(
          storage_class, nil_marker{nullptr},
          []<class T>(std::type_identity<T>) { return nil_marker{mark_nils_of<T>}; })),
      are_integers_(storage_class != TYPE_flt && storage_class != TYPE_dbl) {
    if (storage_class == TYPE_dbl && is_array_of<dbl>(column)) {
        convert_ = nullptr;
        rows_ = rows_of<const dbl>(column);
    }
}

void plainly_paired_rows::load(vask_row_range block) {
    paired_rows::load(block);
    block_ = block;
    room &block_room = *scratch_;
    if (block_room.has_nils)
        std::fill_n(block_room.nil, scan_block_rows, std::uint8_t{0});
    const bool in_x = x_.mark_nils(block, block_room.nil);
    const bool in_y = y_.mark_nils(block, block_room.nil);
    block_room.has_nils = in_x || in_y;
}

BUN plainly_paired_rows::nils() const noexcept {
    const room &block_room = *scratch_;
    return block_room.has_nils
               ? static_cast<BUN>(std::count(block_room.nil, block_room.nil + block_.size(), 1))
               : 0;
}

} // namespace vask
