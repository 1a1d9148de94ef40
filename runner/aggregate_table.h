// The aggregates that the command knows: one table, from which parsing, checking and calling go.
#pragma once

#include "cell_values.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace vask::runner {

//! A set of column types.
class type_set {
public:
    template <class... Types>
    constexpr explicit type_set(Types... types) : bits_((0U | ... | bit_of(types))) {}

    constexpr bool contains(column_type type) const { return (bits_ & bit_of(type)) != 0; }
    //! The types' names with commas between.
    std::string names() const;

private:
    static constexpr std::uint32_t bit_of(column_type type) {
        return std::uint32_t{1} << static_cast<unsigned>(type);
    }
    std::uint32_t bits_;
};

//! What an aggregate stands on in its brackets.
enum class argument_form { column };

//! How the type of a result follows from the type of the column.
enum class result_rule {
    sum //!< integers give lng, flt and dbl their own type
};

struct aggregate_rule {
    std::string_view name;
    argument_form arguments;
    type_set accepts;
    result_rule result;
    //! The operator of a whole column; its name goes on with that of the column's type.
    std::string_view whole_by_type;
    //! The operator that works by group.
    std::string_view grouped;
    std::string_view summary; //!< for messages: what it computes
};

//! All rules.
std::span<const aggregate_rule> aggregate_rules();

//! The rule of that name; null when there is none.
const aggregate_rule *find_aggregate(std::string_view name);

//! The type of the rule's result on a column that the rule accepts.
column_type result_type(const aggregate_rule &rule, column_type column);

//! The exported name of the rule's whole-column operator for a type.
std::string whole_operator(const aggregate_rule &rule, column_type column);

} // namespace vask::runner
