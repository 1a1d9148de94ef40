// Columns at the bounds of what they can hold, through libvask: the most rows there can be, and a
// group for nearly every row. Run by scripts/size-edges; each case says what it is about to need.
#include "vask/vask.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

void require(bool holds, const char *what) {
    if (holds)
        return;
    std::fprintf(stderr, "FAILED: %s\n", what);
    std::exit(1);
}

struct answer {
    ArrowArrayStream stream{};
    ArrowSchema schema{};
    ArrowArray batch{};
    vask_result *result = nullptr;

    answer(const vask_table *table, const std::vector<const char *> &by,
           const std::vector<vask_aggregate> &wanted) {
        vask_query query{};
        query.size = sizeof query;
        query.aggregate_size = sizeof(vask_aggregate);
        query.by = by.data();
        query.n_by = by.size();
        query.aggregates = wanted.data();
        query.n_aggregates = wanted.size();
        char *error = nullptr;
        if (vask_run(table, &query, &result, &error) != VASK_OK) {
            std::fprintf(stderr, "FAILED: %s\n", error);
            std::exit(1);
        }
        require(vask_result_stream(result, &stream, nullptr) == VASK_OK, "the stream");
        require(stream.get_schema(&stream, &schema) == 0, "the schema");
        require(stream.get_next(&stream, &batch) == 0, "the batch");
    }
    answer(const answer &) = delete;
    answer &operator=(const answer &) = delete;
    ~answer() {
        batch.release(&batch);
        schema.release(&schema);
        stream.release(&stream);
        vask_result_free(result);
    }
    // Of a row of a column of 64 bits.
    std::int64_t whole(std::int64_t column, std::int64_t row = 0) const {
        require(std::strcmp(schema.children[column]->format, "l") == 0, "a column of int64");
        return static_cast<const std::int64_t *>(batch.children[column]->buffers[1])[row];
    }
};

// The bytes are 0 .. 99 over and over.
void most_rows() {
    constexpr std::int64_t rows = 2'147'483'646;
    std::vector<std::int8_t> values(rows);
    std::int64_t sum = 0;
    std::int64_t filled = 100;
    for (std::int64_t row = 0; row < filled; ++row)
        values[static_cast<std::size_t>(row)] = static_cast<std::int8_t>(row);
    for (; filled < rows; filled *= 2)
        std::memcpy(values.data() + filled, values.data(),
                    static_cast<std::size_t>(std::min(filled, rows - filled)));
    for (std::int64_t value = 0; value < 100; ++value) // of rows value, value + 100, ..
        sum += value * ((rows - value + 99) / 100);
    vask_table *table = nullptr;
    require(vask_table_new(&table, nullptr) == VASK_OK, "a table");
    require(vask_table_add_values(table, "x", "c", rows, values.data(), nullptr, 0, nullptr,
                                  nullptr, nullptr) == VASK_OK,
            "the most rows");
    {
        const answer found(
            table, {}, {{"size", {}, 0, "n"}, {"count", {"x"}, 0, "c"}, {"sum", {"x"}, 0, "s"}});
        require(found.whole(0) == rows, "size");
        require(found.whole(1) == rows, "count");
        require(found.whole(2) == sum, "sum");
    }
    vask_table_free(table);
    require(vask_table_new(&table, nullptr) == VASK_OK, "a table");
    char *error = nullptr;
    require(vask_table_add_values(table, "x", "c", rows + 1, values.data(), nullptr, 0, nullptr,
                                  nullptr, &error) == VASK_BAD_REQUEST,
            "one row more is refused");
    vask_free_text(error);
    vask_table_free(table);
}

// Every value is a group of its own but the last, which is that of the first row.
void many_groups() {
    constexpr std::int64_t rows = 50'000'000;
    std::vector<std::int64_t> values(rows);
    for (std::int64_t row = 0; row < rows; ++row)
        values[static_cast<std::size_t>(row)] =
            static_cast<std::int64_t>(static_cast<std::uint64_t>(row) * 0x9e3779b97f4a7c15U);
    values.back() = values.front();
    vask_table *table = nullptr;
    require(vask_table_new(&table, nullptr) == VASK_OK, "a table");
    require(vask_table_add_values(table, "x", "l", rows, values.data(), nullptr, 0, nullptr,
                                  nullptr, nullptr) == VASK_OK,
            "a column");
    {
        const answer found(table, {"x"}, {{"size", {}, 0, "n"}});
        require(found.batch.length == rows - 1, "groups");
        require(found.whole(0, 0) == values[0] && found.whole(1, 0) == 2, "the first group");
        require(found.whole(0, rows - 2) == values[rows - 2] && found.whole(1, rows - 2) == 1,
                "the last group");
    }
    vask_table_free(table);
}

} // namespace

int main(int argc, char **argv) {
    const std::string which = argc > 1 ? argv[1] : "";
    if (which == "rows")
        most_rows();
    else if (which == "groups")
        many_groups();
    else
        return 2;
    return 0;
}
