// The order of texts, beside that of comparing them one by one.
#include "table/text_order.h"

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace vask::table {
namespace {

void expect_order(const std::set<std::string> &different, std::mt19937 &random) {
    std::vector<std::string_view> texts(different.begin(), different.end());
    std::shuffle(texts.begin(), texts.end(), random);
    const std::vector<std::int32_t> order = order_of_texts(texts);
    ASSERT_EQ(order.size(), texts.size());
    std::size_t i = 0;
    for (const std::string &expected : different) // a set is in order
        ASSERT_EQ(texts[static_cast<std::size_t>(order[i++])], expected) << i;
}

TEST(TextOrder, IsThatOfTheBytes) {
    constexpr unsigned seed = 7;
    std::mt19937 random(seed);
    expect_order({}, random);
    expect_order({""}, random);
    expect_order({"", std::string(1, '\0'), std::string(9, '\0'), std::string(8, '\0')}, random);
    // Texts that end within their first eight bytes, at them and behind; bytes of all values, and
    // few of them; what they begin with alike, and one that is no longer than that.
    for (const std::string_view begin :
         {"", "a", "customer-", "\x80\xff long beginning of all texts"})
        for (const unsigned values : {2U, 256U})
            for (const std::size_t most : {3U, 8U, 9U, 20U})
                for (const std::size_t count : {5U, 5000U}) {
                    std::set<std::string> different{std::string(begin)};
                    for (std::size_t i = 0; i < count; ++i) {
                        std::string text(begin);
                        for (std::size_t left = random() % (most + 1); left > 0; --left)
                            text += static_cast<char>(random() % values);
                        different.insert(std::move(text));
                    }
                    expect_order(different, random);
                }
}

// So many that they are dealt to buckets; nearly all of them alike for long, and long ones of which
// each begins with another.
TEST(TextOrder, OfMany) {
    constexpr unsigned seed = 8;
    std::mt19937 random(seed);
    for (const std::size_t alike : {0U, 8U, 30U}) {
        std::set<std::string> different{"", std::string(1, '\xff')};
        for (int i = 0; i < 100'000; ++i)
            different.insert(std::string(alike, i % 3 == 0 ? 'x' : 'y') +
                             std::to_string(random() % 1'000'000'000));
        expect_order(different, random);
    }
    std::set<std::string> chain;
    for (std::size_t size = 0; size < 2000; ++size)
        chain.insert(std::string(size, size % 2 == 0 ? 'a' : '\0'));
    expect_order(chain, random);
}

} // namespace
} // namespace vask::table
