// States of aggregates that come back with other bytes than they left with: they are merged to
// something, or refused, and nothing is read that is not there.
#include "arrow_records.h"

#include <memory>
#include <string>
#include <vector>

namespace {

using namespace fuzz;

// A table of three columns: whole numbers, floats and texts, with nulls.
vask_table *small_table(byte_source &in) {
    constexpr std::size_t columns = 3;
    constexpr const char *formats[columns] = {"l", "g", "u"};
    constexpr const char *names[columns] = {"a", "b", "c"};
    auto made = std::make_unique<stream_memory>();
    auto *const memory = new record_memory;
    auto *const batch_memory = new record_memory;
    made->schema.format = "+s";
    made->schema.private_data = memory;
    made->schema.release = release_whole<ArrowSchema>;
    memory->schema_lists.push_back(std::make_unique<std::vector<ArrowSchema *>>());
    batch_memory->array_lists.push_back(std::make_unique<std::vector<ArrowArray *>>());
    const std::size_t rows = in.below(8);
    for (std::size_t i = 0; i < columns; ++i) {
        memory->schemas.push_back(std::make_unique<ArrowSchema>());
        ArrowSchema &schema = *memory->schemas.back();
        schema.format = formats[i];
        schema.name = names[i];
        schema.release = release_part<ArrowSchema>;
        memory->schema_lists.back()->push_back(&schema);
        batch_memory->arrays.push_back(std::make_unique<ArrowArray>());
        ArrowArray &array = *batch_memory->arrays.back();
        array.length = static_cast<std::int64_t>(rows);
        array.null_count = -1;
        array.release = release_part<ArrowArray>;
        batch_memory->lists.push_back(std::make_unique<const void *[]>(3));
        const void **const buffers = batch_memory->lists.back().get();
        char *const bits = batch_memory->block(1);
        *bits = static_cast<char>(~(in.take<std::uint8_t>() & in.take<std::uint8_t>()));
        buffers[0] = bits;
        array.n_buffers = 2;
        if (i == 2) {
            array.n_buffers = 3;
            auto *const offsets =
                reinterpret_cast<std::int32_t *>(batch_memory->block(4 * (rows + 1)));
            for (std::size_t row = 0; row < rows; ++row)
                offsets[row + 1] = offsets[row] + static_cast<std::int32_t>(in.below(3));
            buffers[1] = offsets;
            char *const texts = batch_memory->block(static_cast<std::size_t>(offsets[rows]));
            for (std::int32_t at = 0; at < offsets[rows]; ++at)
                texts[at] = static_cast<char>('p' + in.below(2));
            buffers[2] = texts;
        } else {
            char *const values = batch_memory->block(8 * rows);
            for (std::size_t row = 0; row < rows; ++row) {
                const auto drawn = static_cast<std::int64_t>(in.below(4));
                const auto real = static_cast<double>(drawn) / 2;
                if (i == 0)
                    std::memcpy(values + 8 * row, &drawn, 8);
                else
                    std::memcpy(values + 8 * row, &real, 8);
            }
            buffers[1] = values;
        }
        array.buffers = buffers;
        batch_memory->array_lists.back()->push_back(&array);
    }
    made->schema.n_children = columns;
    made->schema.children = memory->schema_lists.back()->data();
    ArrowArray batch{};
    batch.length = static_cast<std::int64_t>(rows);
    batch.n_children = columns;
    batch.children = batch_memory->array_lists.back()->data();
    batch.private_data = batch_memory;
    batch.release = release_whole<ArrowArray>;
    made->batches.push_back(batch);
    ArrowArrayStream stream = stream_memory::stream(std::move(made));
    vask_table *table = nullptr;
    char *error = nullptr;
    require(succeeded(vask_table_from_stream(&stream, &table, &error), error), "no table");
    return table;
}

void spoil(byte_source &in, char *bytes, std::size_t size) {
    if (size == 0)
        return;
    const std::size_t at = in.below(size);
    const std::size_t n = std::min<std::size_t>(size - at, in.one_of<std::size_t>({1, 1, 8}));
    in.take_into(bytes + at, n);
}

// A result's columns as a table of its own memory, some bytes and columns of it changed.
vask_table *spoilt(byte_source &in, const vask_result *states) {
    ArrowArrayStream stream{};
    char *error = nullptr;
    if (!succeeded(vask_result_stream(states, &stream, &error), error))
        return nullptr;
    ArrowSchema schema{};
    ArrowArray batch{};
    require(stream.get_schema(&stream, &schema) == 0 && stream.get_next(&stream, &batch) == 0,
            "states cannot be read");
    auto made = std::make_unique<stream_memory>();
    auto *const memory = new record_memory;
    auto *const batch_memory = new record_memory;
    memory->schema_lists.push_back(std::make_unique<std::vector<ArrowSchema *>>());
    batch_memory->array_lists.push_back(std::make_unique<std::vector<ArrowArray *>>());
    const bool spoils = !in.one_in(8);
    for (std::int64_t c = 0; c < batch.n_children; ++c) {
        const ArrowArray &from = *batch.children[c];
        std::string format = schema.children[c]->format;
        std::string name = schema.children[c]->name;
        if (spoils && in.one_in(48))
            continue; // one column less
        if (spoils && in.one_in(48))
            spoil(in, name.data(), name.size());
        memory->schemas.push_back(std::make_unique<ArrowSchema>());
        batch_memory->arrays.push_back(std::make_unique<ArrowArray>());
        ArrowSchema &own = *memory->schemas.back();
        ArrowArray &array = *batch_memory->arrays.back();
        own.release = release_part<ArrowSchema>;
        array.release = release_part<ArrowArray>;
        array.length = from.length;
        array.n_buffers = from.n_buffers;
        array.null_count = -1;
        const auto rows = static_cast<std::size_t>(from.length);
        batch_memory->lists.push_back(
            std::make_unique<const void *[]>(static_cast<std::size_t>(from.n_buffers)));
        const void **const buffers = batch_memory->lists.back().get();
        const auto copied = [&](const void *bytes, std::size_t size) {
            char *const copy = batch_memory->block(size);
            if (size > 0)
                std::memcpy(copy, bytes, size);
            if (spoils && in.one_in(6))
                spoil(in, copy, size);
            return copy;
        };
        if (format != "n" && from.buffers[0] != nullptr)
            buffers[0] = copied(from.buffers[0], (rows + 7) / 8);
        if (has_offsets(format)) {
            const std::size_t width = format == "U" || format == "Z" ? 8 : 4;
            std::int64_t last = 0;
            std::memcpy(&last, static_cast<const char *>(from.buffers[1]) + width * rows, width);
            char *const offsets = copied(from.buffers[1], width * (rows + 1));
            std::memcpy(offsets + width * rows, &last, width);
            buffers[1] = offsets;
            buffers[2] = copied(from.buffers[2], static_cast<std::size_t>(last));
        } else if (format != "n") {
            buffers[1] =
                copied(from.buffers[1], format == "b" ? (rows + 7) / 8 : rows * width_of(format));
            // Another type of the same width.
            if (spoils && in.one_in(48) && format == "l")
                format = in.one_of<const char *>({"g", "L", "ttu", "tsn:"});
            else if (spoils && in.one_in(48) && format == "g")
                format.assign(1, 'l');
        }
        own.format = memory->text(format);
        own.name = memory->text(name);
        array.buffers = buffers;
        memory->schema_lists.back()->push_back(&own);
        batch_memory->array_lists.back()->push_back(&array);
    }
    made->schema.format = "+s";
    made->schema.private_data = memory;
    made->schema.release = release_whole<ArrowSchema>;
    made->schema.n_children = static_cast<std::int64_t>(memory->schema_lists.back()->size());
    made->schema.children = memory->schema_lists.back()->data();
    ArrowArray own{};
    own.length = batch.length;
    own.n_children = made->schema.n_children;
    own.children = batch_memory->array_lists.back()->data();
    own.private_data = batch_memory;
    own.release = release_whole<ArrowArray>;
    made->batches.push_back(own);
    batch.release(&batch);
    schema.release(&schema);
    stream.release(&stream);
    ArrowArrayStream given = stream_memory::stream(std::move(made));
    vask_table *table = nullptr;
    (void)succeeded(vask_table_from_stream(&given, &table, &error), error);
    return table;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    byte_source in(bytes, size);
    const std::vector<std::string> names{"a", "b", "c"};
    const any_query query(in, names);
    std::vector<vask_table *> parts;
    char *error = nullptr;
    for (std::size_t n = 1 + in.below(3); n > 0; --n) {
        vask_table *const table = small_table(in);
        vask_result *states = nullptr;
        if (succeeded(vask_partial(table, &query.record, &states, &error), error))
            if (vask_table *const part = spoilt(in, states))
                parts.push_back(part);
        vask_result_free(states);
        vask_table_free(table);
    }
    std::vector<const vask_table *> given(parts.begin(), parts.end());
    for (const int finish : {0, 1}) {
        vask_result *merged = nullptr;
        if (succeeded(
                vask_merge(given.data(), given.size(), &query.record, finish, &merged, &error),
                error))
            (void)read_whole(merged);
        vask_result_free(merged);
    }
    for (vask_table *const part : parts)
        vask_table_free(part);
    require(records_held == 0, "records were not released");
    return 0;
}
