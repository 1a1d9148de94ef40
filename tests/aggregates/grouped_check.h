// Runs a grouped aggregate over all shapes of inputs and compares each result with the plain
// reference, element by element and mark by mark.
#pragma once

#include "aggregates/plain_aggregates.h"
#include "support/grouped_reference.h"
#include "support/kernel_settings.h"
#include "support/leak_guard.h"
#include "support/values.h"
#include "vask/refkernel/instrumentation.h"

#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace support {

using grouped_function = char *(*)(std::int32_t *, const std::int32_t *, const std::int32_t *,
                                   const std::int32_t *);

//! The result of a call that must succeed.
inline refkernel::bat call_grouped(grouped_function call, const refkernel::bat &values,
                                   const refkernel::bat &map, const refkernel::bat &extents) {
    std::int32_t id = 0;
    const auto failure =
        refkernel::take_exception(call(&id, values.slot(), map.slot(), extents.slot()));
    EXPECT_EQ(failure.text, "");
    return refkernel::bat::adopt(id);
}

//! Whether a result has the head of the extents and the given tail type, and is marked as having
//! nils exactly if it has.
inline void expect_grouped_shape(const refkernel::bat &result, const refkernel::bat &extents,
                                 int type, bool nil) {
    ASSERT_EQ(result.count(), extents.count());
    EXPECT_EQ(result.type(), type);
    EXPECT_EQ(result->tail->nil, nil);
    EXPECT_EQ(result->tail->nonil, !nil);
    EXPECT_EQ(result->tail->sorted, 0);
    EXPECT_EQ(result->state->access, unsigned{ACCESS_READ});
    EXPECT_TRUE(ALIGNsynced(result.record(), extents.record()));
    for (BUN j = 0; j < result.count(); ++j)
        ASSERT_EQ(result.head_oid(j), extents.head_oid(j));
}

//! Whether a result has for each group what `expected` makes of the group's rows, or the nil where
//! it gives nothing, under the head and marks of a grouped result.
template <class Result, class Rows, class Expected>
void expect_groups(const refkernel::bat &result, const refkernel::bat &extents, int type,
                   const std::vector<Rows> &groups, Expected expected) {
    bool any_nil = false;
    for (std::size_t j = 0; j < groups.size(); ++j) {
        const std::optional<Result> wanted = expected(groups[j]);
        any_nil |= !wanted;
        const Result got = result.values<Result>()[j];
        ASSERT_TRUE(same_value(got, wanted.value_or(refkernel::nil_of<Result>())))
            << "group " << j << " is " << +got << ", not "
            << +wanted.value_or(refkernel::nil_of<Result>());
    }
    expect_grouped_shape(result, extents, type, any_nil);
}

//! Aggregate<T> is the reference for columns of T; a group without a value has `empty` or, if that
//! is missing, the nil. Of the shapes, every `turns`th from `turn` on is taken.
template <template <class> class Aggregate>
void check_grouped(grouped_function call, std::optional<std::int64_t> empty = std::nullopt,
                   std::size_t turn = 0, std::size_t turns = 1) {
    const std::vector<grouped_shape> shapes = grouped_shapes();
    for (std::size_t i = turn; i < shapes.size(); i += turns) {
        const grouped_shape &shape = shapes[i];
        grouped_inputs inputs(shape);
        const int nil_percent = static_cast<int>(std::array{0, 0, 3, 50, 95, 100}[shape.seed % 6]);
        const auto values_spread = static_cast<spread>(shape.seed % 3);
        const std::int32_t threads = std::array{1, 2, 3, 8, 300}[shape.seed % 5];
        for_each_arithmetic_type([&]<class T>(int type) {
            using result = typename Aggregate<T>::result;
            const auto values =
                draw_values<T>(inputs.random(), shape.rows, nil_percent, values_spread);
            const auto rows =
                inputs.rows_by_group(plain_partitions(shape.rows, threads), [&](BUN row) {
                    return values[row] != refkernel::nil_of<T>();
                });

            const refkernel::bat column = refkernel::make_column(
                std::span<const T>(values), {.type = type, .first = shape.first});
            const kernel_settings settings(threads);
            const refkernel::instrumentation::watch kernel;
            SCOPED_TRACE(testing::Message() << shape << ", type " << type << ", nils "
                                            << nil_percent << "%, " << threads << " threads");
            const leak_guard leaks;
            const refkernel::bat answer = call_grouped(call, column, inputs.map, inputs.extents);
            expect_groups<result>(answer, inputs.extents, Aggregate<T>::types::code(type), rows,
                                  [&](const auto &group) -> std::optional<result> {
                                      const auto value =
                                          plain::result_of<Aggregate<T>>(group, values);
                                      return value || !empty ? value : static_cast<result>(*empty);
                                  });
        });
        if (testing::Test::HasFatalFailure())
            return;
    }
}

//! A map in which every row is a group of its own: row i of the result is `expected(v)` for value i
//! from position 0 on, whatever the first position of the values is; `Types` is the operator's line
//! of the table of result types.
template <class Types, class T, class Expected>
void check_row_groups(grouped_function call, int type, Expected expected) {
    using result = typename Types::type;
    std::mt19937 random(static_cast<std::uint32_t>(type));
    for (const BUN rows : {0U, 1U, 5U, 70'000U}) {
        for (const auto &[nil_percent, nil_first] :
             {std::pair(0, false), std::pair(0, true), std::pair(30, false)}) {
            auto values = draw_values<T>(random, rows + 3, nil_percent, spread::any);
            if (nil_first) // of no row that the last tasks see
                values.front() = refkernel::nil_of<T>();
            const refkernel::bat source =
                refkernel::make_column(std::span<const T>(values), {.type = type});
            const refkernel::bat column = refkernel::view_rows(source, 3, rows);
            const refkernel::bat groups = refkernel::make_void_column(rows, 7);
            const kernel_settings settings(2);
            const leak_guard leaks;
            const refkernel::bat answer = call_grouped(call, column, groups, groups);
            values.resize(rows);
            expect_groups<result>(answer, groups, Types::code(type), values,
                                  [&](T value) { return unless_nil<result>(expected(value)); });
        }
    }
}

} // namespace support
