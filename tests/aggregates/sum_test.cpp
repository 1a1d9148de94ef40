#include "aggregates/column_check.h"
#include "aggregates/grouped_check.h"
#include "vask_ops.h"

#include <gtest/gtest.h>

namespace {

using refkernel::make_column;
using refkernel::nil_of;
using support::call_on_column;
using support::failure_of;

int sum_type(int type) {
    return type == TYPE_bte || type == TYPE_sht || type == TYPE_int ? int{TYPE_lng} : type;
}

TEST(Sum, AgreesWithThePlainSumWhateverTheName) {
    support::check_column<plain::sum>(vask_sum_flt);
    for (const auto name : {vask_sum_bte, vask_sum_sht, vask_sum_int, vask_sum_wrd, vask_sum_lng,
                            vask_sum_flt, vask_sum_dbl})
        EXPECT_EQ(
            call_on_column<std::int64_t>(name, make_column(std::vector<std::int16_t>{300, -1})),
            299);
}

TEST(Sum, CancellingValuesGiveZeroAndWrappingMayGiveTheNil) {
    constexpr auto least = std::numeric_limits<std::int64_t>::min();
    const support::kernel_settings settings(2);
    EXPECT_EQ(call_on_column<std::int64_t>(
                  vask_sum_lng, make_column(std::vector<std::int64_t>{5, -5, nil_of<lng>()})),
              0);
    EXPECT_EQ(call_on_column<std::int64_t>(vask_sum_lng,
                                           make_column(std::vector<std::int64_t>{
                                               std::numeric_limits<std::int64_t>::max(), 1})),
              least);
    // Singly, -0.0 must not become the sum of an empty start: 0.0 + -0.0 is 0.0.
    EXPECT_FALSE(std::signbit(
        call_on_column<double>(vask_sum_dbl, make_column(std::vector<double>{-0.0, -0.0}))));
}

TEST(Sum, OtherTypesFailEvenWhenEmpty) {
    using refkernel::type_timestamp;
    for (const BUN rows : {0U, 3U}) {
        refkernel::column_options timestamps;
        timestamps.type = type_timestamp;
        const std::vector<refkernel::bat> columns = [&] {
            std::vector<refkernel::bat> made;
            made.push_back(refkernel::make_void_column(rows));
            made.push_back(make_column(std::vector<oid>(rows, 1)));
            made.push_back(make_column(std::vector<std::int64_t>(rows, 1), timestamps));
            made.push_back(refkernel::make_text_column(std::vector<std::string_view>(rows, "a")));
            for (const int one_byte : {TYPE_bit, TYPE_byte}) {
                timestamps.type = one_byte;
                made.push_back(make_column(std::vector<std::int8_t>(rows, 1), timestamps));
            }
            return made;
        }();
        const refkernel::checkpoint before;
        for (const auto &column : columns)
            EXPECT_EQ(failure_of(vask_sum_lng, column.slot()),
                      (refkernel::exception{"vask_sum_wrapper", "operation failed"}))
                << "type " << column.type();
        EXPECT_EQ(before.leaks(), "");
    }
}

TEST(Sum, AnUnknownBatIsNotFoundAndTracedOnRequest) {
    const support::kernel_settings settings(2);
    GDKdebug = DEBUG_RANGE_ERROR;
    const refkernel::output_capture output;
    for (const std::int32_t id : {0, int_nil, BBPsize})
        EXPECT_EQ(failure_of(vask_sum_int, &id),
                  (refkernel::exception{"vask_sum_wrapper", "Object not found"}));
    EXPECT_EQ(output.text(), "#BATdescriptor: range error " + std::to_string(BBPsize) + "\n");
}

TEST(GroupedSum, AgreesWithThePlainSumOnAllShapes) {
    support::check_grouped<plain::sum>(vask_grp_sum, sum_type);
}

TEST(GroupedSum, OfRowsThatAreGroupsIsTheValue) {
    support::for_each_arithmetic_type([]<class T>(int type) {
        using result = typename plain::sum<T>::result;
        support::check_row_groups<result, T>(vask_grp_sum, type, sum_type(type), [](T v) {
            return v == nil_of<T>() ? nil_of<result>() : static_cast<result>(v);
        });
    });
}

} // namespace
