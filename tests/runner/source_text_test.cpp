#include "runner/source_text.h"

#include "runner/csv_header.h"

#include "temporary_file.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zstd.h>

namespace vask::runner {
namespace {

// A compressed file may be larger than memory once it is unpacked.
TEST(SourceText, ACompressedFileIsUnpackedWholeOnlyIfItsTextIsAskedFor) {
    std::string text = "a,b\n";
    while (text.size() < 100'000)
        text += std::to_string(text.size()) + ",2\n";
    std::string packed(ZSTD_compressBound(text.size()), '\0');
    packed.resize(ZSTD_compress(packed.data(), packed.size(), text.data(), text.size(), 1));
    const temporary_file file(packed);
    const source_text source(file.path(), 1000);
    EXPECT_EQ(read_header(source, {}, {}).names, (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(source.is_packed()) << "the header is in the start";
    EXPECT_EQ(source.start(), text.substr(0, 1000));
    EXPECT_EQ(source.text(), text);
    EXPECT_FALSE(source.is_packed()) << "all of it is held";
    EXPECT_EQ(source.text().data(), source.text().data()) << "unpacked again";
}

} // namespace
} // namespace vask::runner
