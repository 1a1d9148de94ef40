#include "table_columns.h"

#include "table/kernel_column.h"

#include <utility>

namespace vask::runner {
namespace {

using refkernel::bat;

// Truth values and timestamps are user types of the kernel, stored as integers: queries take those.
bat plain_values(const table_column &loaded) {
    const refkernel::column_marks marks{.nil = loaded.missing > 0, .nonil = loaded.missing == 0};
    switch (loaded.type) {
        case column_type::bit: {
            const auto values = loaded.values.values<bte>();
            return table::borrowed_column(values.data(), values.size(), marks);
        }
        case column_type::date:
        case column_type::timestamp: {
            const auto values = loaded.values.values<lng>();
            return table::borrowed_column(values.data(), values.size(), marks);
        }
        default:
            return bat::share(loaded.values.id());
    }
}

} // namespace

table::value_type value_type_of(column_type type) {
    using enum table::kind;
    switch (type) {
        case column_type::bit:
            return table::plain_type(boolean);
        case column_type::bte:
            return table::plain_type(int8);
        case column_type::sht:
            return table::plain_type(int16);
        case column_type::int_:
            return table::plain_type(int32);
        case column_type::lng:
            return table::plain_type(int64);
        case column_type::flt:
            return table::plain_type(float32);
        case column_type::dbl:
            return table::plain_type(float64);
        case column_type::str:
            return table::plain_type(text);
        case column_type::date:
        case column_type::timestamp:
            break;
    }
    return {timestamp, "tsu:"};
}

std::shared_ptr<const table::column> as_table_column(std::string name, const table_column &loaded) {
    if (loaded.type == column_type::str) {
        table::texts encoded;
        encoded.codes = bat::share(loaded.values.id());
        encoded.missing = loaded.missing;
        encoded.words = loaded.words->words;
        encoded.held = loaded.words;
        return std::make_shared<const table::column>(std::move(name), std::move(encoded));
    }
    return std::make_shared<const table::column>(std::move(name), value_type_of(loaded.type),
                                                 plain_values(loaded), loaded.missing);
}

} // namespace vask::runner
