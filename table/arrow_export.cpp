#include "table/arrow_export.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <new>

namespace vask::table {
namespace {

using table_pointer = std::shared_ptr<const result_table>;

// ---- schema -------------------------------------------------------------------------------------

struct schema_memory {
    table_pointer table;
    std::vector<ArrowSchema> children;
    std::vector<ArrowSchema *> places;
};

void release_child(ArrowSchema *schema) {
    schema->release = nullptr;
}

void release_schema(ArrowSchema *schema) {
    for (std::int64_t i = 0; i < schema->n_children; ++i)
        if (schema->children[i]->release != nullptr)
            schema->children[i]->release(schema->children[i]);
    delete static_cast<schema_memory *>(schema->private_data);
    schema->release = nullptr;
}

void export_schema(const table_pointer &table, ArrowSchema &out) {
    auto memory = std::make_unique<schema_memory>();
    memory->table = table;
    memory->children.resize(table->columns.size());
    for (std::size_t i = 0; i < memory->children.size(); ++i) {
        ArrowSchema &child = memory->children[i];
        child = {};
        child.format = table->columns[i].type.format.c_str();
        child.name = table->columns[i].name.c_str();
        child.flags = ARROW_FLAG_NULLABLE;
        child.release = release_child;
        memory->places.push_back(&child);
    }
    out = {};
    out.format = "+s";
    out.name = "";
    out.n_children = static_cast<std::int64_t>(memory->children.size());
    out.children = memory->places.data();
    out.release = release_schema;
    out.private_data = memory.release();
}

// ---- batch --------------------------------------------------------------------------------------

struct array_memory {
    table_pointer table;
    std::array<const void *, 3> buffers{};
};

struct batch_memory {
    table_pointer table;
    std::vector<ArrowArray> children;
    std::vector<ArrowArray *> places;
    std::array<const void *, 1> buffers{};
};

// A child may be moved out and live longer than the batch.
void release_array(ArrowArray *array) {
    delete static_cast<array_memory *>(array->private_data);
    array->release = nullptr;
}

void release_batch(ArrowArray *array) {
    for (std::int64_t i = 0; i < array->n_children; ++i)
        if (array->children[i]->release != nullptr)
            array->children[i]->release(array->children[i]);
    delete static_cast<batch_memory *>(array->private_data);
    array->release = nullptr;
}

void export_column(const table_pointer &table, const result_column &column, ArrowArray &out) {
    auto memory = std::make_unique<array_memory>();
    memory->table = table;
    memory->buffers = {column.validity, column.values, column.bytes};
    out = {};
    out.length = column.rows;
    out.null_count = column.type.of == kind::null ? column.rows : column.nulls;
    out.n_buffers = column.type.of == kind::null ? 0 : is_text(column.type.of) ? 3 : 2;
    out.buffers = memory->buffers.data();
    out.release = release_array;
    out.private_data = memory.release();
}

void export_batch(const table_pointer &table, ArrowArray &out) {
    auto memory = std::make_unique<batch_memory>();
    memory->table = table;
    memory->children.resize(table->columns.size());
    memory->places.reserve(table->columns.size());
    std::size_t made = 0;
    try {
        for (; made < memory->children.size(); ++made) {
            export_column(table, table->columns[made], memory->children[made]);
            memory->places.push_back(&memory->children[made]);
        }
    } catch (...) {
        for (std::size_t i = 0; i < made; ++i)
            memory->children[i].release(&memory->children[i]);
        throw;
    }
    out = {};
    out.length = table->rows;
    out.n_buffers = 1;
    out.buffers = memory->buffers.data();
    out.n_children = static_cast<std::int64_t>(memory->children.size());
    out.children = memory->places.data();
    out.release = release_batch;
    out.private_data = memory.release();
}

// ---- stream -------------------------------------------------------------------------------------

struct stream_memory {
    table_pointer table;
    bool given = false;
};

stream_memory &memory_of(ArrowArrayStream *stream) {
    return *static_cast<stream_memory *>(stream->private_data);
}

int get_schema(ArrowArrayStream *stream, ArrowSchema *out) {
    try {
        export_schema(memory_of(stream).table, *out);
        return 0;
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
}

int get_next(ArrowArrayStream *stream, ArrowArray *out) {
    stream_memory &memory = memory_of(stream);
    if (memory.given) {
        *out = {};
        return 0;
    }
    try {
        export_batch(memory.table, *out);
        memory.given = true;
        return 0;
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
}

const char *get_last_error(ArrowArrayStream *) {
    return "out of memory"; // there is no other
}

void release_stream(ArrowArrayStream *stream) {
    delete static_cast<stream_memory *>(stream->private_data);
    stream->release = nullptr;
}

} // namespace

void export_stream(std::shared_ptr<const result_table> table, ArrowArrayStream &out) {
    auto memory = std::make_unique<stream_memory>();
    memory->table = std::move(table);
    out = {get_schema, get_next, get_last_error, release_stream, memory.release()};
}

} // namespace vask::table
