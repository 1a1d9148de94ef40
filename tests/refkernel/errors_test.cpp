// Exceptions, error buffers, the end of the process, output.
#include "vask/embed.h"
#include "vask/refkernel/instrumentation.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace {

using namespace refkernel;

TEST(Errors, ExceptionsReadBackAsTheyWereMade) {
    const checkpoint before;
    const instrumentation::watch kernel;
    EXPECT_EQ(take_exception(createException(0, "vask_sum_wrapper", "Object not found")),
              (operator_failure{"vask_sum_wrapper", "Object not found"}));
    EXPECT_EQ(take_exception(createException(0, "vask_count_asterisk", nullptr)),
              (operator_failure{"vask_count_asterisk", ""}));
    EXPECT_EQ(take_exception(createException(0, "group.new", "a: %d %s\n", 7, "b")),
              (operator_failure{"group.new", "a: 7 b\n"}));
    EXPECT_EQ(take_exception(nullptr), operator_failure{});
    char place_alone[] = "statistics.func"; // nobody's to free
    EXPECT_EQ(take_exception(place_alone),
              (operator_failure{"statistics.func", "statistics.func"}));
    char *kept = createException(0, "p", "t");
    EXPECT_STREQ(kept, "p:t");
    EXPECT_EQ(kernel.bytes_outstanding(), 4U);
    GDKfree(kept);
    EXPECT_EQ(before.leaks(), "");
}

TEST(Errors, EachThreadHasItsOwnBuffer) {
    clear_error_buffer();
    GDKerror("first %d\n", 1);
    std::thread([] {
        EXPECT_EQ(error_buffer(), "");
        GDKerror("other\n");
        EXPECT_EQ(error_buffer(), "other\n");
    }).join();
    GDKerror("second\n");
    EXPECT_EQ(error_buffer(), "first 1\nsecond\n");
    clear_error_buffer();
    EXPECT_EQ(error_buffer(), "");
}

std::string fatal_message;

TEST(ErrorsDeathTest, FatalEndsTheProcessUnlessHandled) {
    const auto previous = set_fatal_handler([](const char *message) {
        fatal_message = message;
        return 0;
    });
    EXPECT_EQ(GDKfatal("hash build failed on %s.\n", "tmp_1"), 0);
    EXPECT_EQ(fatal_message, "hash build failed on tmp_1.\n");
    set_fatal_handler(previous);
    EXPECT_EXIT(GDKfatal("no way on: %d\n", 3), testing::ExitedWithCode(1), "no way on: 3");
}

TEST(Errors, OutputIsCapturedPerThreadAndNested) {
    EXPECT_EQ(THRgetdata(1), nullptr);
    const output_capture outer;
    EXPECT_EQ(THRprintf(THRgetdata(0), "#%s: %d\n", "one", 1), 8);
    {
        const output_capture inner;
        THRprintf(THRgetdata(0), "two");
        EXPECT_EQ(inner.text(), "two");
        std::thread([] {
            const output_capture others;
            THRprintf(THRgetdata(0), "elsewhere");
            EXPECT_EQ(others.text(), "elsewhere");
        }).join();
    }
    THRprintf(THRgetdata(0), "three");
    EXPECT_EQ(outer.text(), "#one: 1\nthree");
    const lng start = GDKusec();
    EXPECT_GE(GDKusec(), start);
}

} // namespace
