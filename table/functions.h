// The functions that a query can ask for: one table, from which checking, planning and the overview
// of vask_functions go.
#pragma once

#include "table/value_type.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace vask::table {

//! Functions that are worked out in the same way.
enum class family : std::uint8_t {
    rows,     //!< of the groups' rows alone
    count,    //!< values or nulls
    distinct, //!< its operator counts a missing value as a value
    sum,
    extreme,
    moment, //!< asked of distances from a centre, and so is pair
    order,  //!< its operators take no missing values
    pair,
    place,    //!< the value of a certain row
    weighted, //!< a mean of values by weights
    state     //!< a number of a state that merges, asked for by partial aggregation alone
};

//! Types of values that a function takes.
enum class accepted : std::uint8_t { any, numbers, sums, ordered };

enum class result_rule : std::uint8_t {
    count,    //!< int64
    sum,      //!< integers give int64, decimals decimals, floats float64
    mean,     //!< float64; of times a time
    same,     //!< that of the column
    number,   //!< float64
    between,  //!< float64; of times a time
    distance, //!< of integers int64, of floats float64, of decimals decimal, of times a duration
    truth     //!< bool
};

//! The number that a function takes besides its columns.
struct parameter_rule {
    double lowest;
    double highest;
    bool whole;
    std::string_view letter; //!< that stands for it in the usage
    std::string_view meaning;
};

struct function_rule {
    std::string_view name;
    family of;
    unsigned columns;
    const parameter_rule *parameter;
    accepted accepts;
    result_rule result;
    //! The operators of a whole column and by group; without the first, the whole is one group.
    std::string_view whole;
    std::string_view grouped;
    bool by_type; //!< the whole's name goes on with the type's
    std::string_view meaning;
};

//! Another name, perhaps with a parameter that goes with it.
struct function_alias {
    std::string_view name;
    std::string_view of;
    std::optional<double> parameter;
};

struct named_function {
    const function_rule *rule;
    std::optional<double> parameter; //!< that came with the name
};

std::span<const function_rule> function_rules();
std::span<const function_alias> function_aliases();
//! Nothing for a name that there is not.
std::optional<named_function> function_named(std::string_view name);
//! Throws table_error for a name that there is not.
named_function find_function(std::string_view name);
//! The rule of a name that there is.
const function_rule &function(std::string_view name);

//! The name with its arguments, as in quartile(x,q).
std::string usage(const function_rule &rule);

bool accepts(accepted rule, kind of);
//! In words.
std::string_view name_of(accepted rule);

//! The type of a function's result on a column of that type.
value_type result_type(const function_rule &rule, const value_type &column, bool wide_sums);

//! What vask_functions gives.
const std::string &function_overview();

} // namespace vask::table
