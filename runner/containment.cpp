#include "containment.h"

#include "operator_calls.h"
#include "user_error.h"

#include <algorithm>
#include <array>
#include <concepts>
#include <cstdint>
#include <utility>
#include <vector>

namespace vask::runner {
namespace {

using refkernel::bat;

void require_whole_numbers(const named_column &asked, const std::string &looked_up) {
    constexpr std::array whole{column_type::bte, column_type::sht, column_type::int_,
                               column_type::lng};
    if (std::find(whole.begin(), whole.end(), asked.column.type) == whole.end())
        fail("--contained-in: {} is {}; only columns of whole numbers can be looked up{}",
             asked.name, name_of(asked.column.type),
             asked.column.type == column_type::str
                 ? fmt::format(". Numbers with leading zeros count as text: if they are numbers, "
                               "give --types '{}:int', which goes for them in both files",
                               looked_up)
                 : "");
}

// Values that 32 bits do not hold become missing: they occur in no column of 32 bits either.
bat as_int(const table_column &column) {
    if (column.type == column_type::int_)
        return bat::share(column.values.id());
    return visit_cell_type(column.type, [&]<class T>(std::type_identity<T>) {
        std::vector<std::int32_t> result;
        if constexpr (std::integral<T>) {
            result.reserve(column.values.count());
            for (const T value : column.values.values<T>())
                result.push_back(value != refkernel::nil_of<T>() &&
                                         std::in_range<std::int32_t>(value)
                                     ? static_cast<std::int32_t>(value)
                                     : int_nil);
        }
        return refkernel::make_column(std::move(result));
    });
}

} // namespace

table_column contained_in(const named_column &left, const named_column &right,
                          const std::string &looked_up, const operator_library &operators,
                          const explain_log &explain) {
    require_whole_numbers(left, looked_up);
    require_whole_numbers(right, looked_up);
    if (left.column.type == column_type::lng && right.column.type == column_type::lng)
        fail(
            "--contained-in: {} and {} both hold numbers beyond 32 bits, which cannot be looked up",
            left.name, right.name);
    const bat values = as_int(left.column);
    const bat other = as_int(right.column);
    std::vector<bte> contained(values.count(), 0);
    // The operator divides the other column among the threads and traps when it is empty.
    if (other.count() > 0) {
        const std::string name = "vaskops_are_bat_indexes_contained";
        std::int32_t id = int_nil;
        explain.timed(name, left.name + ", " + right.name, values.count(), [&] {
            call_operator(operators, name, &id, std::array{values.slot(), other.slot()});
        });
        const bat mask = bat::adopt(id);
        const auto found = mask.values<bit>();
        const auto asked = values.values<std::int32_t>();
        // To the operator, missing values are equal to each other.
        for (BUN row = 0; row < found.size(); ++row)
            contained[row] = static_cast<bte>(asked[row] != int_nil && found[row] != 0);
    }
    table_column result;
    result.type = column_type::bte;
    result.values = refkernel::make_column(std::move(contained), {.tail = {.nonil = true}});
    return result;
}

} // namespace vask::runner
