#include "table/distance_statistics.h"

#include "aggregates/grouped.h"
#include "aggregates/whole_column.h"
#include "statistics/moments.h"
#include "statistics/pair_statistics.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include <fmt/format.h>

namespace vask::table {
namespace {

using refkernel::nil_of;

stat_kind kind_of(const function_rule &rule) {
    static constexpr std::array<std::pair<std::string_view, stat_kind>, 11> kinds{{
        {"covars", stat_kind::covars},
        {"covarp", stat_kind::covarp},
        {"correl", stat_kind::correl},
        {"slope", stat_kind::slope},
        {"intercept", stat_kind::intercept},
        {"skews", stat_kind::skews},
        {"skewp", stat_kind::skewp},
        {"stdev", stat_kind::stdev},
        {"stdevp", stat_kind::stdevp},
        {"variance", stat_kind::variance},
        {"variancep", stat_kind::variancep},
    }};
    for (const auto &[name, kind] : kinds)
        if (name == rule.name)
            return kind;
    throw std::logic_error(fmt::format("{} is no statistic of distances", rule.name));
}

bool is_skewness(stat_kind kind) {
    return kind == stat_kind::skews || kind == stat_kind::skewp;
}

// Hands the sums of each group to `finish(group, sums)`, from tasks, perhaps twice.
template <class Aggregate, std::size_t columns, class Finish>
void sum_by_group(const std::array<const centred_values *, columns> &of, const groups &by,
                  const Finish &finish) {
    const BAT &values = of[0]->values();
    const distance_rows<columns> rows(of);
    const partition_plan plan(values, partition_count(values.info->count));
    if (by.is_whole()) {
        finish(BUN{0}, reduce_rows<Aggregate>(rows, plan));
        return;
    }
    if (by.count() == 0)
        return;
    if (by.map()->tail->type != TYPE_void) {
        aggregate_rows<Aggregate>(rows, plan, *by.map().record(), *by.extents().record(),
                                  [&](BUN group, const auto &sums) {
                                      finish(group, sums);
                                      return false;
                                  });
        return;
    }
    // Every row is a group of its own.
    run_row_loop(values.info->count, [&](vask_row_range r) {
        for_each_block(rows, r, [&](const auto &loaded, vask_row_range block) {
            for (BUN p = block.begin; p < block.end; ++p) {
                typename Aggregate::partial sums{};
                if (!loaded.is_nil(p))
                    Aggregate::add(sums, loaded[p]);
                finish(p, sums);
            }
        });
    });
}

// A result, by group, that is yet to be filled.
struct wanted {
    stat_kind kind;
    fresh_column<dbl> made;
};

std::vector<wanted> wanted_of(const std::set<stat_kind> &asked,
                              const std::map<stat_kind, answer> &made, std::size_t groups) {
    std::vector<wanted> result;
    for (const stat_kind kind : asked)
        if (!made.contains(kind))
            result.push_back({kind, fresh_column<dbl>(groups)});
    return result;
}

void keep(std::vector<wanted> results, std::map<stat_kind, answer> &made) {
    for (wanted &result : results)
        made.emplace(result.kind, answer_of(std::move(result.made).finish({.nil = true})));
}

template <int Power>
dbl moment_of(stat_kind kind, const power_sums<Power> &sums) {
    return visit_moment(kind, nil_of<dbl>(), [&]<class Moment>(Moment moment) {
        if constexpr (std::is_same_v<Moment, skewness>) {
            if constexpr (Power == 3)
                return moment(sums);
            else
                return nil_of<dbl>();
        } else {
            return moment(power_sums<2>{sums.s1, sums.s2, sums.n});
        }
    });
}

// A line gives the first column from the second, which is its x.
template <class Sums>
Sums sums_for(const correlation_sums &all) {
    if constexpr (std::is_same_v<Sums, covariance_sums>)
        return {all.x, all.y, all.xy, all.pairs};
    else if constexpr (std::is_same_v<Sums, regression_sums>)
        return {all.y, all.x, all.xy, all.yy, all.pairs};
    else
        return all;
}

dbl statistic_of(stat_kind kind, const correlation_sums &sums) {
    return visit_pair_statistic(kind, nil_of<dbl>(), [&]<class Statistic>(Statistic statistic) {
        return std::optional<dbl>(statistic(sums_for<typename Statistic::sums>(sums)))
            .value_or(nil_of<dbl>());
    });
}

} // namespace

distance_statistics::distance_statistics(const query &asked, const query_context &context,
                                         const groups &by, values_of_column values_of)
    : context_(context), by_(by), values_of_(std::move(values_of)) {
    for (const asked_function &function : asked.functions) {
        const family of = function.rule->of;
        if (of == family::moment || of == family::pair) {
            part &all = parts_[columns_of(function)];
            all.asked.insert(kind_of(*function.rule));
            // It is made of the slope.
            if (function.rule->name == "intercept")
                all.asked.insert(stat_kind::slope);
        }
    }
}

distance_statistics::columns distance_statistics::columns_of(const asked_function &asked) {
    return {asked.columns[0].get(), asked.columns.size() > 1 ? asked.columns[1].get() : nullptr};
}

const centred_values &distance_statistics::centred_of(const column &of) {
    centred_column &made = centred_[&of];
    if (made.distances == nullptr) {
        column_values own = values_of_(of, false);
        made = {std::make_unique<centred_values>(std::move(own.values), by_), own.as_they_lie};
    }
    return *made.distances;
}

std::optional<dbl> distance_statistics::whole_sum(const column &of) {
    if (!by_.is_whole() || of.type().of != kind::float64)
        return std::nullopt;
    const column_values own = values_of_(of, false);
    if (!own.as_they_lie)
        return std::nullopt;
    power_sums<1> made{};
    context_.operators.work("sum", of.name(), static_cast<BUN>(by_.rows()), [&] {
        const BAT &values = *own.values.record();
        made = reduce_rows<moment_sums<1>>(
            column_rows<dbl>(values), partition_plan(values, partition_count(values.info->count)));
    });
    return made.n == by_.rows() ? std::optional(made.s1) : std::nullopt;
}

// Calls `sum` with the distances of columns, and again if a value that is a number was taken for a
// nil.
template <std::size_t n, class Sum>
void distance_statistics::over(const std::array<const column *, n> &of, const Sum &sum) {
    std::string about;
    for (const column *each : of)
        about += fmt::format("{}{}", about.empty() ? "" : ", ", each->name());
    const auto work = [&] {
        for (bool again = true; again;) {
            std::array<const centred_values *, n> rows;
            for (std::size_t i = 0; i < n; ++i)
                rows[i] = &centred_of(*of[i]);
            sum(rows);
            again = false;
            for (const column *each : of) {
                centred_column &own = centred_[each];
                if (!own.as_they_lie || !own.distances->nil_seen())
                    continue;
                own = {std::make_unique<centred_values>(values_of_(*each, true).values, by_),
                       false};
                again = true;
            }
        }
    };
    context_.operators.work(n == 1 ? "moments" : "pair sums", about, static_cast<BUN>(by_.rows()),
                            work);
}

answer distance_statistics::statistic(const asked_function &asked) {
    const columns of = columns_of(asked);
    const stat_kind kind = kind_of(*asked.rule);
    part &all = parts_[of];
    if (const auto known = all.made.find(kind); known != all.made.end())
        return known->second;
    all.asked.insert(kind);
    if (of.second == nullptr)
        make_moments(*of.first, all);
    else
        make_pairs(*of.first, *of.second, all);
    return all.made.at(kind);
}

void distance_statistics::make_moments(const column &of, part &all) {
    std::vector<wanted> results = wanted_of(all.asked, all.made, by_.count());
    const bool cubes = std::any_of(results.begin(), results.end(),
                                   [](const wanted &result) { return is_skewness(result.kind); });
    over(std::array{&of}, [&](const auto &rows) {
        const auto finish = [&](BUN group, const auto &sums) {
            for (const wanted &result : results)
                result.made.values[group] = moment_of(result.kind, sums);
        };
        if (cubes)
            sum_by_group<moment_sums<3>>(rows, by_, finish);
        else
            sum_by_group<moment_sums<2>>(rows, by_, finish);
    });
    keep(std::move(results), all.made);
}

void distance_statistics::make_pairs(const column &x, const column &y, part &all) {
    std::vector<wanted> results = wanted_of(all.asked, all.made, by_.count());
    over(std::array{&x, &y}, [&](const auto &rows) {
        sum_by_group<pair_sums<correlation_sums>>(rows, by_, [&](BUN group, const auto &sums) {
            for (const wanted &result : results)
                result.made.values[group] = statistic_of(result.kind, sums);
        });
    });
    keep(std::move(results), all.made);
}

const moment_states &distance_statistics::moments_of(const column &of) {
    const auto [at, is_new] = moments_.try_emplace(&of);
    moment_states &made = at->second;
    if (!is_new)
        return made;
    for (std::vector<dbl> *numbers : {&made.mean, &made.m2, &made.m3})
        numbers->assign(by_.count(), nil_of<dbl>());
    const auto finish = [&](BUN group, const power_sums<3> &sums) {
        if (sums.n == 0)
            return;
        const auto [s1, s2, s3, count] = sums;
        const auto n = static_cast<double>(count);
        made.mean[group] = s1 / n;
        made.m2[group] = s2 - s1 * s1 / n;
        made.m3[group] = s3 + (-3 * s1 * s2 / n + 2 * s1 * s1 * s1 / (n * n));
    };
    over(std::array{&of},
         [&](const auto &rows) { sum_by_group<moment_sums<3>>(rows, by_, finish); });
    return made;
}

const pair_states &distance_statistics::pairs_of(const column &x, const column &y) {
    const auto [at, is_new] = pairs_.try_emplace({&x, &y});
    pair_states &made = at->second;
    if (!is_new)
        return made;
    made.n.assign(by_.count(), 0);
    for (std::vector<dbl> &numbers : made.numbers)
        numbers.assign(by_.count(), nil_of<dbl>());
    const auto finish = [&](BUN group, const correlation_sums &sums) {
        if (sums.pairs == 0)
            return;
        const auto n = static_cast<double>(sums.pairs);
        auto &[mean_x, mean_y, m2_x, m2_y, c] = made.numbers;
        made.n[group] = static_cast<lng>(sums.pairs);
        mean_x[group] = sums.x / n;
        mean_y[group] = sums.y / n;
        m2_x[group] = sums.xx - sums.x * sums.x / n;
        m2_y[group] = sums.yy - sums.y * sums.y / n;
        c[group] = sums.xy - sums.x * sums.y / n;
    };
    over(std::array{&x, &y},
         [&](const auto &rows) { sum_by_group<pair_sums<correlation_sums>>(rows, by_, finish); });
    return made;
}

} // namespace vask::table
