// What the operators of every family refuse, and how: the words, the place, an untouched slot, and
// nothing left behind.
#include "library/any_operator.h"
#include "statistics/plain_statistics.h"
#include "support/leak_guard.h"
#include "vask/ops.h"
#include "vask/refkernel/instrumentation.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace support;
using refkernel::bat;
using refkernel::operator_failure;
using refkernel::instrumentation::operation;

void expect_refused(const any_operator &call, const columns &inputs,
                    const operator_failure &wanted) {
    const leak_guard leaks;
    lng slot = 77;
    EXPECT_EQ(refkernel::take_exception(call(&slot, inputs)), wanted);
    EXPECT_EQ(slot, 77);
}

//! Each of the columns in each of the places is refused.
struct refusal {
    const char *text;
    std::vector<std::size_t> places;
    columns refused;
};

struct family {
    const char *place;
    std::vector<any_operator> operators;
    columns good;
    std::vector<refusal> refusals;
    const char *missing = "Object not found"; // of an input that is no BAT, but for parameters
};

TEST(Refusals, AreNamedAndTouchNothing) {
    const char *const failed = "operation failed";
    const char *const unsupported = "Unsupported tail type";
    const char *const order = "statistics.func";
    const bat nobody;
    const bat none = nonil_column(std::vector<std::int8_t>());
    const bat two = nonil_column(std::vector<std::int32_t>{1, 2});
    const bat three = nonil_column(std::vector<double>{1, 2, 3});
    const bat unmarked = column_of(std::vector<std::int16_t>{1, 2, 2}, {.look_for_nils = false});
    const bat oids = nonil_column(std::vector<oid>{1, 2, 3});
    const bat no_oids = nonil_column(std::vector<oid>());
    const bat dense = refkernel::make_void_column(3, 10);
    const bat no_dense = refkernel::make_void_column(0, 10);
    const bat no_nils = refkernel::make_void_column(0, oid_nil);
    const bat times =
        nonil_column(std::vector<std::int64_t>{1, 2, 3}, 0, refkernel::type_timestamp);
    const bat no_times = nonil_column(std::vector<std::int64_t>(), 0, refkernel::type_timestamp);
    const bat truths = nonil_column(std::vector<std::int8_t>{1, 0, 1}, 0, TYPE_bit);
    const bat no_truths = nonil_column(std::vector<std::int8_t>(), 0, TYPE_bit);
    const bat bytes = nonil_column(std::vector<std::int8_t>{1, 0, 1}, 0, TYPE_byte);
    const bat no_bytes = nonil_column(std::vector<std::int8_t>(), 0, TYPE_byte);
    const bat texts = refkernel::make_text_column(std::vector<std::string_view>{"a", "b", "c"});
    const bat no_texts = refkernel::make_text_column(std::vector<std::string_view>{});
    const bat odd_head = refkernel::make_empty(TYPE_int, TYPE_int);
    const bat g = column_of(std::vector<oid>{0, 1, 0});
    const bat e = refkernel::make_void_column(2);
    const bat few = refkernel::make_void_column(2); // for whom few rows are left to the kernel
    const bat quartile = parameter<bte>(2);
    const bat no_quartile = parameter<bte>(5);
    const bat share = parameter(0.5);
    const bat no_share = parameter(-0.01);
    const bat rank = parameter<lng>(1);
    const bat no_rank = parameter<lng>(0);

    const std::vector<std::size_t> both{0, 1};
    const family families[] = {
        {"vask_sum_wrapper",
         {vask_sum_bte, vask_sum_sht, vask_sum_int, vask_sum_wrd, vask_sum_lng, vask_sum_flt,
          vask_sum_dbl},
         {&three},
         {{failed,
           {0},
           {&dense, &no_dense, &oids, &no_oids, &times, &no_times, &texts, &no_texts, &truths,
            &no_truths, &bytes, &no_bytes}}}},
        {"vask_min_max_wrapper",
         {vask_min_bte, vask_min_sht, vask_min_int, vask_min_oid, vask_min_wrd, vask_min_lng,
          vask_min_flt, vask_min_dbl, vask_min_timestamp, vask_max_bte, vask_max_sht, vask_max_int,
          vask_max_oid, vask_max_wrd, vask_max_lng, vask_max_flt, vask_max_dbl, vask_max_timestamp},
         {&three},
         {{failed, {0}, {&texts, &no_texts, &truths}}}},
        {"vask_count_wrapper", {vask_count}, {&three}, {{failed, {0}, {&truths}}}},
        {"vask_count_asterisk", {vask_count_asterisk}, {&three}, {}, ""},
        {"vask_1_arg_statistical_func",
         {vask_stdev, vask_stdevp, vask_variance, vask_variancep, vask_skews, vask_skewp},
         {&three},
         {{failed, {0}, {&dense}}, {unsupported, {0}, {&no_nils, &texts, &times}}}},
        {"vask_2_args_statistical_func",
         {vask_covars, vask_covarp, vask_correl, vask_slope, vask_intercept},
         {&three, &three},
         {{unsupported, both, {&no_nils, &texts, &times}},
          {"BAT parameters should be of equal length", both, {&two, &none}},
          {failed, both, {&dense}}}},
        {"vask_2_args_statistical_func",
         {vask_covars, vask_covarp, vask_correl, vask_slope, vask_intercept},
         {&truths, &dense},
         {{failed, {1}, {&dense}}}},
        {order,
         {vask_median},
         {&three},
         {{failed, {0}, {&dense, &no_dense, &unmarked}},
          {unsupported, {0}, {&no_nils, &texts, &times}}}},
        {order, {vask_mode}, {&three}, {{failed, {0}, {&unmarked}}, {unsupported, {0}, {&times}}}},
        {order,
         {vask_quartile},
         {&three, &quartile},
         {{unsupported, {0}, {&texts}}, {quartile_text, {1}, {&nobody, &no_quartile}}}},
        {order,
         {vask_percentile},
         {&three, &share},
         {{unsupported, {0}, {&texts}}, {percentile_text, {1}, {&nobody, &no_share}}}},
        {order,
         {vask_largest},
         {&three, &rank},
         {{unsupported, {0}, {&times}}, {largest_text, {1}, {&nobody, &no_rank}}}},
        {"vask_ops.coSNNandUnion",
         {vask_coSNNandUnion},
         {&two, &two},
         {{unsupported, both, {&texts, &oids, &dense, &times}},
          {"Unsupported head type", both, {&odd_head}},
          {"Size of BATs is unequal", both, {&three}}}},
        {"vask_grp_sum_wrapper",
         {vask_grp_sum},
         {&three, &g, &e},
         {{failed, {0}, {&texts, &oids}}}},
        {"vask_grp_min_max_wrapper",
         {vask_grp_min, vask_grp_max},
         {&three, &g, &e},
         {{failed, {0}, {&texts, &dense}}}},
        {"vask_grp_count_wrapper", {vask_grp_count, vask_grp_count_asterisk}, {&three, &g, &e}, {}},
        {"aggr.countd", {AggrX3_countDistinct}, {&three, &g, &few}, {}, failed},
        {"vask_grp_1_arg_statistical_func",
         {vask_grp_stdev, vask_grp_stdevp, vask_grp_variance, vask_grp_variancep, vask_grp_skews,
          vask_grp_skewp},
         {&three, &g, &e},
         {{unsupported, {0}, {&texts}}, {failed, {0}, {&dense}}}},
        {"vask_grp_2_args_statistical_func",
         {vask_grp_covars, vask_grp_covarp, vask_grp_correl, vask_grp_slope, vask_grp_intercept},
         {&three, &three, &g, &e},
         {{unsupported, both, {&texts}},
          {"BAT parameters should be of equal length", both, {&two}},
          {failed, both, {&dense}}}},
        {"vask_grp_2_args_statistical_func",
         {vask_grp_covars, vask_grp_covarp, vask_grp_correl, vask_grp_slope, vask_grp_intercept},
         {&none, &none, &g, &e},
         {{failed, both, {&no_dense}}}},
        {order,
         {vask_grp_median},
         {&three, &g, &e},
         {{unsupported, {0}, {&texts}}, {failed, {0}, {&dense}}}},
        {order, {vask_grp_mode}, {&three, &g, &e}, {}},
        {order,
         {vask_grp_quartile},
         {&three, &quartile, &g, &e},
         {{quartile_text, {1}, {&nobody, &no_quartile}}}},
        {order,
         {vask_grp_percentile},
         {&three, &share, &g, &e},
         {{percentile_text, {1}, {&nobody, &no_share}}}},
        {order,
         {vask_grp_largest},
         {&three, &rank, &g, &e},
         {{largest_text, {1}, {&nobody, &no_rank}}}},
        {"vaskops_are_bat_indexes_contained",
         {vaskops_are_bat_indexes_contained},
         {&oids, &oids},
         {}},
    };
    for (const family &f : families)
        for (std::size_t i = 0; i < f.operators.size(); ++i) {
            SCOPED_TRACE(std::string(f.place) + ", operator " + std::to_string(i));
            for (std::size_t at = 0; at < f.good.size(); ++at)
                if (f.good[at]->count() != 1) {
                    columns inputs = f.good;
                    inputs[at] = &nobody;
                    expect_refused(f.operators[i], inputs, {f.place, f.missing});
                }
            for (const refusal &each : f.refusals)
                for (const std::size_t place : each.places)
                    for (const bat *refused : each.refused) {
                        columns inputs = f.good;
                        inputs[place] = refused;
                        expect_refused(f.operators[i], inputs, {f.place, each.text});
                    }
        }
}

// Whichever call it is that cannot make the result.
TEST(Refusals, OfAResultThatTheKernelCannotMakeLoseNothing) {
    using enum operation;
    const bat b = nonil_column(std::vector<double>{1, 2, 3});
    const bat g = column_of(std::vector<oid>{0, 1, 0}, {.stored_head = true});
    const bat e = refkernel::make_void_column(2);
    const bat quartile = parameter<bte>(2);
    const bat share = parameter(0.5);
    const bat rank = parameter<lng>(1);
    const std::vector<operation> view{bat_new, view_create};
    const std::vector<operation> sealed{bat_new, bat_setaccess};
    const std::vector<operation> sealed_view{bat_new, view_create, bat_setaccess};
    const char *const order = "statistics.func";
    const struct {
        const char *place;
        std::vector<any_operator> operators;
        columns inputs;
        std::vector<operation> calls;
    } families[] = {
        {"vask_grp_sum_wrapper", {vask_grp_sum}, {&b, &g, &e}, view},
        {"vask_grp_min_max_wrapper", {vask_grp_min, vask_grp_max}, {&b, &g, &e}, view},
        {"vask_grp_count_wrapper", {vask_grp_count, vask_grp_count_asterisk}, {&b, &g, &e}, view},
        {"vask_grp_1_arg_statistical_func",
         {vask_grp_stdev, vask_grp_stdevp, vask_grp_variance, vask_grp_variancep, vask_grp_skews,
          vask_grp_skewp},
         {&b, &g, &e},
         view},
        {"vask_grp_2_args_statistical_func",
         {vask_grp_covars, vask_grp_covarp, vask_grp_correl, vask_grp_slope, vask_grp_intercept},
         {&b, &b, &g, &e},
         view},
        {order, {vask_grp_median, vask_grp_mode}, {&b, &g, &e}, sealed_view},
        {order, {vask_grp_quartile}, {&b, &quartile, &g, &e}, sealed_view},
        {order, {vask_grp_percentile}, {&b, &share, &g, &e}, sealed_view},
        {order, {vask_grp_largest}, {&b, &rank, &g, &e}, sealed_view},
        {"vask_ops.coSNNandUnion", {vask_coSNNandUnion}, {&b, &b}, sealed},
        {"vaskops_are_bat_indexes_contained",
         {vaskops_are_bat_indexes_contained},
         {&g, &g},
         sealed_view},
    };
    for (const auto &f : families)
        for (const any_operator &call : f.operators)
            for (const operation op : f.calls) {
                SCOPED_TRACE(std::string(f.place) + ", " + operation_name(op));
                refkernel::instrumentation::watch kernel;
                kernel.fail_at(op, 1);
                expect_refused(call, f.inputs, {f.place, "operation failed"});
                EXPECT_EQ(kernel.failures(), 1U);
            }
}

// No exception string but the place's own text, not to be freed.
TEST(Refusals, OfTypesWithoutAnOrderAreThePlacesOwnText) {
    const bat texts = refkernel::make_text_column(std::vector<std::string_view>{"a"});
    const bat oids = refkernel::make_void_column(1, 10);
    const bat rank = parameter<lng>(1);
    const leak_guard leaks;
    for (const bat *b : {&texts, &oids}) {
        std::int32_t slot = 5;
        for (char *answer :
             {vask_largest(&slot, b->slot(), rank.slot()), vask_mode(&slot, b->slot()),
              vask_grp_mode(&slot, b->slot(), oids.slot(), oids.slot()),
              vask_grp_largest(&slot, b->slot(), rank.slot(), oids.slot(), oids.slot())}) {
            EXPECT_STREQ(answer, "statistics.func");
            EXPECT_EQ(refkernel::take_exception(answer).text, "statistics.func");
        }
        EXPECT_EQ(slot, 5);
    }
}

} // namespace
