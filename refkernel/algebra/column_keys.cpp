#include "refkernel/algebra/column_keys.h"

#include "refkernel/algebra/held_bats.h"
#include "refkernel/algebra/text_groups.h"
#include "refkernel/algebra/value_span.h"
#include "refkernel/columns.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <type_traits>

namespace refkernel::algebra {
namespace {

// A look at this many rows across a large column tells most columns of a wide range apart without
// reading them whole.
constexpr BUN rows_of_first_look = 256;

// Calls `f` with the rows as a pointer to their unsigned type.
template <class F>
auto visit_rows(number_rows rows, F f) {
    switch (rows.width) {
        case 1:
            return f(static_cast<const std::uint8_t *>(rows.base));
        case 2:
            return f(static_cast<const std::uint16_t *>(rows.base));
        case 4:
            return f(static_cast<const std::uint32_t *>(rows.base));
        default:
            return f(static_cast<const std::uint64_t *>(rows.base));
    }
}

key_loader load_keys(number_rows rows) {
    return visit_rows(rows, [](const auto *values) -> key_loader {
        return [values](BUN row, unsigned count, std::uint64_t *keys) {
            std::copy_n(values + row, count, keys);
        };
    });
}

template <class T>
std::optional<index_range> range_of(const void *base, BUN rows, std::optional<T> nil,
                                    std::uint64_t max_bound) {
    const T *const values = static_cast<const T *>(base);
    // Two more than the distance: one for both ends being in, one for the nil.
    const auto too_wide = [max_bound](const value_span<T> &span) {
        return !span.empty() && (max_bound < 2 || span.distance() > max_bound - 2);
    };
    if (rows > 64 * rows_of_first_look &&
        too_wide(span_of(values, rows, rows / rows_of_first_look, nil)))
        return std::nullopt;
    const value_span<T> span = span_of(values, rows, BUN{1}, nil);
    if (too_wide(span))
        return std::nullopt;
    if (span.empty())
        return index_range{0, 0};
    // Cut to the width of the elements, in which the loading subtracts it.
    const auto low = static_cast<std::make_unsigned_t<T>>(span.least);
    return index_range{low, static_cast<std::uint32_t>(span.distance() + 1)};
}

template <class T>
std::optional<index_range> signed_range_of(const void *base, BUN rows, int type,
                                           std::uint64_t max_bound) {
    T nil;
    std::memcpy(&nil, BATatoms[type].atom_null, sizeof nil);
    return range_of<T>(base, rows, nil, max_bound);
}

std::optional<index_range> range_of_column(const BATcol &column, const void *base, BUN rows,
                                           std::uint64_t max_bound) {
    if (column.varsized) {
        switch (column.width) {
            case 1:
                return range_of<std::uint8_t>(base, rows, std::nullopt, max_bound);
            case 2:
                return range_of<std::uint16_t>(base, rows, std::nullopt, max_bound);
            default:
                return range_of<std::uint32_t>(base, rows, std::nullopt, max_bound);
        }
    }
    switch (BATatoms[column.type].atom_storage) {
        case TYPE_bit:
        case TYPE_byte:
        case TYPE_bte:
            // Not worth a look: the table is small whatever the values are.
            return index_range{0, std::numeric_limits<std::uint8_t>::max()};
        case TYPE_sht:
            return signed_range_of<sht>(base, rows, column.type, max_bound);
        case TYPE_int:
        case TYPE_oid:
            return signed_range_of<std::int32_t>(base, rows, column.type, max_bound);
        case TYPE_wrd:
        case TYPE_lng:
            return signed_range_of<lng>(base, rows, column.type, max_bound);
        case TYPE_flt:
            // The bits of near values lie far apart, but they are a range of 32 bits.
            if (max_bound == widest_bound)
                return index_range{0, std::numeric_limits<std::uint32_t>::max()};
            return std::nullopt;
        default:
            return std::nullopt;
    }
}

} // namespace

void require_groupable_tail(const BAT &b) {
    const BATcol &tail = *b.tail;
    const bool has_key_width =
        tail.width == 1 || tail.width == 2 || tail.width == 4 || tail.width == 8;
    if (!is_void(tail) && !has_key_width)
        throw failure("tail type cannot be grouped");
}

index_loader load_indices(number_rows rows, index_range range) {
    return visit_rows(rows, [range](const auto *values) -> index_loader {
        using number = std::remove_cvref_t<decltype(*values)>;
        const auto low = static_cast<number>(range.low);
        return [values, low, last = range.last](BUN row, unsigned count, std::uint32_t *indices) {
            // In the wider of the element's type and 32 bits, so that nothing is cut off.
            using wide = std::common_type_t<number, std::uint32_t>;
            for (unsigned i = 0; i < count; ++i) {
                const auto distance = static_cast<number>(values[row + i] - low);
                indices[i] = static_cast<std::uint32_t>(std::min<wide>(distance, wide{last}));
            }
        };
    });
}

column_keys keys_of(const BATcol &column, const BATinfo &info, std::uint64_t max_bound) {
    const number_rows rows{element_place(column, info.first), static_cast<unsigned>(column.width)};
    column_keys keys;
    keys.keys = load_keys(rows);
    if (const auto range = range_of_column(column, rows.base, info.count, max_bound)) {
        keys.has_range = true;
        keys.range = *range;
        keys.indices = load_indices(rows, *range);
    }
    if (column.varsized && !column_of(&column).heap->holds_each_once()) {
        auto texts = std::make_shared<text_groups>(column, info);
        keys.resolve = [texts](BUN row, std::uint32_t next) { return texts->find(row, next); };
        keys.same_as_previous = [texts](BUN row) { return texts->same(row - 1, row); };
    }
    return keys;
}

} // namespace refkernel::algebra
