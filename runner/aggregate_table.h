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
    constexpr type_set() = default;
    template <class... Types>
    constexpr explicit type_set(Types... types) : bits_((0U | ... | bit_of(types))) {}

    constexpr bool contains(column_type type) const { return (bits_ & bit_of(type)) != 0; }
    //! The types' names with commas between.
    std::string names() const;

private:
    static constexpr std::uint32_t bit_of(column_type type) {
        return std::uint32_t{1} << static_cast<unsigned>(type);
    }
    std::uint32_t bits_ = 0;
};

//! What stands in an aggregate's brackets.
enum class argument_form {
    column,
    all_rows //!< a * for rows instead of values
};

//! How the type of a result follows from the type of the column.
enum class result_rule {
    sum,     //!< integers give lng, flt and dbl their own type
    same,    //!< that of the column
    count,   //!< lng
    quotient //!< dbl, worked out from two other aggregates
};

//! How an aggregate of a whole column finds its operator.
enum class operator_naming {
    plain,  //!< by the name as it stands
    by_type //!< the name goes on with that of the column's type
};

struct aggregate_rule {
    std::string_view name;
    argument_form arguments = argument_form::column;
    type_set accepts;
    result_rule result;
    //! The operators of a whole column and by group.
    std::string_view whole{};
    std::string_view grouped{};
    operator_naming naming = operator_naming::plain;
    //! Of a quotient: the aggregates, of the same column, that it is made of.
    std::string_view dividend{};
    std::string_view divisor{};
};

//! All rules.
std::span<const aggregate_rule> aggregate_rules();

//! The rule of that name for that form of arguments; null when there is none.
const aggregate_rule *find_aggregate(std::string_view name,
                                     argument_form arguments = argument_form::column);

//! The type of the rule's result on a column that the rule accepts.
column_type result_type(const aggregate_rule &rule, column_type column);

//! The exported name of the rule's whole-column operator for a type.
std::string whole_operator(const aggregate_rule &rule, column_type column);

} // namespace vask::runner
