#include "column_cells.h"

#include "kernel/column.h"
#include "table/element_types.h"

#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

namespace vask::runner {
namespace {

// Cells show numbers in three widths.
result_cell shown_as(truth value) {
    return value;
}
result_cell shown_as(timestamp value) {
    return value;
}
result_cell shown_as(calendar_date value) {
    return timestamp{value.microseconds};
}
result_cell shown_as(flt value) {
    return value;
}
result_cell shown_as(dbl value) {
    return value;
}
template <std::integral Integer>
result_cell shown_as(Integer value) {
    return static_cast<std::int64_t>(value);
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
    const char *const base = static_cast<const char *>(b.tail->base);
    return [base, first, shift = b.tail->shift, type](std::size_t row) {
        return cell_at(base + ((first + row) << shift), type);
    };
}

std::function<result_cell(std::size_t)> cells_of(const table_column &column) {
    if (column.type != column_type::str)
        return cells_of(column.values, column.type);
    return [codes = column.values.values<std::int32_t>(),
            &words = column.words->words](std::size_t row) -> result_cell {
        if (codes[row] == refkernel::nil_of<std::int32_t>())
            return std::monostate{};
        return words[static_cast<std::size_t>(codes[row])];
    };
}

std::function<result_cell(std::size_t)> cells_of(table::result_column column) {
    const auto held = std::make_shared<const table::result_column>(std::move(column));
    const auto bit_at = [](const void *bits, std::size_t row) {
        return ((static_cast<const std::uint8_t *>(bits)[row >> 3] >> (row & 7)) & 1) != 0;
    };
    const auto with_missing = [&](const auto &value_at) -> std::function<result_cell(std::size_t)> {
        return [held, bit_at, value_at](std::size_t row) -> result_cell {
            if (held->validity != nullptr && !bit_at(held->validity, row))
                return std::monostate{};
            return value_at(row);
        };
    };
    const void *const values = held->values;
    if (held->type.of == table::kind::boolean)
        return with_missing([bit_at, values](std::size_t row) -> result_cell {
            return truth{static_cast<bit>(bit_at(values, row))};
        });
    if (table::is_text(held->type.of)) {
        const auto texts = [&]<class Offset>(std::type_identity<Offset>) {
            return with_missing([offsets = static_cast<const Offset *>(values),
                                 bytes = held->bytes](std::size_t row) -> result_cell {
                return std::string_view(bytes + offsets[row],
                                        static_cast<std::size_t>(offsets[row + 1] - offsets[row]));
            });
        };
        if (held->type.format == "U")
            return texts(std::type_identity<std::int64_t>{});
        return texts(std::type_identity<std::int32_t>{});
    }
    // Spans of time are shown in seconds.
    if (held->type.of == table::kind::duration)
        return with_missing([values](std::size_t row) -> result_cell {
            constexpr double microseconds = 1e6;
            return static_cast<double>(static_cast<const lng *>(values)[row]) / microseconds;
        });
    if (held->type.of == table::kind::timestamp)
        return with_missing([values](std::size_t row) -> result_cell {
            return static_cast<const timestamp *>(values)[row];
        });
    if (!table::is_number(held->type.of) || held->type.of == table::kind::decimal)
        throw std::logic_error("a result of type " + name_of(held->type));
    return table::visit_elements(held->type.of, [&]<class T>(std::type_identity<T>) {
        return with_missing([values](std::size_t row) -> result_cell {
            return shown_as(static_cast<const T *>(values)[row]);
        });
    });
}

} // namespace vask::runner
