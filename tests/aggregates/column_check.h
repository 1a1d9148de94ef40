// Runs a whole-column aggregate over generated columns and compares with the plain reference.
#pragma once

#include "aggregates/plain_aggregates.h"
#include "rows/isa.h"
#include "support/grouped_reference.h"
#include "support/kernel_settings.h"
#include "support/leak_guard.h"
#include "support/values.h"
#include "vask/refkernel/instrumentation.h"

#include <array>
#include <string>

#include <gtest/gtest.h>

namespace support {

template <class Result>
using column_function = char *(*)(Result *, const std::int32_t *);

//! The bytes that a call that must succeed stores in its slot; the bytes behind them must stay.
template <class Result, class Slot>
Result call_on_column(column_function<Slot> call, const refkernel::bat &column) {
    constexpr char untouched = 0x6e;
    char slot[32];
    std::memset(slot, untouched, sizeof slot);
    const auto failure =
        refkernel::take_exception(call(reinterpret_cast<Slot *>(slot), column.slot()));
    EXPECT_EQ(failure.text, "");
    for (std::size_t i = sizeof(Result); i < sizeof slot; ++i)
        EXPECT_EQ(slot[i], untouched) << "byte " << i << " of the slot";
    Result result;
    std::memcpy(&result, slot, sizeof result);
    return result;
}

//! Aggregate<T> is the reference for columns of T; a column without a value has `empty` or, if that
//! is missing, the nil. All instruction sets of the machine must give the same.
template <template <class> class Aggregate, class Slot>
void check_column(column_function<Slot> call, std::optional<std::int64_t> empty = std::nullopt) {
    constexpr BUN sizes[] = {0,  1,  2,   3,   7,   8,   9,    15,     16,     17,     31,
                             33, 63, 100, 255, 256, 257, 1000, 65'535, 65'537, 140'000};
    std::mt19937 random(99);
    unsigned variant = 0;
    const auto check_type = [&]<class T>(int type) {
        using result = typename Aggregate<T>::result;
        for (const BUN rows : sizes) {
            for (const int nil_percent : {0, 1, 50, 99, 100}) {
                ++variant;
                const auto values =
                    draw_values<T>(random, rows, nil_percent, static_cast<spread>(variant % 3));
                const std::int32_t threads = std::array{1, 2, 3, 300}[variant / 3 % 4];
                const BUN partitions = plain_partitions(rows, threads);
                const auto parts = rows_by_partition(rows, partitions, [&](BUN row) {
                    return values[row] != refkernel::nil_of<T>();
                });
                const auto wanted = plain::result_of<Aggregate<T>>(parts, values);
                const result expected = wanted  ? *wanted
                                        : empty ? static_cast<result>(*empty)
                                                : refkernel::nil_of<result>();
                refkernel::column_options b{.type = type, .first = variant % 2 ? 5U : 0U};
                // The marks are no reason to look at fewer rows.
                b.tail.nonil = b.tail.sorted = variant % 5 == 0;
                const refkernel::bat column = refkernel::make_column(std::span<const T>(values), b);
                const kernel_settings settings(threads);
                const refkernel::instrumentation::watch kernel;
                const leak_guard leaks;
                for (const auto set : {vask::instruction_set::baseline, vask::instruction_set::avx2,
                                       vask::instruction_set::avx512}) {
                    vask::limit_instruction_set(set);
                    const auto got = call_on_column<result>(call, column);
                    ASSERT_TRUE(same_value(got, expected))
                        << "type " << type << ", " << rows << " rows, nils " << nil_percent
                        << "%, variant " << variant << ", " << threads << " threads, set "
                        << static_cast<int>(set) << ": " << +got << " for " << +expected;
                }
                vask::limit_instruction_set(vask::widest_instruction_set());
            }
        }
    };
    for_each_arithmetic_type(check_type);
}

} // namespace support
