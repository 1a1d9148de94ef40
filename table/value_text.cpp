#include "table/value_text.h"

#include "table/errors.h"
#include "table/kernel_column.h"

namespace vask::table {

std::string value_text(const column &of, std::size_t row) {
    const teller silent = [](const std::string &) {};
    if (is_text(of.type().of)) {
        const std::optional<std::string_view> text = of.text_at(row, silent);
        return text ? fmt::format("'{}'", shown(*text)) : "null";
    }
    const numbers &all = of.as_numbers(false, silent);
    return visit_values(all.values, [&]<class T>(std::span<const T> values) -> std::string {
        const T value = values[row];
        const bool missing = all.beyond ? !all.present.empty() && all.present[row] == 0
                                        : value == refkernel::nil_of<T>();
        if (missing)
            return "null";
        if (of.type().of == kind::boolean)
            return value != T{0} ? "true" : "false";
        if (of.type().of == kind::uint64)
            return fmt::format("{}", static_cast<std::uint64_t>(value));
        if constexpr (sizeof(T) == 1)
            return fmt::format("{}", static_cast<int>(value));
        else
            return fmt::format("{}", value);
    });
}

} // namespace vask::table
