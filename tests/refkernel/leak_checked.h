// A test after which the kernel must hold what it held before.
#pragma once

#include "vask/embed.h"

#include <gtest/gtest.h>

namespace refkernel {

class leak_checked : public testing::Test {
protected:
    checkpoint before;
    void TearDown() override { EXPECT_EQ(before.leaks(), ""); }
};

} // namespace refkernel
