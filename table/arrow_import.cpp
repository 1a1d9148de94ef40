#include "table/arrow_import.h"

#include "table/errors.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

namespace vask::table {
namespace {

using array_owner = std::shared_ptr<const released<ArrowArray>>;

struct column_type {
    value_type values;
    kind index = kind::null; // of a dictionary
    std::string refusal;     // not empty: no query can use the column
};

std::string text_or_empty(const char *text) {
    return text == nullptr ? std::string() : std::string(text);
}

column_type type_of(const ArrowSchema &schema, const std::string &name) {
    if (schema.format == nullptr)
        fail(VASK_BAD_DATA, "column '{}': the schema has no format", shown(name));
    column_type result;
    const auto own = parse_format(schema.format);
    if (schema.dictionary != nullptr) {
        if (!own || !is_integer(own->of) || own->of == kind::boolean)
            fail(VASK_BAD_DATA, "column '{}': a dictionary's index has the format '{}'",
                 shown(name), shown(schema.format));
        result.index = own->of;
        column_type values = type_of(*schema.dictionary, name);
        if (values.index != kind::null)
            values.refusal = "is a dictionary of dictionaries, which no query takes; decode it";
        values.index = result.index;
        return values;
    }
    if (own)
        result.values = *own;
    else
        result.refusal = fmt::format(
            "has the Arrow format '{}', which no query takes; cast it to a number, text or time",
            shown(schema.format));
    return result;
}

// What the buffers of an array are.
struct buffer_rule {
    std::int64_t buffers;
    bool data; // beside the validity
};

buffer_rule buffers_of(const value_type &type) {
    if (type.of == kind::null)
        return {0, false};
    if (is_text(type.of))
        return {type.format.front() == 'v' ? 2 : 3, true};
    return {2, true};
}

void require(bool holds, const std::string &name, const char *what) {
    if (!holds)
        fail(VASK_BAD_DATA, "column '{}': malformed array: {}", shown(name), what);
}

// Positions up to here can be counted in bytes, whatever the width of values.
constexpr std::int64_t largest_offset = std::int64_t{1} << 58;

// Whether the texts in front of row `end` lie within the bytes of all texts, of which the array's
// last offset tells. Behind the last row of a batch that is shorter than its array lies another
// one.
template <class Offset>
bool ends_within(const ArrowArray &array, std::int64_t end) {
    const auto *const offsets = static_cast<const Offset *>(array.buffers[1]) + array.offset;
    return offsets[end] <= offsets[array.length];
}

// An array's rows from `offset` on as a piece; `owner` keeps it.
piece piece_of(const ArrowArray &array, const column_type &type, std::int64_t offset,
               std::int64_t rows, const array_owner &owner, const std::string &name) {
    require(array.length >= 0 && array.offset >= 0, name, "a negative length or offset");
    require(rows <= array.length && offset <= array.length - rows, name,
            "it is shorter than its batch");
    require(array.offset <= largest_offset - array.length, name, "its offset is too large");
    piece result;
    result.rows = rows;
    result.offset = array.offset + offset;
    result.owner = owner;
    const bool is_index = type.index != kind::null;
    const buffer_rule rule = is_index ? buffer_rule{2, true} : buffers_of(type.values);
    require(array.n_buffers >= rule.buffers && (rule.buffers == 0 || array.buffers != nullptr),
            name, "buffers are missing");
    if (is_index) {
        require(array.dictionary != nullptr, name, "its dictionary is missing");
        const column_type values{type.values, kind::null, {}};
        const ArrowArray &entries = *array.dictionary;
        result.index = type.index;
        result.dictionary = std::make_shared<const piece>(
            piece_of(entries, values, 0, entries.length, owner, name));
    }
    if (rule.buffers == 0)
        return result;
    result.nulls = {array.null_count, static_cast<const std::uint8_t *>(array.buffers[0]),
                    array.offset, array.length};
    result.validity = array.null_count == 0 ? nullptr : result.nulls.bits;
    result.values = array.buffers[1];
    // Offsets of no rows may be missing.
    require(result.values != nullptr || rows == 0, name, "a buffer is null");
    if (is_index || !is_text(type.values.of) || rows == 0)
        return result;
    result.text_format = type.values.format.front();
    if (result.text_format == 'v') {
        // The last one holds the others' sizes.
        result.n_view_buffers = array.n_buffers > 3 ? array.n_buffers - 3 : 0;
        result.view_buffers = array.buffers + 2;
        if (result.n_view_buffers > 0) {
            result.view_sizes =
                static_cast<const std::int64_t *>(array.buffers[array.n_buffers - 1]);
            require(result.view_sizes != nullptr, name, "the sizes of its buffers are missing");
        }
    } else {
        result.bytes = static_cast<const char *>(array.buffers[2]);
        const bool narrow = result.text_format == 'u' || result.text_format == 'z';
        require(narrow ? ends_within<std::int32_t>(array, offset + rows)
                       : ends_within<std::int64_t>(array, offset + rows),
                name, "the offset behind its last row is too large");
    }
    return result;
}

struct made_column {
    std::string name;
    column_type type;
    std::vector<piece> pieces;
};

[[noreturn]] void stream_failed(ArrowArrayStream &stream, int code, const char *what) {
    const char *const told =
        stream.get_last_error != nullptr ? stream.get_last_error(&stream) : nullptr;
    fail(code == ENOMEM ? VASK_NO_MEMORY : VASK_FAILED, "the stream failed at its {}: {}", what,
         told != nullptr ? shown(told) : std::string(std::strerror(code)));
}

std::shared_ptr<const column> finish(made_column made, std::int64_t rows) {
    if (!made.type.refusal.empty())
        return std::make_shared<const column>(std::move(made.name), rows,
                                              std::move(made.type.refusal));
    return std::make_shared<const column>(std::move(made.name), std::move(made.type.values), rows,
                                          std::move(made.pieces));
}

void add_batch(std::vector<made_column> &columns, const array_owner &batch) {
    const ArrowArray &array = **batch;
    if (array.n_children != static_cast<std::int64_t>(columns.size()) ||
        (array.n_children > 0 && array.children == nullptr))
        fail(VASK_BAD_DATA, "a batch has {} columns, the schema {}", array.n_children,
             columns.size());
    if (array.length < 0 || array.offset < 0)
        fail(VASK_BAD_DATA, "a batch has a negative length or offset");
    check_rows(array.length);
    if (array.offset > largest_offset)
        fail(VASK_BAD_DATA, "a batch's offset is too large");
    const bool nulls = array.null_count != 0 && array.n_buffers > 0 && array.buffers != nullptr &&
                       array.buffers[0] != nullptr;
    for (std::int64_t row = 0; nulls && row < array.length; ++row) {
        const std::int64_t bit = array.offset + row;
        if (((static_cast<const std::uint8_t *>(array.buffers[0])[bit >> 3] >> (bit & 7)) & 1) == 0)
            fail(VASK_BAD_DATA, "row {} of a batch is null as a whole; drop such rows", row);
    }
    for (std::size_t i = 0; i < columns.size(); ++i) {
        made_column &made = columns[i];
        if (!made.type.refusal.empty())
            continue;
        const ArrowArray *const child = array.children[i];
        require(child != nullptr, made.name, "it is null");
        made.pieces.push_back(
            piece_of(*child, made.type, array.offset, array.length, batch, made.name));
    }
}

} // namespace

void check_rows(std::int64_t rows) {
    if (rows > most_rows)
        fail(VASK_BAD_REQUEST,
             "the table has more than {} rows; cut the rows, aggregate each part with "
             "vask_partial, and merge the states",
             most_rows);
}

streamed_columns columns_of_stream(released<ArrowArrayStream> &stream) {
    if (!stream.is_there() || stream->get_schema == nullptr || stream->get_next == nullptr)
        fail(VASK_BAD_REQUEST, "the stream was released before");
    ArrowSchema given{};
    if (const int code = stream.get()->get_schema(stream.get(), &given))
        stream_failed(*stream.get(), code, "schema");
    const released<ArrowSchema> schema(&given);
    if (!schema.is_there() || schema->format == nullptr || std::string_view(schema->format) != "+s")
        fail(VASK_BAD_DATA,
             "the stream's items are no records (format '{}'); wrap the array into a table",
             shown(text_or_empty(schema->format)));
    if (schema->n_children < 0 || (schema->n_children > 0 && schema->children == nullptr))
        fail(VASK_BAD_DATA, "the schema's columns are missing");
    std::vector<made_column> columns(static_cast<std::size_t>(schema->n_children));
    for (std::size_t i = 0; i < columns.size(); ++i) {
        const ArrowSchema *const child = schema->children[i];
        if (child == nullptr)
            fail(VASK_BAD_DATA, "column {} of the schema is null", i + 1);
        columns[i].name = text_or_empty(child->name);
        columns[i].type = type_of(*child, columns[i].name);
    }
    streamed_columns result;
    std::int64_t &rows = result.rows;
    while (true) {
        // Made before there is anything to lose.
        const auto batch = std::make_shared<released<ArrowArray>>();
        if (const int code = stream.get()->get_next(stream.get(), batch->get()))
            stream_failed(*stream.get(), code, "next batch");
        if (!batch->is_there())
            break;
        add_batch(columns, batch);
        check_rows(rows += (*batch)->length);
    }
    for (made_column &made : columns)
        result.columns.push_back(finish(std::move(made), rows));
    return result;
}

std::shared_ptr<const column> column_of_array(const std::string &name,
                                              const released<ArrowSchema> &schema,
                                              const array_owner &array) {
    if (!schema.is_there() || array == nullptr || !array->is_there())
        fail(VASK_BAD_REQUEST, "column '{}': its schema or array was released before", shown(name));
    made_column made{name, type_of(*schema, name), {}};
    const ArrowArray &given = **array;
    if (given.length < 0)
        fail(VASK_BAD_DATA, "column '{}': a negative length", shown(name));
    check_rows(given.length);
    if (made.type.refusal.empty())
        made.pieces.push_back(piece_of(given, made.type, 0, given.length, array, name));
    return finish(std::move(made), given.length);
}

} // namespace vask::table
