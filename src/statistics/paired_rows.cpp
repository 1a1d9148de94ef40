#include "statistics/paired_rows.h"

#include "kernel/column.h"
#include "kernel/element_types.h"
#include "kernel/isa.h"

#include <algorithm>

namespace vask {

namespace {

bool is_one_byte_type_but_bte(int storage) noexcept {
    return storage == TYPE_bit || storage == TYPE_byte;
}

bool has_class(int storage) noexcept {
    return visit_storage_class(storage, false, []<class T>(std::type_identity<T>) { return true; });
}

template <class T>
void mark_nils_of(const BATcol &column, row_range block, std::uint8_t *flags) {
    const T nil = nil_of<T>(column.type);
    const BUN n = block.size();
    if (!is_array_of<T>(column)) {
        for (BUN i = 0; i < n; ++i)
            flags[i] |= element_at<T>(column, block.begin + i) == nil;
        return;
    }
    const T *elements = rows_of<const T>(column) + block.begin;
    with_best_instruction_set([=]() __attribute__((always_inline)) {
        for (BUN i = 0; i < n; ++i)
            flags[i] |= elements[i] == nil;
    });
}

} // namespace

std::optional<class_pair> class_pair_of(const BATcol &x, const BATcol &y) noexcept {
    const int sx = storage_of(x);
    const int sy = storage_of(y);
    // A void column stores nothing of which a byte could be read.
    if (is_one_byte_type_but_bte(sx) && sy != TYPE_void)
        return class_pair{TYPE_bte, TYPE_bte};
    if (!has_class(sx) || !has_class(sy) || (sx == TYPE_bte && is_one_byte_type_but_bte(sy)))
        return std::nullopt;
    return class_pair{sx, is_one_byte_type_but_bte(sy) ? int{TYPE_bte} : sy};
}

double_rows::double_rows(const BATcol &column, int storage_class) noexcept
    : column_(&column),
      convert_(converter_from<dbl>(storage_class)),
      mark_(visit_storage_class(
          storage_class, nil_marker{nullptr},
          []<class T>(std::type_identity<T>) { return nil_marker{mark_nils_of<T>}; })) {
    if (storage_class == TYPE_dbl && is_array_of<dbl>(column)) {
        convert_ = nullptr;
        rows_ = rows_of<const dbl>(column);
    }
}

void plainly_paired_rows::load(row_range block) {
    paired_rows::load(block);
    block_begin_ = block.begin;
    std::fill_n(scratch_.nil, block.size(), std::uint8_t{0});
    x_.mark_nils(block, scratch_.nil);
    y_.mark_nils(block, scratch_.nil);
}

} // namespace vask
