// Files that somebody writes to while they are read.
#include "runner/chunk_reader.h"
#include "runner/source_text.h"
#include "runner/table_loader.h"

#include "temporary_file.h"

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>
#include <zstd.h>

namespace vask::runner {
namespace {

// Somebody puts more records into a place than were counted there.
TEST(ChangingFile, MoreRecordsThanWereCountedAreNoRows) {
    // Records that are split at one go, and with quotes one by one.
    for (const std::string text : {"1\n2\n3\n4\n", "\"1\"\n2\n3\n4\n"}) {
        std::vector<std::int32_t> values(4, -7);
        const std::vector<column_target> targets{
            {.wanted = true, .type = column_type::int_, .values = values.data()}};
        const csv_dialect dialect;
        const missing_words missing({});
        const chunk_outcome outcome = read_chunk(
            text, {0, text.size(), 2}, {.dialect = dialect, .missing = missing}, targets, 0);
        ASSERT_TRUE(outcome.fault.has_value()) << text;
        EXPECT_EQ(outcome.fault->what, load_fault::kind::changed);
        EXPECT_EQ(values[2], -7);
        EXPECT_EQ(values[3], -7);
    }
}

TEST(ChangingFile, ChangesAreNoticedAndGrowthIsNot) {
    const temporary_file file("x\n1\n2\n");
    const source_text text(file.path());
    EXPECT_FALSE(text.was_changed());
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // more than a tick of the clock
    std::ofstream(file.path(), std::ios::app) << "3\n";
    EXPECT_FALSE(text.was_changed());
    EXPECT_EQ(text.text(), "x\n1\n2\n");
    const source_text other(file.path());
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::fstream(file.path(), std::ios::in | std::ios::out) << "y";
    EXPECT_TRUE(other.was_changed());
    const source_text cut(file.path());
    ASSERT_EQ(::truncate(file.path().c_str(), 2), 0);
    EXPECT_TRUE(cut.was_changed());
}

// Each of several files, and the one that was written to is named.
TEST(ChangingFile, AnyOfSeveralFiles) {
    const temporary_file first("x\n1\n2\n");
    const temporary_file second("x\n3\n4\n");
    for (const temporary_file *const changed : {&first, &second}) {
        const source_text one(first.path());
        const source_text other(second.path());
        const csv_header header{{"x"}, 2, 1};
        const load_request request{
            .dialect = {}, .wanted = {true}, .forced = {}, .further = {{&other, 2}}};
        EXPECT_EQ(load_table(one, header, request).rows, 4U);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::fstream(changed->path(), std::ios::in | std::ios::out) << "x\n5";
        try {
            load_table(one, header, request);
            FAIL() << changed->path();
        } catch (const std::runtime_error &error) {
            EXPECT_TRUE(std::string(error.what()).starts_with(changed->path())) << error.what();
        }
    }
}

// One that cannot be decompressed because of that is not called damaged.
TEST(ChangingFile, ACompressedOne) {
    std::string text = "x\n";
    for (int row = 0; row < 1000; ++row)
        text += std::to_string(row * row) + "\n";
    std::string packed(ZSTD_compressBound(text.size()), '\0');
    packed.resize(ZSTD_compress(packed.data(), packed.size(), text.data(), text.size(), 1));
    const temporary_file file(packed);
    const source_text source(file.path(), 100);
    ASSERT_TRUE(source.is_packed());
    const csv_header header{{"x"}, 2, 1};
    const load_request request{.dialect = {}, .wanted = {true}, .forced = {}};
    EXPECT_EQ(load_table(source, header, request).rows, 1000U);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::fstream(file.path(), std::ios::in | std::ios::out) << "no more compressed";
    try {
        load_table(source, header, request);
        FAIL();
    } catch (const std::runtime_error &error) {
        EXPECT_NE(std::string(error.what()).find("was changed while"), std::string::npos)
            << error.what();
    }
}

} // namespace
} // namespace vask::runner
