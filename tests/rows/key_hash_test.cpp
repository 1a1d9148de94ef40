#include "rows/key_hash.h"

#include <gtest/gtest.h>

namespace {

using namespace vask;

// Worked out by hand from the definition.
TEST(KeyHash, MixAndTextHash) {
    EXPECT_EQ(vask_hash_mix(0), 0U);
    EXPECT_EQ(vask_hash_mix(1), 0x81U);
    EXPECT_EQ(vask_hash_mix(0x80000000), 0x80000040U ^ 0x40400U);
    EXPECT_EQ(vask_str_hash(""), 0U);
    EXPECT_EQ(vask_str_hash("a"), 97U);
    EXPECT_EQ(vask_str_hash("ab"), 97U * 31 + 98);
    EXPECT_EQ(vask_str_hash("\xff"), 0xffffffffU);
    EXPECT_EQ(vask_str_hash("a\x80"), 97U * 31 - 128);
    EXPECT_EQ(hash_word(bte{-1}), 0xffffffffU);
    EXPECT_EQ(hash_word(sht{-2}), 0xfffffffeU);
    EXPECT_EQ(hash_word(lng{0x0000000500000003}), 6U);
    EXPECT_EQ(hash_word(-0.0F), 0x80000000U);
    EXPECT_EQ(hash_word(-0.0), 0x80000000U);
}

} // namespace
