// What several functions of a query are made of, each made when it is first asked for.
#pragma once

#include "table/distance_statistics.h"
#include "table/gathered.h"
#include "table/kernel_column.h"
#include "table/large_vector.h"
#include "table/operands.h"
#include "table/plan.h"

#include <cstdint>
#include <map>
#include <set>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace vask::table {

//! Quantiles of a column, selected together.
struct quantiles {
    std::vector<double> fractions;
    std::vector<std::vector<dbl>> numbers; //!< by fraction, then group
    std::vector<std::vector<lng>> times;
};

//! Sums over the rows that have both a value and a weight; the nil without such a row.
struct weighted_sums {
    answer products;
    answer weights;
};

class shared_parts {
public:
    shared_parts(std::int64_t rows, const query &asked, const query_context &context);

    const groups &by() const { return by_; }

    std::uint64_t missing_in(const column &of) const;
    const numbers &numbers_of(const column &of) const;
    //! By group, how many values.
    const large_vector<lng> &counts_of(const column &of);
    //! Whether a sum of the values may not be a lng, of which the nil is none.
    bool may_leave_lng(const column &of) const;
    //! By group, in 128 bits. Of integers.
    const std::vector<wide_integer> &exact_sums(const column &of);
    //! As dbl: the column's own values where they are.
    const refkernel::bat &doubles_of(const column &of);
    const weighted_sums &weighted_sums_of(const column &values, const column &weights);
    //! Of a column in one of its forms.
    const present_rows &present_in(const column &of, const refkernel::bat &values);
    //! Whether quantiles of a column are better selected together than asked of the operators one
    //! by one: values are brought to their groups once, and the same numbers come of it. Operators
    //! reckon in dbl, so times, which are whole, and integers beyond 2^53 are never theirs.
    bool are_quantiles_shared(const column &of) const;
    //! Those of all fractions that the query asks for.
    const quantiles &quantiles_of(const column &of);
    distance_statistics &distances() { return distances_; }

    //! Marks the groups without a value as missing.
    void mark_groups_without_values(const column &of, answer &values);

    //! Calls an operator with the groups' map, or another one, and extents behind its columns, or
    //! its whole form.
    answer call(const function_rule &rule, const std::vector<const refkernel::bat *> &columns,
                std::string_view about, const refkernel::bat *map = nullptr);

    //! By row, whether there is a value.
    template <class T>
    static auto presence_in(const numbers &of) {
        return [values = of.values.template values<T>(),
                present = of.present.empty() ? nullptr : of.present.data(),
                beyond = of.beyond](std::size_t row) {
            return beyond ? present == nullptr || present[row] != 0
                          : values[row] != refkernel::nil_of<T>();
        };
    }

    //! Calls `f(std::type_identity<T>{})` with the type whose order and arithmetic the values have.
    template <class F>
    decltype(auto) visit_true_type(const column &of, F f) const {
        const numbers &values = numbers_of(of);
        if (values.beyond && of.type().of == kind::uint64)
            return f(std::type_identity<std::uint64_t>{});
        return visit_storage(values.values.type(), f);
    }

    //! Calls `work(group, values)` with the values of every group as Ts, in tasks. T is the type
    //! that visit_true_type gives, or dbl.
    template <class T, class Work>
    void for_each_group(const column &of, const Work &work) {
        const refkernel::bat &all = numbers_of(of).values;
        const present_rows &rows = present_in(of, all);
        if constexpr (std::is_same_v<T, std::uint64_t>)
            gathered_values<T, lng>(rows, by_).for_each(work);
        else if constexpr (std::is_same_v<T, dbl>)
            visit_storage(all.type(), [&]<class S>(std::type_identity<S>) {
                gathered_values<T, S>(rows, by_).for_each(work);
            });
        else
            gathered_values<T, T>(rows, by_).for_each(work);
    }

private:
    bool needs_own_selection(const column &of) const;
    void find_shared_quantiles();

    const query &asked_;
    const query_context &context_;
    bool nan_missing_;
    groups by_;
    std::map<const column *, large_vector<lng>> counts_;
    std::map<const column *, std::vector<wide_integer>> exact_;
    std::map<const column *, refkernel::bat> doubles_;
    std::map<std::pair<const column *, const column *>, weighted_sums> weighted_;
    std::map<int, present_rows> present_; // by the number of the values' BAT
    std::map<const column *, std::set<double>> fractions_;
    std::map<const column *, quantiles> quantiles_;
    distance_statistics distances_;
};

//! Whether a function is a quantile, and of which share.
bool is_quantile(const function_rule &rule);
double fraction_of(const asked_function &asked);

double scale_of(const column &of);

} // namespace vask::table
