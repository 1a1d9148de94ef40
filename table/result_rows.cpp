#include "table/result_rows.h"

#include <cstring>
#include <utility>

namespace vask::table {
namespace {

bool bit_at(const void *bits, std::int64_t row) {
    return ((static_cast<const std::uint8_t *>(bits)[row >> 3] >> (row & 7)) & 1) != 0;
}

bool has_large_offsets(const value_type &type) {
    return type.format == "U" || type.format == "Z";
}

std::string_view text_at(const result_column &of, std::int64_t row) {
    if (has_large_offsets(of.type)) {
        const auto *const offsets = static_cast<const std::int64_t *>(of.values) + row;
        return {of.bytes + offsets[0], static_cast<std::size_t>(offsets[1] - offsets[0])};
    }
    const auto *const offsets = static_cast<const std::int32_t *>(of.values) + row;
    return {of.bytes + offsets[0], static_cast<std::size_t>(offsets[1] - offsets[0])};
}

// What a stacked column is made in.
struct stacked_memory {
    std::vector<std::uint8_t> validity;
    std::vector<std::uint8_t> values;
    std::vector<std::int64_t> offsets;
    std::string bytes;
};

void set_bit(std::vector<std::uint8_t> &bits, std::int64_t row) {
    std::uint8_t &byte = bits[static_cast<std::size_t>(row) >> 3];
    byte = static_cast<std::uint8_t>(byte | (1U << (row & 7)));
}

void put_value(stacked_memory &made, const result_column &from, std::int64_t source,
               std::int64_t row) {
    if (is_text(from.type.of)) {
        made.bytes += text_at(from, source);
    } else if (from.type.of == kind::boolean) {
        if (bit_at(from.values, source))
            set_bit(made.values, row);
    } else {
        const auto width = static_cast<std::size_t>(width_of(from.type.of));
        std::memcpy(made.values.data() + static_cast<std::size_t>(row) * width,
                    static_cast<const char *>(from.values) +
                        static_cast<std::size_t>(source) * width,
                    width);
    }
}

} // namespace

bool is_null(const result_column &of, std::int64_t row) {
    return of.type.of == kind::null || (of.validity != nullptr && !bit_at(of.validity, row));
}

std::optional<lng> integer_at(const result_column &of, std::int64_t row) {
    if (is_null(of, row))
        return std::nullopt;
    return static_cast<const lng *>(of.values)[row];
}

std::optional<double> number_at(const result_column &of, std::int64_t row) {
    if (is_null(of, row))
        return std::nullopt;
    return static_cast<const double *>(of.values)[row];
}

result_column stacked(std::string name, const value_type &type,
                      const std::vector<rows_part> &parts) {
    std::size_t rows = 0;
    for (const rows_part &part : parts)
        rows += part.rows.size();
    const auto memory = std::make_shared<stacked_memory>();
    result_column made;
    made.name = std::move(name);
    made.type = type;
    made.rows = static_cast<std::int64_t>(rows);
    memory->validity.resize(rows / 8 + 1);
    if (is_text(type.of)) {
        memory->offsets.reserve(rows + 1);
        memory->offsets.push_back(0);
    } else {
        memory->values.resize(type.of == kind::boolean
                                  ? rows / 8 + 1
                                  : rows * static_cast<std::size_t>(width_of(type.of)) + 1);
    }
    std::int64_t row = 0;
    for (const rows_part &part : parts)
        for (const std::int64_t source : part.rows) {
            if (part.from == nullptr || is_null(*part.from, source)) {
                ++made.nulls;
            } else {
                set_bit(memory->validity, row);
                put_value(*memory, *part.from, source, row);
            }
            if (is_text(type.of))
                memory->offsets.push_back(static_cast<std::int64_t>(memory->bytes.size()));
            ++row;
        }
    made.validity = made.nulls > 0 ? memory->validity.data() : nullptr;
    if (is_text(type.of)) {
        made.type.format.assign(1, type.of == kind::text ? 'U' : 'Z');
        made.values = memory->offsets.data();
        made.bytes = memory->bytes.data();
    } else {
        made.values = memory->values.data();
    }
    made.owners.push_back(memory);
    return made;
}

std::shared_ptr<const column> as_column(const result_column &of) {
    piece rows;
    rows.rows = of.rows;
    rows.validity = of.validity;
    rows.values = of.values;
    rows.bytes = of.bytes;
    rows.text_format = is_text(of.type.of) ? of.type.format.front() : '\0';
    rows.owner = std::make_shared<const std::vector<std::shared_ptr<const void>>>(of.owners);
    std::vector<piece> pieces;
    pieces.push_back(std::move(rows));
    return std::make_shared<const column>(of.name, of.type, of.rows, std::move(pieces));
}

} // namespace vask::table
