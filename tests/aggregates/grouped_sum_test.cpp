#include "aggregates/grouped_check.h"
#include "vask_ops.h"

#include <gtest/gtest.h>

namespace {

int sum_type(int type) {
    return type == TYPE_bte || type == TYPE_sht || type == TYPE_int ? int{TYPE_lng} : type;
}

TEST(GroupedSum, AgreesWithThePlainSumOnAllShapes) {
    support::check_grouped<plain::sum>(vask_grp_sum, sum_type);
}

TEST(GroupedSum, OfRowsThatAreGroupsIsTheValue) {
    support::for_each_arithmetic_type([]<class T>(int type) {
        using result = typename plain::sum<T>::result;
        support::check_row_groups<result, T>(vask_grp_sum, type, sum_type(type), [](T v) {
            return v == refkernel::nil_of<T>() ? refkernel::nil_of<result>()
                                               : static_cast<result>(v);
        });
    });
}

} // namespace
