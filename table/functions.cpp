#include "table/functions.h"

#include "table/errors.h"

#include <algorithm>
#include <array>

namespace vask::table {
namespace {

constexpr parameter_rule quartile_number{0, 4, true, "q",
                                         "0, 1, 2, 3 or 4: 0 the smallest value, 2 the median"};
constexpr parameter_rule fraction{0, 1, false, "p", "a fraction from 0 to 1"};
// Up to here every whole number has a double of its own; columns are shorter by far.
constexpr parameter_rule rank{1, 0x1p53, true, "k",
                              "a whole number from 1 on: 1 the largest value"};

constexpr function_rule part_of_state(std::string_view name, unsigned columns, result_rule result) {
    return {name, family::state, columns, nullptr, accepted::any, result, "", "", false, ""};
}

constexpr std::array<function_rule, 51> rules{{
    {"size", family::rows, 0, nullptr, accepted::any, result_rule::count, "", "", false,
     "rows, nulls and all"},
    {"first_row", family::rows, 0, nullptr, accepted::any, result_rule::count, "", "", false,
     "the number of the group's first row, from 0"},
    {"count", family::count, 1, nullptr, accepted::any, result_rule::count, "", "", false,
     "values that are not null"},
    {"count_nulls", family::count, 1, nullptr, accepted::any, result_rule::count, "", "", false,
     "nulls"},
    {"count_distinct", family::distinct, 1, nullptr, accepted::any, result_rule::count, "",
     "AggrX3_countDistinct", false, "different values; all NaNs are one, -0.0 is 0.0"},
    {"sum", family::sum, 1, nullptr, accepted::sums, result_rule::sum, "vask_sum_", "vask_grp_sum",
     true, "the sum, exact of integers and decimals"},
    {"mean", family::sum, 1, nullptr, accepted::numbers, result_rule::mean, "", "", false,
     "the mean"},
    {"weighted_mean", family::weighted, 2, nullptr, accepted::sums, result_rule::number, "", "",
     false, "the mean of the first column, weighted by the second"},
    {"min", family::extreme, 1, nullptr, accepted::ordered, result_rule::same, "vask_min_",
     "vask_grp_min", true, "the least value"},
    {"max", family::extreme, 1, nullptr, accepted::ordered, result_rule::same, "vask_max_",
     "vask_grp_max", true, "the greatest value"},
    {"range", family::extreme, 1, nullptr, accepted::numbers, result_rule::distance, "", "", false,
     "the greatest value less the least"},
    {"stdev", family::moment, 1, nullptr, accepted::sums, result_rule::number, "vask_stdev",
     "vask_grp_stdev", false, "standard deviation of a sample"},
    {"stdevp", family::moment, 1, nullptr, accepted::sums, result_rule::number, "vask_stdevp",
     "vask_grp_stdevp", false, "standard deviation of a population"},
    {"variance", family::moment, 1, nullptr, accepted::sums, result_rule::number, "vask_variance",
     "vask_grp_variance", false, "variance of a sample"},
    {"variancep", family::moment, 1, nullptr, accepted::sums, result_rule::number, "vask_variancep",
     "vask_grp_variancep", false, "variance of a population"},
    {"skews", family::moment, 1, nullptr, accepted::sums, result_rule::number, "vask_skews",
     "vask_grp_skews", false, "skewness of a sample"},
    {"skewp", family::moment, 1, nullptr, accepted::sums, result_rule::number, "vask_skewp",
     "vask_grp_skewp", false, "skewness of a population"},
    {"median", family::order, 1, nullptr, accepted::numbers, result_rule::between, "vask_median",
     "vask_grp_median", false, "the median, between two values their mean"},
    {"quantile", family::order, 1, &fraction, accepted::numbers, result_rule::between,
     "vask_percentile", "vask_grp_percentile", false,
     "the value at a fraction of the order, interpolated linearly"},
    {"quartile", family::order, 1, &quartile_number, accepted::numbers, result_rule::between,
     "vask_quartile", "vask_grp_quartile", false, "the quantile of so many quarters"},
    {"iqr", family::order, 1, nullptr, accepted::numbers, result_rule::distance, "", "", false,
     "the third quartile less the first"},
    {"mad", family::order, 1, nullptr, accepted::sums, result_rule::number, "", "", false,
     "the median of the distances from the median"},
    {"largest", family::order, 1, &rank, accepted::ordered, result_rule::same, "vask_largest",
     "vask_grp_largest", false, "the k-th largest value, duplicates counted"},
    {"mode", family::order, 1, nullptr, accepted::ordered, result_rule::same, "vask_mode",
     "vask_grp_mode", false,
     "the most frequent value, of several the least; null if none occurs twice"},
    {"covars", family::pair, 2, nullptr, accepted::sums, result_rule::number, "vask_covars",
     "vask_grp_covars", false, "covariance of a sample"},
    {"covarp", family::pair, 2, nullptr, accepted::sums, result_rule::number, "vask_covarp",
     "vask_grp_covarp", false, "covariance of a population"},
    {"correl", family::pair, 2, nullptr, accepted::sums, result_rule::number, "vask_correl",
     "vask_grp_correl", false, "Pearson's correlation"},
    {"slope", family::pair, 2, nullptr, accepted::sums, result_rule::number, "vask_slope",
     "vask_grp_slope", false, "slope of the line that gives the first column from the second"},
    {"intercept", family::pair, 2, nullptr, accepted::sums, result_rule::number, "vask_intercept",
     "vask_grp_intercept", false, "that line's value at 0"},
    {"first", family::place, 1, nullptr, accepted::any, result_rule::same, "", "", false,
     "the first value that is not null"},
    {"last", family::place, 1, nullptr, accepted::any, result_rule::same, "", "", false,
     "the last value that is not null"},
    {"any", family::place, 1, nullptr, accepted::any, result_rule::same, "", "", false,
     "some value that is not null: the first"},
    {"all_true", family::extreme, 1, nullptr, accepted::sums, result_rule::truth, "", "", false,
     "whether no value is 0"},
    {"any_true", family::extreme, 1, nullptr, accepted::sums, result_rule::truth, "", "", false,
     "whether some value is not 0"},
    part_of_state("state.high", 1, result_rule::count),
    part_of_state("state.low", 1, result_rule::count),
    part_of_state("state.nulls", 1, result_rule::count),
    part_of_state("state.centre", 1, result_rule::number),
    part_of_state("state.mean", 1, result_rule::number),
    part_of_state("state.m2", 1, result_rule::number),
    part_of_state("state.m3", 1, result_rule::number),
    part_of_state("state.n_xy", 2, result_rule::count),
    part_of_state("state.centre_x", 2, result_rule::number),
    part_of_state("state.centre_y", 2, result_rule::number),
    part_of_state("state.mean_x", 2, result_rule::number),
    part_of_state("state.mean_y", 2, result_rule::number),
    part_of_state("state.m2_x", 2, result_rule::number),
    part_of_state("state.m2_y", 2, result_rule::number),
    part_of_state("state.c_xy", 2, result_rule::number),
    part_of_state("state.products", 2, result_rule::number),
    part_of_state("state.weights", 2, result_rule::number),
}};

constexpr std::array<function_alias, 39> aliases{{
    {"len", "size", {}},
    {"avg", "mean", {}},
    {"average", "mean", {}},
    {"wavg", "weighted_mean", {}},
    {"n", "count", {}},
    {"nunique", "count_distinct", {}},
    {"n_unique", "count_distinct", {}},
    {"minimum", "min", {}},
    {"maximum", "max", {}},
    {"std", "stdev", {}},
    {"sd", "stdev", {}},
    {"stddev", "stdev", {}},
    {"stddev_samp", "stdev", {}},
    {"sstdev", "stdev", {}},
    {"stddev_pop", "stdevp", {}},
    {"pstdev", "stdevp", {}},
    {"var", "variance", {}},
    {"var_samp", "variance", {}},
    {"svar", "variance", {}},
    {"var_pop", "variancep", {}},
    {"pvar", "variancep", {}},
    {"skew", "skews", {}},
    {"skewness", "skews", {}},
    {"percentile", "quantile", {}},
    {"q1", "quantile", 0.25},
    {"q3", "quantile", 0.75},
    {"cov", "covars", {}},
    {"covar_samp", "covars", {}},
    {"scov", "covars", {}},
    {"covar_pop", "covarp", {}},
    {"pcov", "covarp", {}},
    {"corr", "correl", {}},
    {"cor", "correl", {}},
    {"pearson", "correl", {}},
    {"ppearson", "correl", {}},
    {"any_value", "any", {}},
    {"null_count", "count_nulls", {}},
    {"sskew", "skews", {}},
    {"pskew", "skewp", {}},
}};

} // namespace

std::span<const function_rule> function_rules() {
    return rules;
}

const function_rule &function(std::string_view name) {
    return *std::find_if(rules.begin(), rules.end(),
                         [=](const function_rule &rule) { return rule.name == name; });
}

std::span<const function_alias> function_aliases() {
    return aliases;
}

std::optional<named_function> function_named(std::string_view name) {
    for (const function_alias &alias : aliases)
        if (alias.name == name)
            return named_function{&function(alias.of), alias.parameter};
    for (const function_rule &rule : rules)
        if (rule.name == name && rule.of != family::state)
            return named_function{&rule, {}};
    return std::nullopt;
}

std::string usage(const function_rule &rule) {
    // The line gives the first column from the second, as in y = slope * x + intercept.
    const bool line = rule.name == "slope" || rule.name == "intercept";
    std::string_view columns = "*";
    if (rule.columns == 1)
        columns = "x";
    else if (rule.columns == 2)
        columns = line ? "y,x" : rule.of == family::weighted ? "x,w" : "x,y";
    return fmt::format("{}({}{}{})", rule.name, columns, rule.parameter == nullptr ? "" : ",",
                       rule.parameter == nullptr ? "" : rule.parameter->letter);
}

named_function find_function(std::string_view name) {
    if (const auto found = function_named(name))
        return *found;
    std::string names;
    for (const function_rule &rule : rules)
        if (rule.of != family::state)
            names += fmt::format("{}{}", names.empty() ? "" : ", ", rule.name);
    fail(VASK_BAD_REQUEST, "there is no function '{}'; there are {}", shown(name), names);
}

bool accepts(accepted rule, kind of) {
    switch (rule) {
        case accepted::any:
            return true;
        case accepted::sums:
            return is_number(of) || of == kind::null;
        case accepted::numbers:
            return is_number(of) || is_temporal(of) || of == kind::null;
        case accepted::ordered:
            break;
    }
    return true;
}

std::string_view name_of(accepted rule) {
    switch (rule) {
        case accepted::sums:
            return "numbers and booleans";
        case accepted::numbers:
            return "numbers, booleans, dates and times";
        case accepted::any:
        case accepted::ordered:
            break;
    }
    return "all types";
}

value_type result_type(const function_rule &rule, const value_type &column, bool wide_sums) {
    const kind of = column.of;
    switch (rule.result) {
        case result_rule::count:
            return plain_type(kind::int64);
        case result_rule::truth:
            return plain_type(kind::boolean);
        case result_rule::sum:
            if (of == kind::decimal)
                return decimal_type(38, column.scale);
            if (is_integer(of))
                return wide_sums ? decimal_type(38, 0) : plain_type(kind::int64);
            return plain_type(of == kind::null ? kind::int64 : kind::float64);
        case result_rule::same:
            return column;
        case result_rule::distance:
            if (rule.of == family::extreme && is_integer(of))
                return plain_type(kind::int64);
            if (rule.of == family::extreme && of == kind::decimal)
                return column;
            if (of == kind::timestamp)
                return {kind::duration, fmt::format("tD{}", column.format[2])};
            if (of == kind::duration)
                return column;
            if (is_temporal(of))
                return plain_type(kind::int64);
            return plain_type(kind::float64);
        case result_rule::mean:
        case result_rule::between:
            return is_temporal(of) ? column : plain_type(kind::float64);
        case result_rule::number:
            break;
    }
    return plain_type(kind::float64);
}

const std::string &function_overview() {
    static const std::string text = [] {
        std::string lines;
        for (const function_rule &rule : rules)
            if (rule.of != family::state)
                lines += fmt::format("{}\t{}\t{}\t{}\t{}\n", rule.name, rule.columns,
                                     rule.parameter == nullptr ? "" : rule.parameter->meaning,
                                     name_of(rule.accepts), rule.meaning);
        for (const function_alias &alias : aliases)
            lines += fmt::format("{}\t\t\t\tthe same as {}{}\n", alias.name, alias.of,
                                 alias.parameter ? fmt::format(" of {}", *alias.parameter) : "");
        return lines;
    }();
    return text;
}

} // namespace vask::table
