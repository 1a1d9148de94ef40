#include "statistics/parameter.h"

#include "statistics/plain_statistics.h"
#include "vask/ops.h"
#include "vask/refkernel/instrumentation.h"

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace support;
using refkernel::bat;
using refkernel::nil_of;
using refkernel::take_exception;

//! What a statistic answers for 0, 10, 20, 30, 40, or the text with which it refuses.
template <class Statistic>
std::string answer(Statistic statistic, const bat &p) {
    const bat b = nonil_column(std::vector<double>{30, 0, 40, 10, 20});
    double result = -1;
    const refkernel::instrumentation::watch bytes; // of which a reader's text takes some
    const refkernel::checkpoint before;
    const auto failure = take_exception(statistic(&result, b.slot(), p.slot()));
    EXPECT_EQ(before.leaks(), "");
    if (!failure.text.empty()) {
        EXPECT_EQ(failure.place, "statistics.func");
        EXPECT_EQ(result, -1);
        return failure.text;
    }
    return std::to_string(std::lround(result));
}

TEST(Parameter, OfTheQuartile) {
    const auto ask = [](const bat &p) { return answer(vask_quartile, p); };
    EXPECT_EQ(ask(parameter<std::int8_t>(0)), "0");
    EXPECT_EQ(ask(parameter<std::int16_t>(1)), "10");
    EXPECT_EQ(ask(parameter<std::int32_t>(2)), "20");
    EXPECT_EQ(ask(parameter<std::int64_t>(3)), "30");
    EXPECT_EQ(ask(parameter<std::int64_t>(4, TYPE_wrd)), "40");
    EXPECT_EQ(ask(parameter(4.0F)), "40");
    EXPECT_EQ(ask(parameter(2.00000005)), "20");
    EXPECT_EQ(ask(parameter(1.99999995)), "20");
    for (const double bad :
         {2.001, 2.000001, 5.0, -1.0, 260.0, 1e300, nil_of<double>(),
          std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()})
        EXPECT_EQ(ask(parameter(bad)), quartile_text) << bad;
    EXPECT_EQ(ask(parameter(1.5F)), quartile_text);
    EXPECT_EQ(ask(parameter<std::int64_t>(300)), quartile_text);
    EXPECT_EQ(ask(parameter<std::int64_t>(258)), quartile_text) << "cut down to a byte it is 2";
    EXPECT_EQ(ask(parameter<std::int8_t>(nil_of<std::int8_t>())), quartile_text);
}

TEST(Parameter, OfThePercentile) {
    const auto ask = [](const bat &p) { return answer(vask_percentile, p); };
    EXPECT_EQ(ask(parameter(0.0)), "0");
    EXPECT_EQ(ask(parameter(1.0)), "40");
    EXPECT_EQ(ask(parameter(0.625F)), "25");
    EXPECT_EQ(ask(parameter<std::int8_t>(1)), "40");
    for (const double bad : {-1e-300, 1.0000001, nil_of<double>()})
        EXPECT_EQ(ask(parameter(bad)), percentile_text) << bad;
    EXPECT_EQ(ask(parameter(std::numeric_limits<double>::quiet_NaN())), "operation failed");
}

TEST(Parameter, OfTheLargest) {
    const auto ask = [](const bat &p) { return answer(vask_largest, p); };
    EXPECT_EQ(ask(parameter<std::int8_t>(1)), "40");
    EXPECT_EQ(ask(parameter(5.0)), "0");
    EXPECT_EQ(ask(parameter<std::int64_t>(0)), largest_text);
    EXPECT_EQ(ask(parameter<std::int64_t>(-3)), largest_text);
    EXPECT_EQ(ask(parameter(1e30)), largest_text);
    EXPECT_EQ(ask(parameter(0.5)), largest_text);
}

TEST(Parameter, IsTheFirstRowWhateverItsPosition) {
    const bat ranks = refkernel::make_column(std::vector<std::int64_t>{1, 2, 3, 4});
    EXPECT_EQ(answer(vask_largest, refkernel::view_rows(ranks, 1, 3)), "30");
}

TEST(Parameter, BatsThatAreRefused) {
    const auto ask = [](const bat &p) { return answer(vask_quartile, p); };
    EXPECT_EQ(ask(bat()), quartile_text);
    EXPECT_EQ(ask(parameter<std::uint32_t>(2)), quartile_text);
    EXPECT_EQ(ask(parameter<std::int8_t>(1, TYPE_bit)), quartile_text);
    EXPECT_EQ(ask(refkernel::make_void_column(1, 2)), quartile_text);
    EXPECT_EQ(ask(refkernel::make_text_column(std::vector<std::string_view>{"2"})), quartile_text);
    EXPECT_EQ(ask(refkernel::make_column(std::vector<std::int8_t>())), quartile_text);
}

TEST(Parameter, ReadersSayWhatIsWrong) {
    bte type = 0;
    lng value = 0;
    const auto read = [&](const bat &p) {
        return take_exception(vask::vask_read_lng_param(&value, &type, p.slot()));
    };
    EXPECT_EQ(read(parameter(3.0F)), refkernel::operator_failure{});
    EXPECT_EQ(value, 3);
    EXPECT_EQ(type, TYPE_flt);
    EXPECT_EQ(read(bat()).text, "Object not found");
    EXPECT_EQ(read(parameter<std::uint32_t>(2)).text, "Unsupported tail type");
    EXPECT_EQ(type, TYPE_oid);
    EXPECT_EQ(read(parameter(3.5)).text, "Invalid input parameter");
    EXPECT_EQ(read(parameter(nil_of<std::int16_t>())).text, "Invalid input parameter");
    EXPECT_EQ(read(refkernel::make_column(std::vector<std::int8_t>())).place, "statistics.func");
}

} // namespace
