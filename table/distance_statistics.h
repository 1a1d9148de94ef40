// Moments of one column and statistics of two, made of sums over distances: all that a query asks
// of the same columns in one pass.
#pragma once

#include "table/answer.h"
#include "table/distances.h"
#include "table/plan.h"

#include "statistics/statistic.h"

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace vask::table {

//! Mean, less the centre, and centred sums of squares and cubes of a group's values.
struct moment_states {
    std::vector<dbl> mean;
    std::vector<dbl> m2;
    std::vector<dbl> m3;
};

//! The same of two columns over the rows with both values.
struct pair_states {
    std::vector<lng> n;
    std::array<std::vector<dbl>, 5> numbers; //!< mean x, mean y, m2 x, m2 y, co-moment
};

class distance_statistics {
public:
    //! A column's values as the operators take them; with `as_they_lie` perhaps a nil is one of
    //! them that is a number.
    struct column_values {
        refkernel::bat values;
        bool as_they_lie;
    };
    //! `looked`: a nil was met, so they are not to be taken as they lie.
    using values_of_column = std::function<column_values(const column &, bool looked)>;

    distance_statistics(const query &asked, const query_context &context, const groups &by,
                        values_of_column values_of);

    //! Of the families moment and pair. Pairs need rows.
    answer statistic(const asked_function &asked);
    const moment_states &moments_of(const column &of);
    const pair_states &pairs_of(const column &x, const column &y);
    //! The sum of a whole column of floats that need no look first; else nothing.
    std::optional<dbl> whole_sum(const column &of);
    //! To be asked for when a statistic of the column was made.
    const centred_values &centred_of(const column &of);

private:
    // The second is null for the statistics of one column.
    using columns = std::pair<const column *, const column *>;

    struct part {
        std::set<stat_kind> asked;
        std::map<stat_kind, answer> made;
    };

    struct centred_column {
        std::unique_ptr<centred_values> distances;
        bool as_they_lie = false;
    };

    static columns columns_of(const asked_function &asked);
    template <std::size_t n, class Sum>
    void over(const std::array<const column *, n> &of, const Sum &sum);
    void make_moments(const column &of, part &all);
    void make_pairs(const column &x, const column &y, part &all);

    const query_context &context_;
    const groups &by_;
    values_of_column values_of_;
    std::map<const column *, centred_column> centred_;
    std::map<columns, part> parts_;
    std::map<const column *, moment_states> moments_;
    std::map<columns, pair_states> pairs_;
};

} // namespace vask::table
