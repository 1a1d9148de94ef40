#include "column_cells.h"

#include "kernel/column.h"

#include <cstring>

namespace vask::runner {
namespace {

// Cells show numbers in three widths.
result_cell shown_as(truth value) {
    return value;
}
result_cell shown_as(timestamp value) {
    return value;
}
result_cell shown_as(flt value) {
    return value;
}
result_cell shown_as(dbl value) {
    return value;
}
template <std::integral Integer>
result_cell shown_as(Integer value) {
    return std::int64_t{value};
}

} // namespace

result_cell cell_at(const void *value, column_type type) {
    return visit_cell_type(type, [&]<class T>(std::type_identity<T>) -> result_cell {
        if (std::memcmp(value, BATatoms[type_code(type)].atom_null, sizeof(T)) == 0)
            return std::monostate{};
        T read;
        std::memcpy(&read, value, sizeof read);
        return shown_as(read);
    });
}

std::function<result_cell(std::size_t)> cells_of(const refkernel::bat &column, column_type type) {
    const BAT &b = *column.record();
    const BUN first = b.info->first;
    if (type == column_type::str) {
        const char *const nil = static_cast<const char *>(BATatoms[TYPE_str].atom_null);
        return [texts = text_reader(*b.tail), first, nil](std::size_t row) -> result_cell {
            const char *const text = texts[first + static_cast<BUN>(row)];
            if (std::strcmp(text, nil) == 0)
                return std::monostate{};
            return std::string_view(text);
        };
    }
    const char *const base = static_cast<const char *>(b.tail->base);
    return [base, first, shift = b.tail->shift, type](std::size_t row) {
        return cell_at(base + ((first + row) << shift), type);
    };
}

} // namespace vask::runner
