// The aggregates as the command names them: the table library's functions, count(*) for the groups'
// rows, and names with percent.
#pragma once

#include "cell_values.h"

#include "table/functions.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vask::runner {

//! A set of column types.
class type_set {
public:
    constexpr type_set() = default;
    template <class... Types>
    constexpr explicit type_set(Types... types) : bits_((0U | ... | bit_of(types))) {}

    constexpr bool contains(column_type type) const { return (bits_ & bit_of(type)) != 0; }
    constexpr void add(column_type type) { bits_ |= bit_of(type); }
    //! The types' names with commas between.
    std::string names() const;

private:
    static constexpr std::uint32_t bit_of(column_type type) {
        return std::uint32_t{1} << static_cast<unsigned>(type);
    }
    std::uint32_t bits_ = 0;
};

struct named_aggregate {
    const table::function_rule *rule = nullptr;
    std::optional<double> parameter{}; //!< that came with the name
    bool takes_percent = false;        //!< the name may go on with :P, a parameter in percent
};

//! The aggregate of that name, for columns or, if `all_rows`, for rows; nothing without one.
std::optional<named_aggregate> find_aggregate(std::string_view name, bool all_rows);

//! How a call under that name is written, as in quartile(x,q).
std::string usage_of(const named_aggregate &aggregate, std::string_view name);

//! What an aggregate's parameter must be, as in "q is 0, 1, 2, 3 or 4".
std::string meaning_of(const table::parameter_rule &parameter);

//! The types of columns that an aggregate takes.
type_set types_of(const table::function_rule &rule);

//! All names that stand before a column.
std::vector<std::string> aggregate_names();

//! All aggregates and aliases, a few lines by family, for the help.
std::string aggregate_overview();

} // namespace vask::runner
