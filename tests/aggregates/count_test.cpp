#include "aggregates/column_check.h"
#include "aggregates/grouped_check.h"
#include "support/leak_guard.h"
#include "vask/ops.h"

#include <cstring>

#include <gtest/gtest.h>

namespace {

using refkernel::make_column;
using refkernel::nil_of;
using support::call_on_column;
using texts = std::vector<std::optional<std::string_view>>;

std::int64_t count_of(const refkernel::bat &column) {
    return call_on_column<std::int64_t>(vask_count, column);
}

TEST(Count, AgreesWithThePlainCount) {
    support::check_column<plain::count>(vask_count, 0);
}

//! Texts around the nil's own: its beginning, it and more, the empty one, and the nil.
texts draw_texts(std::mt19937 &random, BUN rows, std::string_view nil) {
    static const std::string longer(std::string(nil) + "x");
    const std::array<std::optional<std::string_view>, 5> choices = {
        nil.substr(0, nil.size() / 2), longer, "", "text", std::nullopt};
    texts drawn(rows);
    for (auto &text : drawn)
        text = choices[random() % choices.size()];
    return drawn;
}

TEST(Count, ComparesTextsUpToTheEndOfTheNil) {
    const int empty_nil = refkernel::register_atom({"empty_nil", TYPE_str, std::string(1, '\0')});
    std::mt19937 random(5);
    for (const int type : {int{TYPE_str}, refkernel::type_tag, empty_nil}) {
        const std::string_view nil = static_cast<const char *>(BATatoms[type].atom_null);
        for (const int offset_width : {1, 2, 4}) {
            for (const auto sharing :
                 {refkernel::text_sharing::once, refkernel::text_sharing::anew}) {
                const texts rows = draw_texts(random, 700, nil);
                const auto is_value = [&](const auto &text) { return text && *text != nil; };
                const auto column =
                    refkernel::make_text_column(rows, {.first = 3}, {type, sharing, offset_width});
                const support::kernel_settings settings(3);
                EXPECT_EQ(count_of(column), std::count_if(rows.begin(), rows.end(), is_value))
                    << "type " << type << ", offsets of " << offset_width << " bytes";
                std::vector<oid> ids(rows.size());
                for (oid &id : ids)
                    id = static_cast<oid>(random() % 3);
                const auto map = make_column(std::span<const oid>(ids), {.first = 3});
                const auto extents = refkernel::make_void_column(3);
                const auto result = support::call_grouped(vask_grp_count, column, map, extents);
                for (BUN j = 0; j < 3; ++j) {
                    std::int64_t expected = 0;
                    for (std::size_t i = 0; i < rows.size(); ++i)
                        expected += ids[i] == j && is_value(rows[i]);
                    EXPECT_EQ(result.values<std::int64_t>()[j], expected);
                }
                const auto singles = refkernel::make_void_column(700);
                const auto ones = support::call_grouped(
                    vask_grp_count, refkernel::make_text_column(rows, {}, {type}), singles,
                    singles);
                for (BUN i = 0; i < 700; ++i)
                    EXPECT_EQ(ones.values<std::int64_t>()[i], is_value(rows[i]));
            }
        }
    }
}

TEST(Count, OfVoidAndEmptyColumnsNeedsNoRows) {
    const support::kernel_settings settings(2);
    const refkernel::instrumentation::watch kernel;
    EXPECT_EQ(count_of(refkernel::make_void_column(9, 4)), 9);
    EXPECT_EQ(count_of(refkernel::make_void_column(9, oid_nil)), 0);
    const refkernel::column_options bits{.type = TYPE_bit};
    EXPECT_EQ(count_of(make_column(std::vector<std::int8_t>{}, bits)), 0)
        << "empty, of a type that has no count";
    EXPECT_EQ(kernel.calls(refkernel::instrumentation::operation::bat_access), 0U);
}

TEST(CountAsterisk, CountsEveryRow) {
    const auto nils = make_column(std::vector<std::int32_t>(5, nil_of<std::int32_t>()));
    EXPECT_EQ(call_on_column<std::int64_t>(vask_count_asterisk, nils), 5);
}

TEST(GroupedCount, AgreesWithThePlainCountUnderBothNames) {
    support::check_grouped<plain::count>(vask_grp_count, 0);
    support::check_grouped<plain::count>(vask_grp_count_asterisk, 0);
}

TEST(GroupedCount, OfRowsThatAreGroupsIsOneForAValue) {
    support::for_each_arithmetic_type([]<class T>(int type) {
        support::check_row_groups<vask::count_result<T>, T>(
            vask_grp_count, type, [](T v) { return v != nil_of<T>() ? 1 : 0; });
    });
}

TEST(GroupedCount, OfVoidValuesHasTheShapeAlone) {
    const auto values = refkernel::make_void_column(4);
    const auto map = make_column(std::vector<oid>{0, 1, 0, 1});
    const auto extents = refkernel::make_void_column(2);
    refkernel::instrumentation::watch kernel;
    const support::leak_guard leaks;
    const auto result = support::call_grouped(vask_grp_count, values, map, extents);
    support::expect_grouped_shape(result, extents, TYPE_wrd, false);
    EXPECT_EQ(kernel.calls(refkernel::instrumentation::operation::bat_access), 0U);
}

TEST(GroupedCount, OfOidsIsByTheirOwnNil) {
    const auto values = make_column(std::vector<oid>{1, oid_nil, 0, oid_nil});
    const auto map = make_column(std::vector<oid>{0, 1, 0, 0});
    const auto extents = refkernel::make_void_column(2);
    const auto result = support::call_grouped(vask_grp_count, values, map, extents);
    EXPECT_EQ(result.values<std::int64_t>()[0], 2);
    EXPECT_EQ(result.values<std::int64_t>()[1], 0);
}

} // namespace
