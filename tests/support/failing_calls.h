// Making the kernel fail at each call of an operation in turn.
#pragma once

#include "vask/refkernel/instrumentation.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

namespace support {

//! Runs `run(prepared, kernel, failed)` with the n-th call of an operation failing, for all n there
//! are and then once without a failure. `prepared` comes from `prepare()`, whose calls do not
//! count; `failed()` tells whether the call was reached.
template <class Prepare, class Run>
void fail_each_call(refkernel::instrumentation::operation op, Prepare prepare, Run run) {
    for (std::uint64_t nth = 1;; ++nth) {
        SCOPED_TRACE(std::string(operation_name(op)) + " " + std::to_string(nth));
        ASSERT_LT(nth, 1000U) << "fails for ever";
        auto prepared = prepare();
        refkernel::instrumentation::watch kernel;
        kernel.fail_at(op, nth);
        run(prepared, kernel, [&] { return kernel.failures() != 0; });
        if (kernel.failures() == 0) {
            EXPECT_GT(nth, 1U) << "never called";
            return;
        }
    }
}

} // namespace support
