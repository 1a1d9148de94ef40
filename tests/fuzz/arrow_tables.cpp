// Arrow tables, and queries on them, from bytes: whatever a producer hands over, the answer is a
// result that can be read or a code with a text, and everything is released once.
#include "arrow_records.h"

#include <memory>
#include <string>
#include <vector>

namespace {

using namespace fuzz;

const char *column_name(byte_source &in, record_memory &memory, std::size_t place) {
    if (in.one_in(32))
        return in.one_in(2) ? nullptr : memory.text(in.text(in.below(6)));
    return memory.text(std::string(1, static_cast<char>('a' + place)));
}

ArrowArrayStream any_stream(byte_source &in, std::vector<std::string> &names) {
    auto made = std::make_unique<stream_memory>();
    auto *const memory = new record_memory;
    made->schema.format = memory->text(in.one_in(128) ? "+l" : "+s");
    made->schema.private_data = memory;
    made->schema.release = release_whole<ArrowSchema>;
    const std::size_t columns = 1 + in.below(4);
    memory->schema_lists.push_back(std::make_unique<std::vector<ArrowSchema *>>());
    auto &children = *memory->schema_lists.back();
    for (std::size_t i = 0; i < columns; ++i) {
        memory->schemas.push_back(std::make_unique<ArrowSchema>());
        ArrowSchema &child = *memory->schemas.back();
        make_schema(in, *memory, child, column_name(in, *memory, i));
        names.emplace_back(child.name == nullptr ? "" : child.name);
        children.push_back(in.one_in(128) ? nullptr : &child);
    }
    made->schema.children = in.one_in(128) ? nullptr : children.data();
    made->schema.n_children = static_cast<std::int64_t>(columns);
    if (in.one_in(128))
        made->schema.n_children = -made->schema.n_children;
    for (std::size_t n = in.below(4); n > 0; --n) {
        auto *const batch_memory = new record_memory;
        ArrowArray batch{};
        batch.private_data = batch_memory;
        batch.release = release_whole<ArrowArray>;
        const std::size_t rows = in.below(in.one_in(3) ? 70 : 12);
        batch.length = static_cast<std::int64_t>(rows);
        batch.offset = static_cast<std::int64_t>(in.one_in(6) ? in.below(20) : 0);
        const auto positions = static_cast<std::size_t>(batch.length + batch.offset);
        batch_memory->array_lists.push_back(std::make_unique<std::vector<ArrowArray *>>());
        auto &arrays = *batch_memory->array_lists.back();
        for (const ArrowSchema *const child : children) {
            batch_memory->arrays.push_back(std::make_unique<ArrowArray>());
            ArrowArray &array = *batch_memory->arrays.back();
            if (child != nullptr)
                make_array(in, *batch_memory, *child, positions, array);
            arrays.push_back(child == nullptr || in.one_in(128) ? nullptr : &array);
        }
        batch.children = in.one_in(128) ? nullptr : arrays.data();
        batch.n_children = static_cast<std::int64_t>(arrays.size()) - (in.one_in(64) ? 1 : 0);
        batch_memory->lists.push_back(std::make_unique<const void *[]>(1));
        if (in.one_in(8)) {
            char *const bits = batch_memory->block((positions + 7) / 8);
            std::memset(bits, 0xff, (positions + 7) / 8);
            if (in.one_in(4))
                in.take_into(bits, (positions + 7) / 8);
            batch_memory->lists.back()[0] = bits;
        }
        batch.buffers = batch_memory->lists.back().get();
        batch.n_buffers = in.one_in(16) ? 0 : 1;
        batch.null_count = in.one_of<std::int64_t>({0, -1, -1, 3});
        if (in.one_in(64))
            (in.one_in(2) ? batch.length : batch.offset) = refused_number(in);
        made->batches.push_back(batch);
    }
    if (in.one_in(64)) {
        made->fails = in.one_of<int>({5, 12, 22, -1});
        made->fails_at = static_cast<int>(in.below(4)) - 1;
    }
    return stream_memory::stream(std::move(made));
}

struct lent {
    std::unique_ptr<char[]> values;
    std::unique_ptr<std::uint8_t[]> bits;
    lent() { ++records_held; }
    lent(const lent &) = delete;
    lent &operator=(const lent &) = delete;
    ~lent() { --records_held; }
};

// Columns of other kinds beside those of the stream, or a table of these alone.
void add_columns(byte_source &in, vask_table *table, std::vector<std::string> &names) {
    for (std::size_t n = in.below(3); n > 0; --n) {
        names.emplace_back(1, static_cast<char>('w' + n));
        const std::size_t rows = vask_table_rows(table) < 0 || in.one_in(8)
                                     ? in.below(20)
                                     : static_cast<std::size_t>(vask_table_rows(table));
        char *error = nullptr;
        if (in.one_in(2)) {
            auto *const schema_memory = new record_memory;
            auto *const memory = new record_memory;
            ArrowSchema schema{};
            make_schema(in, *schema_memory, schema, nullptr);
            schema.private_data = schema_memory;
            schema.release = release_whole<ArrowSchema>;
            ArrowArray array{};
            make_array(in, *memory, schema, rows, array);
            array.private_data = memory;
            array.release = release_whole<ArrowArray>;
            (void)succeeded(
                vask_table_add_arrow(table, names.back().c_str(), &schema, &array, &error), error);
            require(schema.release == nullptr && array.release == nullptr,
                    "what was taken over looks unreleased");
        } else {
            const std::string format = any_format(in);
            const auto first_bit = static_cast<std::int64_t>(in.below(20));
            auto *const owner = new lent;
            const bool bits = format == "b";
            owner->values =
                std::make_unique<char[]>(bits ? (rows + 7) / 8 : rows * width_of(format));
            in.take_into(owner->values.get(), bits ? (rows + 7) / 8 : rows * width_of(format));
            const std::size_t bytes = (rows + static_cast<std::size_t>(first_bit) + 7) / 8;
            owner->bits = std::make_unique<std::uint8_t[]>(bytes);
            in.take_into(owner->bits.get(), bytes);
            (void)succeeded(
                vask_table_add_values(
                    table, names.back().c_str(), format.c_str(),
                    in.one_in(64) ? refused_number(in) : static_cast<std::int64_t>(rows),
                    owner->values.get(), in.one_in(3) ? nullptr : owner->bits.get(), first_bit,
                    [](void *given) { delete static_cast<lent *>(given); }, owner, &error),
                error);
        }
    }
}

void ask(byte_source &in, const vask_table *table, const std::vector<std::string> &names) {
    const any_query query(in, names);
    char *error = nullptr;
    vask_result *result = nullptr;
    std::uint64_t first = 0;
    const bool ran = succeeded(vask_run(table, &query.record, &result, &error), error);
    if (ran)
        first = read_whole(result);
    vask_result_free(result);
    result = nullptr;
    if (in.one_in(4)) { // the columns keep their forms: it is the same answer
        const bool again = succeeded(vask_run(table, &query.record, &result, &error), error);
        require(again == ran && (!again || read_whole(result) == first),
                "a query gives another answer the second time");
        vask_result_free(result);
    }
    if (in.one_in(3)) {
        vask_result *states = nullptr;
        if (succeeded(vask_partial(table, &query.record, &states, &error), error))
            (void)read_whole(states);
        vask_result_free(states);
    }
    if (in.one_in(4) && vask_table_rows(table) >= 0) {
        std::vector<std::int32_t> codes(static_cast<std::size_t>(vask_table_rows(table)));
        std::int64_t groups = 0;
        if (succeeded(vask_group_codes(table, &query.record, codes.data(), &groups, &error), error))
            for (const std::int32_t code : codes)
                require(code >= -1 && code < groups, "a code of no group");
    }
    if (in.one_in(4) && !names.empty()) {
        vask_result *contained = nullptr;
        if (succeeded(vask_is_in(table, names[in.below(names.size())].c_str(), table,
                                 names[in.below(names.size())].c_str(), nullptr, &contained,
                                 &error),
                      error))
            (void)read_whole(contained);
        vask_result_free(contained);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    byte_source in(bytes, size);
    std::vector<std::string> names;
    vask_table *table = nullptr;
    char *error = nullptr;
    if (in.one_in(4)) {
        (void)succeeded(vask_table_new(&table, &error), error);
    } else {
        ArrowArrayStream stream = any_stream(in, names);
        if (!succeeded(vask_table_from_stream(&stream, &table, &error), error))
            require(table == nullptr, "a table was stored without success");
        require(stream.release == nullptr, "a stream that was taken over looks unreleased");
    }
    if (table != nullptr) {
        add_columns(in, table, names);
        ask(in, table, names);
        vask_table_free(table);
    }
    require(records_held == 0, "records were not released");
    return 0;
}
