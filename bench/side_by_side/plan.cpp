#include "plan.h"

#include "column_numbers.h"

#include <chrono>
#include <cmath>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace side_by_side {
namespace {

using refkernel::bat;
using vask::table::operator_set;

template <class T>
std::optional<double> scalar(T value) {
    if (value == refkernel::nil_of<T>())
        return std::nullopt;
    return static_cast<double>(value);
}

bat quotients(const bat &dividend, const bat &divisor) {
    const std::vector<double> sums = numbers_of(dividend);
    const std::vector<double> counts = numbers_of(divisor);
    std::vector<double> means(sums.size());
    for (std::size_t i = 0; i < means.size(); ++i)
        means[i] = std::isnan(sums[i]) ? refkernel::nil_of<double>() : sums[i] / counts[i];
    return refkernel::make_column(std::move(means));
}

class plan_runner {
public:
    plan_runner(const plan &asked, const columns_by_name &columns, const operator_set &operators)
        : asked_(asked), columns_(columns), operators_(operators) {}

    plan_outcome run() {
        const auto begin = std::chrono::steady_clock::now();
        for (const std::string &key : asked_.keys)
            group_by(key);
        for (const operator_call &call : asked_.calls)
            outcome_.results.push_back(result_of(call));
        outcome_.milliseconds = since(begin);
        return std::move(outcome_);
    }

private:
    using clock = std::chrono::steady_clock;

    static double since(clock::time_point begin) {
        return std::chrono::duration<double, std::milli>(clock::now() - begin).count();
    }

    template <class Call>
    void timed(const std::string &name, const std::string &column, Call call) {
        const auto begin = clock::now();
        call();
        outcome_.calls.emplace_back(name + "(" + column + ")", since(begin));
    }

    void group_by(const std::string &key) {
        const bat &column = columns_.at(key);
        operator_set::grouped_rows made;
        if (outcome_.map)
            timed("VASKderive", key, [&] {
                made = operators_.derive(
                    {bat::share(outcome_.map.id()), bat::share(outcome_.extents.id())}, column);
            });
        else
            timed("VASKgroup", key, [&] { made = operators_.group(column); });
        outcome_.extents = std::move(made.extents);
        outcome_.map = std::move(made.map);
    }

    plan_result result_of(const operator_call &call) {
        if (call.name == "rows")
            return bat::share(outcome_.extents.id());
        plan_result result = call.name == "mean" ? mean(call.columns.at(0)) : run_operator(call);
        if (call.squared)
            square(result);
        return result;
    }

    plan_result run_operator(const operator_call &call) {
        switch (call.slot) {
            case slot_form::column:
                return bat::adopt(run_into<std::int32_t>(call));
            case slot_form::int_:
                return scalar(run_into<std::int32_t>(call));
            case slot_form::lng:
                return scalar(run_into<std::int64_t>(call));
            case slot_form::dbl:
                break;
        }
        return scalar(run_into<double>(call));
    }

    template <class Slot>
    Slot run_into(const operator_call &call) {
        std::vector<const bat *> arguments;
        for (const std::string &name : call.columns)
            arguments.push_back(&columns_.at(name));
        bat parameter;
        if (call.parameter) {
            parameter = refkernel::make_column(std::vector{*call.parameter});
            arguments.push_back(&parameter);
        }
        if (outcome_.map) {
            arguments.push_back(&outcome_.map);
            arguments.push_back(&outcome_.extents);
        }
        Slot result{};
        timed(call.name, call.columns.front(),
              [&] { operators_.call(call.name, &result, arguments); });
        return result;
    }

    // The extents count rows; where a column misses none, those are its values too.
    plan_result mean(const std::string &column) {
        const plan_result sum =
            run_operator({"vask_grp_sum", {column}, {}, slot_form::column, false});
        if (columns_.at(column)->tail->nonil)
            return quotients(std::get<bat>(sum), outcome_.extents);
        const plan_result count =
            run_operator({"vask_grp_count", {column}, {}, slot_form::column, false});
        return quotients(std::get<bat>(sum), std::get<bat>(count));
    }

    static void square(plan_result &result) {
        if (auto *const value = std::get_if<std::optional<double>>(&result)) {
            if (*value)
                **value *= **value;
            return;
        }
        std::vector<double> values = numbers_of(std::get<bat>(result));
        for (double &v : values)
            v = std::isnan(v) ? refkernel::nil_of<double>() : v * v;
        result = refkernel::make_column(std::move(values));
    }

    const plan &asked_;
    const columns_by_name &columns_;
    const operator_set &operators_;
    plan_outcome outcome_;
};

slot_form slot_named(const std::string &name) {
    const std::map<std::string, slot_form> forms{{"column", slot_form::column},
                                                 {"int", slot_form::int_},
                                                 {"lng", slot_form::lng},
                                                 {"dbl", slot_form::dbl}};
    return forms.at(name);
}

} // namespace

plan read_plan(const nlohmann::json &text) {
    plan result;
    text.at("keys").get_to(result.keys);
    for (const auto &call : text.at("calls")) {
        operator_call &read = result.calls.emplace_back();
        call.at("operator").get_to(read.name);
        call.at("columns").get_to(read.columns);
        if (call.contains("parameter"))
            read.parameter = call.at("parameter").get<std::int64_t>();
        read.slot = slot_named(call.value("slot", "column"));
        read.squared = call.value("squared", false);
    }
    return result;
}

plan_outcome run_plan(const plan &asked, const columns_by_name &columns,
                      const operator_set &operators) {
    return plan_runner(asked, columns, operators).run();
}

} // namespace side_by_side
