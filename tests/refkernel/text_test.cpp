// Text columns: what is stored is what is read, however wide the offsets become.
#include "tests/refkernel/leak_checked.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace refkernel;

using Texts = leak_checked;

// The offset as every operator reads it.
std::uint32_t offset_of(const BAT &b, BUN row) {
    const BUN p = b.info->first + row;
    switch (b.tail->width) {
        case 1:
            return static_cast<const std::uint8_t *>(b.tail->base)[p] + 256U;
        case 2:
            return static_cast<const std::uint16_t *>(b.tail->base)[p] + 256U;
        default:
            return static_cast<const std::uint32_t *>(b.tail->base)[p];
    }
}

std::vector<std::optional<std::string>> some_texts(std::size_t count, std::size_t distinct,
                                                   std::size_t longest, std::mt19937_64 &random) {
    std::vector<std::optional<std::string>> pool(distinct);
    for (auto &text : pool) {
        if (random() % 16 != 0) {
            text.emplace(random() % (longest + 1), 'x');
            for (char &c : *text)
                c = static_cast<char>('a' + random() % 3);
        }
    }
    std::vector<std::optional<std::string>> texts(count);
    for (auto &text : texts)
        text = pool[random() % distinct];
    return texts;
}

void expect_texts(const bat &b, const std::vector<std::optional<std::string>> &expected,
                  text_sharing sharing) {
    ASSERT_EQ(b.count(), expected.size());
    std::map<std::string, std::uint32_t> first_offset;
    std::set<std::uint32_t> offsets;
    for (BUN i = 0; i < b.count(); ++i) {
        const std::uint32_t offset = offset_of(*b.record(), i);
        ASSERT_GE(offset, 256U);
        const std::string text = b->tail->vheap->vbase + std::size_t{offset} * 8;
        ASSERT_EQ(text, expected[i].value_or(std::string(nil_bytes(b.type())))) << "row " << i;
        ASSERT_EQ(b.text(i), text);
        ASSERT_EQ(b.is_nil(i), !expected[i]) << "row " << i;
        if (sharing == text_sharing::once)
            ASSERT_EQ(first_offset.try_emplace(text, offset).first->second, offset);
        else
            ASSERT_TRUE(offsets.insert(offset).second) << "row " << i;
    }
    const bool nils = std::ranges::any_of(expected, [](const auto &text) { return !text; });
    EXPECT_EQ(b->tail->nil, nils);
}

TEST_F(Texts, ReadBackFromEveryWidthThroughTheBuilderAndThroughAppends) {
    std::mt19937_64 random(77);
    std::set<int> widths;
    for (const std::size_t count : {0U, 1U, 15U, 16U, 17U, 300U, 5000U, 90000U}) {
        for (const std::size_t distinct : {std::size_t{1}, std::size_t{40}, count + 1}) {
            for (const auto sharing : {text_sharing::once, text_sharing::anew}) {
                const std::size_t longest = count > 10000 ? 20 : random() % 2 == 0 ? 9 : 3000;
                const auto texts = some_texts(count, distinct, longest, random);
                const int type = random() % 2 == 0 ? TYPE_str : type_tag;
                const column_options options{.first = static_cast<BUN>(random() % 3),
                                             .writable = true};
                const int least_width = 1 << random() % 3;
                text_builder builder({type, sharing, least_width});
                BAT *appended = BATnew(TYPE_void, type, 0);
                for (oid i = 0; i < count; ++i) {
                    texts[i] ? builder.append(*texts[i]) : builder.append_nil();
                    const std::string value = texts[i].value_or(std::string(nil_bytes(type)));
                    ASSERT_NE(BUNfastins(appended, &i, value.c_str()), nullptr);
                }
                ASSERT_EQ(builder.rows(), count);
                const bat built = builder.finish(options);
                EXPECT_EQ(builder.rows(), 0U);
                EXPECT_GE(built->tail->width, least_width);
                EXPECT_EQ(built->tail->nonil, !built->tail->nil);
                widths.insert(built->tail->width);
                expect_texts(built, texts, sharing);
                expect_texts(bat::adopt(appended), texts, text_sharing::once);

                const bat copy = bat::adopt(BATcopy(built.record(), TYPE_oid, type, 1));
                expect_texts(copy, texts, sharing);
            }
        }
    }
    EXPECT_EQ(widths, (std::set{1, 2, 4}));
}

TEST_F(Texts, WidenOnlyWhenAnOffsetDoesNotFit) {
    for (const auto &[offset, width] : std::map<std::uint32_t, int>{
             {256, 1}, {511, 1}, {512, 2}, {65791, 2}, {65792, 4}, {0xffffffff, 4}}) {
        const bat b = make_text_column(std::vector<std::string_view>{"a", "b", "a"},
                                       {.first = 2, .writable = true});
        ASSERT_EQ(b->tail->width, 1);
        ASSERT_NE(GDKupgradevarheap(b->tail, offset, 0), 0);
        EXPECT_EQ(b->tail->width, width) << offset;
        EXPECT_EQ(1 << b->tail->shift, width);
        EXPECT_EQ(b->tail->free, 5U * static_cast<unsigned>(width));
        EXPECT_EQ(b.text(0), "a");
        EXPECT_EQ(b.text(1), "b");
        EXPECT_EQ(b.text(2), "a");
    }
}

TEST_F(Texts, EndAtAZeroByteAndMayHaveAnyLength) {
    text_builder builder;
    const std::string long_text(100000, 'q');
    const std::vector<std::string_view> texts = {{"ab\0cd", 5}, "ab",       "",
                                                 {"\0", 1},     long_text,  str_nil_text,
                                                 "abcdefg",     "abcdefgh", "abcdefghi"};
    builder.append_all(texts);
    for (const std::string_view text : texts)
        builder.append(text);
    const bat b = builder.finish();
    const std::vector<std::string_view> expected = {
        "ab", "ab", "", "", long_text, str_nil_text, "abcdefg", "abcdefgh", "abcdefghi"};
    for (BUN i = 0; i < b.count(); ++i) {
        EXPECT_EQ(b.text(i), expected[i % expected.size()]);
        EXPECT_EQ(offset_of(*b.record(), i), offset_of(*b.record(), i % 9));
    }
    EXPECT_EQ(offset_of(*b.record(), 0), offset_of(*b.record(), 1));
    EXPECT_TRUE(b->tail->nil && b.is_nil(5));
}

TEST_F(Texts, AnAppendToOneColumnLeavesTheOthersOfItsHeapAlone) {
    const std::vector<std::string_view> texts = {"one", "two", "one"};
    const bat source = make_text_column(texts, {.writable = true});
    const bat view = bat::adopt(VIEWcreate(source.record(), source.record()));
    const char *memory = view->tail->vheap->vbase;
    oid next = 3;
    for (int i = 0; i < 5000; ++i, ++next) {
        const std::string text = i % 2 == 0 ? "two" : "text " + std::to_string(i);
        ASSERT_NE(BUNfastins(source.record(), &next, text.c_str()), nullptr);
    }
    EXPECT_EQ(view->tail->vheap->vbase, memory);
    for (BUN i = 0; i < 3; ++i) {
        EXPECT_EQ(view.text(i), texts[i]);
        EXPECT_EQ(source.text(i), texts[i]);
    }
    EXPECT_EQ(source.text(5002), "text 4999");
    EXPECT_EQ(offset_of(*source.record(), 3), offset_of(*source.record(), 1))
        << "equal texts are found again after the heap was cloned";
}

} // namespace
