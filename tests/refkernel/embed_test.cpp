// What embed.h adds for programs, as they write it: beside the standard library's names.
#include "vask/embed.h"
#include "vask/ops.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <exception>
#include <functional>
#include <initializer_list>
#include <limits>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <valarray>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace std;
using namespace refkernel;

// Every name of the layer, where the standard library's stand beside them.
TEST(Embed, NamesDoNotMeetTheStandardLibrarys) {
    const checkpoint before;
    {
        const bat numbers = make_column<int32_t>(vector{1, 2, 3});
        const bat rows = view_rows(numbers, 1, 2);
        const operator_failure failure = take_exception(nullptr);
        EXPECT_EQ(failure.text, "");
        EXPECT_EQ(rows.count(), 2U);
        EXPECT_TRUE(is_nil(nil_of<double>()));
        EXPECT_FALSE(is_nil(0.0));
    }
    EXPECT_EQ(before.leaks(), "");
}

TEST(Embed, MedianOfThreeNumbersIsTheMiddleOne) {
    EXPECT_EQ(call<double>(vask_median, make_column<int32_t>(vector{1, 2, 3})), 2.0);
}

template <class T>
void expect_nils_found() {
    const T nil = nil_of<T>();
    for (const size_t rows : initializer_list<size_t>{1, 2, 7, 64, 1000}) {
        for (const BUN first : initializer_list<BUN>{0, 3}) {
            vector<T> values(rows, T{1});
            const column_options options{.first = first};
            EXPECT_EQ(make_column(span<const T>(values), options).nils(), nil_knowledge::none);
            EXPECT_EQ(make_column(vector(values), options).nils(), nil_knowledge::none);
            EXPECT_EQ(borrow_column(span<const T>(values), {}, options).nils(),
                      nil_knowledge::none);
            for (const size_t at : {size_t{0}, rows / 2, rows - 1}) {
                vector<T> holed = values;
                holed[at] = nil;
                EXPECT_EQ(make_column(span<const T>(holed), options).nils(), nil_knowledge::some)
                    << rows << " rows, nil at " << at;
                EXPECT_EQ(make_column(vector(holed), options).nils(), nil_knowledge::some);
            }
        }
    }
}

TEST(Embed, NilsAreLookedFor) {
    expect_nils_found<int8_t>();
    expect_nils_found<int16_t>();
    expect_nils_found<int32_t>();
    expect_nils_found<oid>();
    expect_nils_found<int64_t>();
    expect_nils_found<float>();
    expect_nils_found<double>();
    EXPECT_EQ(make_column(vector<int32_t>{}).nils(), nil_knowledge::none);
    const double nan = numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(make_column(vector{nan, -numeric_limits<double>::infinity(), -0.0}).nils(),
              nil_knowledge::none);
    // The nil of a user atom is its own: that of what it is stored as is a value.
    const int type =
        register_atom({.name = "embed_test_nine", .storage = TYPE_int, .nil = {"\x9\0\0\0", 4}});
    const column_options nine{.type = type};
    EXPECT_EQ(make_column(vector{1, 9}, nine).nils(), nil_knowledge::some);
    EXPECT_EQ(make_column(vector{1, nil_of<int32_t>()}, nine).nils(), nil_knowledge::none);
}

TEST(Embed, MarksThatAreGivenStay) {
    const vector<int32_t> holed{1, nil_of<int32_t>()};
    EXPECT_EQ(make_column(span(holed), {.tail = {.nonil = true}}).nils(), nil_knowledge::none);
    EXPECT_EQ(make_column(vector{1, 2}, {.tail = {.nil = true}}).nils(), nil_knowledge::some);
    EXPECT_EQ(make_column(span(holed), {.look_for_nils = false}).nils(), nil_knowledge::unknown);
    const bat sorted = make_column(vector{1, 2}, {.tail = {.sorted = true, .key = true}});
    EXPECT_EQ(sorted->tail->sorted, SORTED_ASCENDING);
    EXPECT_EQ(sorted.nils(), nil_knowledge::none);
}

// One refusal in the operator's words, three in the program's.
TEST(Embed, RefusalsTellNilsVoidColumnsAndMissingMarksApart) {
    const auto refusal = [](const bat &column) -> string {
        try {
            call<double>(vask_median, column);
        } catch (const operator_error &error) {
            EXPECT_EQ(error.failure().text, "operation failed");
            EXPECT_NE(error.failure().place, "");
            return string(error.what()).substr(error.failure().place.size());
        }
        return "none";
    };
    EXPECT_EQ(refusal(make_column(vector{1, nil_of<int32_t>()})),
              ": operation failed (2 rows of int with nils)");
    EXPECT_EQ(refusal(make_void_column(3)), ": operation failed (3 rows of a void column)");
    EXPECT_EQ(refusal(make_column(vector{1.0, 2.0}, {.look_for_nils = false})),
              ": operation failed (2 rows of dbl in which nobody looked for nils)");
    EXPECT_EQ(refusal(make_column(vector{1.0, 2.0})), "none");
}

TEST(Embed, CallsGiveResultsOrThrow) {
    const checkpoint before;
    {
        const bat ranks = make_column<int64_t>(vector<int64_t>{5, 1, 9, 3});
        EXPECT_EQ(call<int64_t>(vask_sum_lng, ranks), 18);
        int64_t count = 0;
        call(vask_count, &count, ranks);
        EXPECT_EQ(count, 4);
        EXPECT_EQ(call<double>(vask_percentile, ranks, scalar(1.0)), 9.0);
        EXPECT_EQ(call<double>(vask_quartile, ranks, scalar(0)), 1.0);
        const bat texts = make_text_column(vector<string_view>{"a", "b"});
        // Answered with the bare name of a place, which nobody may free.
        EXPECT_THROW(call<int64_t>(vask_mode, texts), operator_error);
        EXPECT_THROW(call<int64_t>(vask_largest, texts, scalar(1)), operator_error);
        EXPECT_THROW(call<bat>(vask_coSNNandUnion, texts, ranks), operator_error);
    }
    EXPECT_EQ(before.leaks(), "");
}

TEST(Embed, BorrowedMemoryIsReadInPlaceAndGivenBackOnce) {
    const vector<int32_t> values{4, 5, 6, 7};
    int released = 0;
    {
        bat column = borrow_column(span(values), [&] { ++released; });
        EXPECT_EQ(column.values<int32_t>().data(), values.data());
        bat rows = view_rows(column, 1, 2);
        column.reset();
        EXPECT_EQ(released, 0) << "the view still reads it";
        EXPECT_EQ(call<int64_t>(vask_sum_int, rows), 11);
    }
    EXPECT_EQ(released, 1);

    // An append takes memory of its own; the lender's stays as it is.
    {
        const bat column = borrow_column(span(values), [&] { ++released; }, {.writable = true});
        const oid head = 4;
        const int32_t more = 8;
        ASSERT_NE(BUNfastins(column.record(), &head, &more), nullptr);
        EXPECT_EQ(column.values<int32_t>()[4], 8);
    }
    EXPECT_EQ(released, 2);
    EXPECT_EQ(values, (vector{4, 5, 6, 7}));

    // Copied, empty, refused: given back all the same.
    EXPECT_EQ(borrow_column(span(values), [&] { ++released; }, {.first = 2}).values<int32_t>()[3],
              7);
    EXPECT_EQ(released, 3);
    EXPECT_EQ(borrow_column(span(values).first(0), [&] { ++released; }).count(), 0U);
    EXPECT_EQ(released, 4);
    EXPECT_THROW(borrow_column(span(values), [&] { ++released; }, {.type = TYPE_dbl}),
                 kernel_error);
    EXPECT_EQ(released, 5);
}

TEST(Embed, DictionaryColumnsReadLikeTheirWords) {
    const vector<string_view> words{"Oslo", "Rome", "", "Lima", "Rome"};
    mt19937 random(7);
    for (const auto sharing : {text_sharing::once, text_sharing::anew}) {
        for (const bool nils : {false, true}) {
            vector<int32_t> codes(5000);
            for (int32_t &code : codes)
                code = static_cast<int32_t>(random() % words.size());
            if (nils)
                codes[17] = no_word;
            const bat column = make_dictionary_column(words, codes, {}, {.sharing = sharing});
            ASSERT_EQ(column.count(), codes.size());
            EXPECT_EQ(column.nils(), nils ? nil_knowledge::some : nil_knowledge::none);
            for (BUN row = 0; row < column.count(); ++row) {
                ASSERT_EQ(column.is_nil(row), codes[row] == no_word) << row;
                if (codes[row] != no_word) {
                    ASSERT_EQ(column.text(row), words[static_cast<size_t>(codes[row])]) << row;
                }
            }
            // Both codes of a word are one group.
            EXPECT_EQ(group_by(column).groups(), nils ? 5U : 4U);
        }
    }
    EXPECT_THROW(make_dictionary_column(words, vector{0, 5}), kernel_error);
    EXPECT_THROW(make_dictionary_column(words, vector{-2}), kernel_error);
    // A word that reads like the nil is one.
    EXPECT_EQ(make_dictionary_column(vector{str_nil_text}, vector{0}).nils(), nil_knowledge::some);
    EXPECT_EQ(make_dictionary_column(vector{str_nil_text}, vector<int32_t>{}).nils(),
              nil_knowledge::none);
}

TEST(Embed, GroupsOfSeveralColumnsAgreeWithAMap) {
    const checkpoint before;
    {
        constexpr size_t rows = 3000;
        mt19937 random(11);
        vector<int32_t> a(rows), c(rows);
        vector<string> names(rows);
        map<tuple<int32_t, string, int32_t>, int64_t> expected;
        for (size_t i = 0; i < rows; ++i) {
            a[i] = static_cast<int32_t>(random() % 5);
            c[i] = static_cast<int32_t>(random() % 3);
            names[i] = string(1, static_cast<char>('a' + random() % 4));
            ++expected[{a[i], names[i], c[i]}];
        }
        const vector<string_view> views(names.begin(), names.end());
        const grouping groups =
            group_by(make_column(vector(a)), make_text_column(views), make_column(vector(c)));
        ASSERT_EQ(groups.groups(), expected.size());
        ASSERT_EQ(groups.map.count(), rows);
        for (BUN g = 0; g < groups.groups(); ++g) {
            const oid row = groups.extents.head_oid(g);
            EXPECT_EQ(groups.extents.values<wrd>()[g], (expected[{a[row], names[row], c[row]}]));
        }
    }
    EXPECT_EQ(before.leaks(), "");
}

TEST(Embed, ScalarsAreColumnsOfOneRow) {
    EXPECT_EQ(scalar(0.9).values<double>()[0], 0.9);
    EXPECT_EQ(scalar(int8_t{3}).type(), TYPE_bte);
    EXPECT_EQ(scalar("nine").text(0), "nine");
    EXPECT_EQ(scalar(1).count(), 1U);
}

} // namespace
