// Grouping texts of which the heap holds many copies: far more places than groups.
#include "refkernel/embed.h"

#include <algorithm>
#include <map>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(RepeatedTexts, AreOneGroupWhereverTheyStand) {
    constexpr std::size_t rows = 20'000;
    constexpr std::size_t distinct = 300;
    refkernel::text_builder builder({.sharing = refkernel::text_sharing::anew});
    std::map<std::string, std::size_t> first_row;
    std::vector<oid> expected;
    for (std::size_t row = 0; row < rows; ++row) {
        const std::size_t number = row * 7919 % distinct;
        const std::string text = std::string(number, 'x').append(std::to_string(number));
        expected.push_back(static_cast<oid>(first_row.try_emplace(text, row).first->second));
        builder.append(text);
    }
    const refkernel::bat column = builder.finish();
    std::int32_t extents = int_nil;
    std::int32_t map = int_nil;
    ASSERT_EQ(GRPgroup(&extents, &map, column.slot()), nullptr);
    const refkernel::bat groups = refkernel::bat::adopt(extents);
    const refkernel::bat made = refkernel::bat::adopt(map);
    EXPECT_EQ(groups.count(), distinct);
    EXPECT_TRUE(std::ranges::equal(made.values<oid>(), expected));
}

} // namespace
