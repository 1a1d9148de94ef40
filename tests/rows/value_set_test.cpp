#include "rows/value_set.h"

#include "kernel/hostile.h"
#include "rows/keys.h"
#include "rows/range_tasks.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <random>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

namespace {

using vask::value_set;

template <class Value>
struct ValueSet : testing::Test {};
using widths = testing::Types<std::uint32_t, std::uint64_t>;
TYPED_TEST_SUITE(ValueSet, widths);

TYPED_TEST(ValueSet, HoldsWhatItWasMadeOf) {
    using value = TypeParam;
    struct drawing {
        const char *name;
        std::function<value(std::mt19937_64 &)> draw;
    };
    const drawing drawings[] = {
        {"around 0", [](auto &r) { return static_cast<value>(r() % 4001 - 2000); }},
        {"few, far apart", [](auto &r) { return static_cast<value>(r() % 300) << 20; }},
        {"any", [](auto &r) { return static_cast<value>(r()); }},
        {"high bits", [](auto &r) { return static_cast<value>(r() << (8 * sizeof(value) - 18)); }},
        // The last lines of a table overflow, and what they cannot hold lies in its first ones.
        {"hashes that begin with ones",
         [](auto &r) {
             auto v = static_cast<value>(r());
             while (!vask::is_hostile && vask::bit_keys<value>::hash(v) >> 62 != 3)
                 v = static_cast<value>(r());
             return v;
         }},
    };
    std::mt19937_64 random(5);
    for (const drawing &d : drawings)
        // One that takes no table, one table, and areas that several tasks fill.
        for (const std::size_t n : {1U, 700U, vask::unless_hostile(50'000U, 2'000U),
                                    vask::unless_hostile(300'000U, 4'000U)})
            for (const std::uint64_t most_bits : {std::uint64_t{0}, std::uint64_t{1} << 16}) {
                SCOPED_TRACE(std::string(d.name) + ", " + std::to_string(n) + ", bits " +
                             std::to_string(most_bits));
                std::vector<value> values(n);
                for (value &v : values)
                    v = d.draw(random);
                if (n > 1 && random() % 2 == 0)
                    values[n / 2] = 0;
                const std::unordered_set<value> known(values.begin(), values.end());
                std::vector<value> asked{0, 1, std::numeric_limits<value>::max()};
                for (std::size_t i = 0; i < 3000; ++i)
                    asked.push_back(i % 2 == 0 ? values[random() % n] : d.draw(random));
                const value_set<value> set(values, most_bits, vask::run_as_tasks, 3);
                std::vector<bit> found(asked.size(), 0x55);
                set.mark(asked.data(), asked.size(), found.data());
                for (std::size_t i = 0; i < asked.size(); ++i)
                    ASSERT_EQ(found[i], known.contains(asked[i]) ? 1 : 0)
                        << "value " << asked[i] << " at " << i;
            }
}

} // namespace
