// Memory that runs out at any point of a call: a code, nothing lost, and the table works on.
#include "tests/table/arrow_data.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <new>

#include <gtest/gtest.h>

namespace {

// How many more blocks there are; none beyond.
std::atomic<std::int64_t> blocks_left{std::numeric_limits<std::int64_t>::max()};

std::atomic<std::int64_t> blocks_held{0};

void *take_block(std::size_t bytes, std::size_t alignment) {
    if (blocks_left.load() <= 0 || blocks_left.fetch_sub(1) <= 0)
        throw std::bad_alloc();
    void *const made =
        alignment == 0 ? std::malloc(bytes == 0 ? 1 : bytes)
                       : std::aligned_alloc(alignment, (bytes + alignment) / alignment * alignment);
    if (made == nullptr)
        throw std::bad_alloc();
    blocks_held.fetch_add(1);
    return made;
}

void give_back(void *held) {
    if (held != nullptr)
        blocks_held.fetch_sub(1);
    std::free(held);
}

// For its life only so many blocks are given out.
class few_blocks {
public:
    explicit few_blocks(std::int64_t blocks) { blocks_left.store(blocks); }
    few_blocks(const few_blocks &) = delete;
    few_blocks &operator=(const few_blocks &) = delete;
    ~few_blocks() { blocks_left.store(std::numeric_limits<std::int64_t>::max()); }
};

} // namespace

// The libraries that the program loads take these, too.
void *operator new(std::size_t bytes) {
    return take_block(bytes, 0);
}
void *operator new[](std::size_t bytes) {
    return take_block(bytes, 0);
}
void *operator new(std::size_t bytes, std::align_val_t alignment) {
    return take_block(bytes, static_cast<std::size_t>(alignment));
}
void operator delete(void *held) noexcept {
    give_back(held);
}
void operator delete[](void *held) noexcept {
    give_back(held);
}
void operator delete(void *held, std::size_t) noexcept {
    give_back(held);
}
void operator delete[](void *held, std::size_t) noexcept {
    give_back(held);
}
void operator delete(void *held, std::align_val_t) noexcept {
    give_back(held);
}
void operator delete(void *held, std::size_t, std::align_val_t) noexcept {
    give_back(held);
}

namespace vask_test {
namespace {

table_data sample() {
    table_data made{{{"k", "u", {}}, {"v", "g", {}}, {"i", "l", {}}}};
    for (int row = 0; row < 300; ++row) {
        made.columns[0].values.push_back(cell::of_text("word " + std::to_string(row % 7)));
        made.columns[1].values.push_back(row % 5 == 0 ? cell{} : cell::of_real(row));
        made.columns[2].values.push_back(cell::of(row % 11));
    }
    return made;
}

asked_query everything() {
    asked_query asked;
    asked.by = {"k", "i"};
    for (const char *const name :
         {"sum", "mean", "median", "stdev", "mode", "count_distinct", "mad"})
        asked.functions.push_back({name, {"v"}, 0, {}});
    asked.functions.push_back({"min", {"k"}, 0, {}});
    asked.functions.push_back({"correl", {"v", "i"}, 0, {}});
    asked.flags = VASK_SORT_GROUPS | VASK_VALIDATE;
    return asked;
}

TEST(NoMemory, AtAnyBlockOfACallLosesNothing) {
    const asked_query asked = everything();
    const query_record query(asked);
    std::string expected;
    std::int64_t refused = 0;
    bool done = false;
    for (std::int64_t blocks = 0; !done; blocks += blocks < 400 ? 1 : 7) {
        ledger counted;
        vask_table *table = nullptr;
        ASSERT_EQ(vask_table_new(&table, nullptr), VASK_OK);
        const table_data data = sample();
        bool added = true;
        for (const column_data &column : data.columns) {
            ArrowSchema schema = make_schema(counted, column);
            ArrowArray array = make_array(counted, column, 0, column.values.size(), {.offset = 3});
            const few_blocks few(blocks);
            const int code =
                vask_table_add_arrow(table, column.name.c_str(), &schema, &array, nullptr);
            added = added && code == VASK_OK;
            if (code != VASK_OK) {
                EXPECT_EQ(code, VASK_NO_MEMORY);
            }
            EXPECT_EQ(schema.release, nullptr);
            EXPECT_EQ(array.release, nullptr);
        }
        vask_result *result = nullptr;
        int code = VASK_NO_MEMORY;
        if (added) {
            {
                const few_blocks few(blocks);
                char *error = nullptr;
                code = vask_run(table, &query.record, &result, &error);
                EXPECT_TRUE(code == VASK_OK || code == VASK_NO_MEMORY)
                    << code << ": " << (error == nullptr ? "" : error);
                vask_free_text(error);
            }
            // What a failed call began does not keep the next one from its answer.
            vask_result *again = nullptr;
            EXPECT_EQ(vask_run(table, &query.record, &again, nullptr), VASK_OK);
            const std::string told = shown(read_result(again));
            expected = expected.empty() ? told : expected;
            EXPECT_EQ(told, expected) << "after " << blocks << " blocks";
            vask_result_free(again);
        }
        if (code == VASK_OK) {
            ArrowArrayStream stream{};
            const few_blocks few(blocks);
            done = vask_result_stream(result, &stream, nullptr) == VASK_OK;
            if (done) {
                ArrowArray batch{};
                done = stream.get_next(&stream, &batch) == 0;
                if (done)
                    batch.release(&batch);
                stream.release(&stream);
            }
        }
        refused += done ? 0 : 1;
        vask_result_free(result);
        vask_table_free(table);
        ASSERT_FALSE(testing::Test::HasFailure()) << blocks << " blocks";
    }
    EXPECT_GT(refused, 100);
}

TEST(NoMemory, AtAnyBlockOfAnExportLosesNothing) {
    ledger counted;
    vask_table *table = nullptr;
    ASSERT_EQ(vask_table_new(&table, nullptr), VASK_OK);
    for (const column_data &column : sample().columns) {
        ArrowSchema schema = make_schema(counted, column);
        ArrowArray array = make_array(counted, column, 0, column.values.size(), {});
        ASSERT_EQ(vask_table_add_arrow(table, column.name.c_str(), &schema, &array, nullptr),
                  VASK_OK);
    }
    const asked_query asked = everything();
    vask_result *result = nullptr;
    const query_record query(asked);
    ASSERT_EQ(vask_run(table, &query.record, &result, nullptr), VASK_OK);
    int refused = 0;
    const auto exported = [&](std::int64_t blocks) {
        const few_blocks few(blocks);
        ArrowArrayStream stream{};
        if (vask_result_stream(result, &stream, nullptr) != VASK_OK)
            return false;
        ArrowSchema schema{};
        ArrowArray batch{};
        const bool whole =
            stream.get_schema(&stream, &schema) == 0 && stream.get_next(&stream, &batch) == 0;
        if (schema.release != nullptr)
            schema.release(&schema);
        if (batch.release != nullptr)
            batch.release(&batch);
        stream.release(&stream);
        return whole;
    };
    const std::int64_t held = blocks_held.load();
    while (!exported(refused)) {
        ASSERT_EQ(blocks_held.load(), held) << refused << " blocks";
        ++refused;
    }
    EXPECT_EQ(blocks_held.load(), held);
    EXPECT_GT(refused, 10);
    vask_result_free(result);
    vask_table_free(table);
}

} // namespace
} // namespace vask_test
