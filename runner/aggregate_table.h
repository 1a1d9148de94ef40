// The aggregates that the command knows: one table, from which parsing, checking, calling and the
// help go.
#pragma once

#include "cell_values.h"

#include <cstdint>
#include <optional>
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

//! Aggregates that belong together for a reader and are called in the same way.
enum class aggregate_family {
    count,
    distinct, //!< its operator counts a missing value as a value
    sum,
    extreme,
    moment, //!< asked of distances from a centre, and so is pair
    order,  //!< its operators refuse columns with missing values, and user atoms
    pair
};

//! How the type of a result follows from the type of the column.
enum class result_rule {
    sum,      //!< integers give lng, flt and dbl give dbl
    same,     //!< that of the column
    count,    //!< lng
    number,   //!< dbl
    between,  //!< dbl, but a timestamp between timestamps
    constant, //!< dbl, of a line that was fitted to distances from centres
    quotient  //!< dbl, worked out from two other aggregates of the same column
};

//! How an aggregate of a whole column finds its operator.
enum class operator_naming {
    plain,  //!< by the name as it stands
    by_type //!< the name goes on with that of the column's type
};

//! The number that an aggregate takes besides its columns.
struct parameter_rule {
    double lowest;
    double highest;
    bool whole;               //!< without a fraction
    std::string_view meaning; //!< what it must be, for messages
};

struct aggregate_rule {
    std::string_view name;
    std::string_view arguments = "x"; //!< as the help shows them; * for rows instead of values
    aggregate_family family;
    unsigned columns = 1;
    const parameter_rule *parameter = nullptr;
    type_set accepts;
    result_rule result;
    //! The operators of a whole column and by group; without the first, the whole is one group.
    std::string_view whole{};
    std::string_view grouped{};
    operator_naming naming = operator_naming::plain;
    //! Of a quotient: the aggregates that it is made of.
    std::string_view dividend{};
    std::string_view divisor{};

    //! The name with its arguments, as in quartile(x,q).
    std::string usage() const;
};

//! A name under which another program knows an aggregate.
struct aggregate_alias {
    std::string_view name;
    std::string_view of;
    std::optional<double> parameter{}; //!< that goes with the name
    bool takes_percent = false;        //!< the name may go on with :P, a parameter in percent
};

//! All rules; those of one family stand together.
std::span<const aggregate_rule> aggregate_rules();
std::span<const aggregate_alias> aggregate_aliases();

//! The rule of that name, no alias, for columns or, if `all_rows`, for rows; null without one.
const aggregate_rule *find_aggregate(std::string_view name, bool all_rows = false);

//! The type in which a column's values go to the rule's operators: their own, but dbl where flt is
//! added up. (Moments take distances instead of values.)
column_type operand_type(const aggregate_rule &rule, column_type column);

//! The type in which the rule's result on a column of an accepted type is shown.
column_type result_type(const aggregate_rule &rule, column_type column);

//! The exported name of the rule's whole-column operator for a type.
std::string whole_operator(const aggregate_rule &rule, column_type column);

//! All aggregates and aliases, a few lines by family, for the help.
std::string aggregate_overview();

} // namespace vask::runner
