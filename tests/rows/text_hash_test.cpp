#include "rows/text_hash.h"

#include "kernel/hostile.h"

#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>

#include <gtest/gtest.h>

namespace {

using vask::text_hash;

//! A heap of one text that ends with the text's last byte, as the address sanitizer sees.
std::uint32_t hash_at_the_end(const std::string &text) {
    const std::unique_ptr<char[]> heap(new char[text.size() + 1]);
    std::memcpy(heap.get(), text.c_str(), text.size() + 1);
    return text_hash{heap.get()}(heap.get());
}

//! A heap in which other texts follow, and what they leave behind a text's end is no zero.
std::uint32_t hash_inside(const std::string &text, char behind) {
    std::string heap = text;
    heap.resize((text.size() / 8 + 1) * 8 + 8, behind);
    heap[text.size()] = '\0';
    return text_hash{heap.data() + heap.size() - 8}(heap.data());
}

TEST(TextHash, IsTheSameWhereverATextLies) {
    std::mt19937 random(3);
    for (std::size_t length = 0; length < 40; ++length)
        for (int i = 0; i < 50; ++i) {
            std::string text(length, ' ');
            // Bytes on both sides of the sign, and those that tests for zero bytes mix up.
            for (char &c : text)
                c = "\x01\x02\x7f\x80\x81\xff"
                    "a"[random() % 7];
            const std::uint32_t hash = hash_at_the_end(text);
            for (const char behind : {'\0', '\1', '\x80', '\xff', 'z'})
                ASSERT_EQ(hash_inside(text, behind), hash) << ::testing::PrintToString(text);
        }
}

// Of texts that differ in a byte, a length or the order of words few share a hash.
TEST(TextHash, SeesEveryByte) {
    if (vask::is_hostile)
        GTEST_SKIP() << "it sees none";
    std::set<std::uint32_t> hashes;
    std::size_t texts = 0;
    const auto add = [&](const std::string &text) {
        hashes.insert(hash_inside(text, 'z'));
        ++texts;
    };
    for (std::size_t length = 0; length < 64; ++length) {
        add(std::string(length, 'a'));
        for (std::size_t at = 0; at < length; ++at) {
            std::string text(length, 'a');
            text[at] = 'b';
            add(text);
            text[at] = '\xe1'; // the same but for the topmost bit
            add(text);
        }
    }
    for (int i = 0; i < 20'000; ++i)
        add("id" + std::to_string(1'000'000 + i));
    add("first...second..");
    add("second..first...");
    // 24,083 texts would share a hash in a tenth of a pair on average.
    EXPECT_GE(hashes.size() + 3, texts);
}

} // namespace
