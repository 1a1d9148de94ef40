// Tables as programs hand them over and get them back: arrays in the Arrow C data interface whose
// releases are counted, and results read back value by value.
#pragma once

#include "vask/vask.h"

#include <atomic>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace vask_test {

__extension__ using wide = __int128;
__extension__ using unsigned_wide = unsigned __int128;

// ---- values -------------------------------------------------------------------------------------

enum class sort_of : std::uint8_t { none, whole, real, text };

struct cell {
    sort_of is = sort_of::none;
    wide whole = 0;
    double real = 0;
    std::string text;

    static cell null() { return {}; }
    static cell of(wide value) { return {sort_of::whole, value, 0, {}}; }
    static cell of_real(double value) { return {sort_of::real, 0, value, {}}; }
    static cell of_text(std::string value) { return {sort_of::text, 0, 0, std::move(value)}; }
    bool is_null() const { return is == sort_of::none; }
};

inline std::string shown(wide value) {
    const bool negative = value < 0;
    std::string digits;
    do {
        const int digit = static_cast<int>(value % 10);
        digits.insert(digits.begin(), static_cast<char>('0' + (digit < 0 ? -digit : digit)));
        value /= 10;
    } while (value != 0);
    return negative ? "-" + digits : digits;
}

inline std::string shown(const cell &of) {
    char number[40];
    switch (of.is) {
        case sort_of::none:
            return "null";
        case sort_of::whole:
            return shown(of.whole);
        case sort_of::real:
            std::snprintf(number, sizeof number, "%.17g", of.real);
            return number;
        case sort_of::text:
            break;
    }
    return "'" + of.text + "'";
}

inline sort_of sort_of_format(const std::string &format) {
    if (format == "n")
        return sort_of::none;
    if (format == "f" || format == "g")
        return sort_of::real;
    if (format == "u" || format == "U" || format == "vu" || format == "z" || format == "Z" ||
        format == "vz")
        return sort_of::text;
    return sort_of::whole;
}

inline std::size_t width_of_format(const std::string &format) {
    if (format[0] == 'd')
        return 16;
    if (format == "c" || format == "C")
        return 1;
    if (format == "s" || format == "S")
        return 2;
    if (format == "i" || format == "I" || format == "f" || format == "tdD" || format == "tts" ||
        format == "ttm")
        return 4;
    return 8;
}

struct column_data {
    std::string name;
    std::string format;
    std::vector<cell> values;
};

// ---- counted releases ---------------------------------------------------------------------------

// Every record that was handed over, and whether it was released exactly once.
class ledger {
public:
    struct entry {
        std::atomic<int> releases{0};
        std::function<void()> free;
    };
    ~ledger() {
        EXPECT_EQ(outstanding(), 0) << "of " << given() << " records some were not released once";
    }
    entry *open(std::function<void()> free) {
        const std::scoped_lock lock(lock_);
        entries_.push_back(std::make_unique<entry>());
        entries_.back()->free = std::move(free);
        return entries_.back().get();
    }
    // Records that were not released, or more than once.
    int outstanding() const {
        int wrong = 0;
        for (const auto &each : entries_)
            wrong += each->releases != 1 ? 1 : 0;
        return wrong;
    }
    std::size_t given() const { return entries_.size(); }
    static void close(void *held) {
        auto *const of = static_cast<entry *>(held);
        if (of->releases.fetch_add(1) == 0 && of->free)
            of->free();
    }

private:
    std::mutex lock_;
    std::vector<std::unique_ptr<entry>> entries_;
};

// ---- arrays -------------------------------------------------------------------------------------

struct array_layout {
    std::int64_t offset = 0; // rows of something else before the first
    bool dictionary = false; // indices into other values
    std::string index = "i"; // their format
    bool null_in_dictionary = false;
    bool count_nulls = true; // else -1: not counted
};

struct array_memory {
    std::vector<std::vector<char>> buffers;
    std::vector<const void *> places;
    std::unique_ptr<ArrowArray> dictionary;
    std::vector<std::unique_ptr<ArrowArray>> children;
    std::vector<ArrowArray *> child_places;
};

inline void release_array(ArrowArray *array) {
    ledger::close(array->private_data);
    array->release = nullptr;
}

inline void put_bit(std::vector<char> &bits, std::size_t at, bool value) {
    if (value)
        bits[at >> 3] = static_cast<char>(bits[at >> 3] | (1 << (at & 7)));
    else
        bits[at >> 3] = static_cast<char>(bits[at >> 3] & ~(1 << (at & 7)));
}

template <class T>
void put(std::vector<char> &to, std::size_t at, T value) {
    std::memcpy(to.data() + at * sizeof value, &value, sizeof value);
}

inline void put_number(std::vector<char> &to, const std::string &format, std::size_t at,
                       const cell &value) {
    if (format == "b")
        put_bit(to, at, value.whole != 0);
    else if (format == "f")
        put(to, at, static_cast<float>(value.real));
    else if (format == "g")
        put(to, at, value.real);
    else
        std::memcpy(to.data() + at * width_of_format(format), &value.whole,
                    width_of_format(format));
}

// Rows begin .. end - 1 of a column.
inline ArrowArray make_array(ledger &counted, const column_data &of, std::size_t begin,
                             std::size_t end, const array_layout &how = {}) {
    auto *const memory = new array_memory;
    const auto pad = static_cast<std::size_t>(how.offset);
    const std::size_t rows = pad + end - begin;
    std::int64_t nulls = 0;
    std::vector<cell> values(rows, cell::of(0));
    for (std::size_t i = 0; i < rows; ++i) {
        if (i >= pad)
            values[i] = of.values[begin + i - pad];
        else if (sort_of_format(of.format) == sort_of::text)
            values[i] = cell::of_text("before the first");
        else if (sort_of_format(of.format) == sort_of::real)
            values[i] = cell::of_real(-7);
        else
            values[i] = cell::of(1);
    }
    const auto add = [&](std::size_t bytes) -> std::vector<char> & {
        // What lies under nulls is anything.
        memory->buffers.emplace_back(std::max<std::size_t>(bytes, 1), '\x5a');
        return memory->buffers.back();
    };
    memory->buffers.reserve(5);
    std::string format = of.format;
    ArrowArray made{};
    if (how.dictionary) {
        column_data entries{"", of.format, {}};
        entries.values.push_back(sort_of_format(of.format) == sort_of::text
                                     ? cell::of_text("an entry of no row")
                                 : sort_of_format(of.format) == sort_of::real ? cell::of_real(99)
                                                                              : cell::of(1));
        std::int64_t null_entry = -1;
        std::vector<cell> indices(rows);
        for (std::size_t i = rows; i-- > 0;) {
            const cell &value = values[i];
            if (value.is_null()) {
                if (!how.null_in_dictionary || i % 2 == 0)
                    continue;
                if (null_entry < 0) {
                    null_entry = static_cast<std::int64_t>(entries.values.size());
                    entries.values.push_back(cell::null());
                }
                indices[i] = cell::of(null_entry);
                continue;
            }
            // Later rows' values come first, and some values have two entries.
            std::size_t entry = entries.values.size();
            for (std::size_t j = entries.values.size(); i % 5 != 0 && j-- > 1;)
                if (entries.values[j].is == value.is && entries.values[j].whole == value.whole &&
                    std::bit_cast<std::uint64_t>(entries.values[j].real) ==
                        std::bit_cast<std::uint64_t>(value.real) &&
                    entries.values[j].text == value.text)
                    entry = j;
            if (entry == entries.values.size())
                entries.values.push_back(value);
            indices[i] = cell::of(static_cast<wide>(entry));
        }
        memory->dictionary = std::make_unique<ArrowArray>(
            make_array(counted, entries, 0, entries.values.size(), {.offset = how.offset % 3}));
        made.dictionary = memory->dictionary.get();
        values = std::move(indices);
        format = how.index;
    }
    if (format != "n") {
        for (const cell &value : values)
            nulls += value.is_null() ? 1 : 0;
        std::vector<char> &validity = add((rows + 7) / 8);
        for (std::size_t i = 0; i < rows; ++i)
            put_bit(validity, i, !values[i].is_null());
    }
    if (format == "vu" || format == "vz") {
        std::vector<char> &views = add(16 * rows);
        std::vector<char> long_texts;
        for (std::size_t i = 0; i < rows; ++i) {
            if (values[i].is_null())
                continue;
            const std::string &text = values[i].text;
            std::int32_t view[4] = {static_cast<std::int32_t>(text.size()), 0, 0, 0};
            if (text.size() <= 12) {
                std::memcpy(view + 1, text.data(), text.size());
            } else {
                std::memcpy(view + 1, text.data(), 4);
                view[3] = static_cast<std::int32_t>(long_texts.size());
                long_texts.insert(long_texts.end(), text.begin(), text.end());
            }
            std::memcpy(views.data() + 16 * i, view, sizeof view);
        }
        const auto size = static_cast<std::int64_t>(long_texts.size());
        std::vector<char> &texts = add(long_texts.size());
        std::copy(long_texts.begin(), long_texts.end(), texts.begin());
        put(add(8), 0, size);
    } else if (sort_of_format(format) == sort_of::text) {
        const bool large = format == "U" || format == "Z";
        std::vector<char> &offsets = add((rows + 1) * (large ? 8 : 4));
        std::string bytes = "ahead";
        for (std::size_t i = 0; i <= rows; ++i) {
            if (large)
                put(offsets, i, static_cast<std::int64_t>(bytes.size()));
            else
                put(offsets, i, static_cast<std::int32_t>(bytes.size()));
            if (i < rows)
                bytes += values[i].is_null() ? "??" : values[i].text;
        }
        std::vector<char> &texts = add(bytes.size());
        std::copy(bytes.begin(), bytes.end(), texts.begin());
    } else if (format != "n") {
        std::vector<char> &numbers =
            add(format == "b" ? (rows + 7) / 8 : rows * width_of_format(format));
        for (std::size_t i = 0; i < rows; ++i)
            if (!values[i].is_null())
                put_number(numbers, format, i, values[i]);
    }
    for (std::size_t i = 0; i < memory->buffers.size(); ++i)
        memory->places.push_back(i == 0 && nulls == 0 ? nullptr : memory->buffers[i].data());
    made.length = static_cast<std::int64_t>(end - begin);
    made.null_count = format == "n" ? made.length : !how.count_nulls ? -1 : nulls;
    // Nulls before the offset are none of the array.
    made.offset = how.offset;
    made.n_buffers = static_cast<std::int64_t>(memory->places.size());
    made.buffers = memory->places.data();
    made.release = release_array;
    made.private_data = counted.open([memory] {
        if (memory->dictionary != nullptr && memory->dictionary->release != nullptr)
            memory->dictionary->release(memory->dictionary.get());
        delete memory;
    });
    return made;
}

struct schema_memory {
    std::string format;
    std::string name;
    std::unique_ptr<ArrowSchema> dictionary;
    std::vector<std::unique_ptr<ArrowSchema>> children;
    std::vector<ArrowSchema *> places;
};

inline void release_schema(ArrowSchema *schema) {
    ledger::close(schema->private_data);
    schema->release = nullptr;
}

inline ArrowSchema finish_schema(ledger &counted, schema_memory *memory) {
    ArrowSchema made{};
    made.format = memory->format.c_str();
    made.name = memory->name.c_str();
    made.flags = ARROW_FLAG_NULLABLE;
    made.dictionary = memory->dictionary.get();
    for (const auto &child : memory->children)
        memory->places.push_back(child.get());
    made.n_children = static_cast<std::int64_t>(memory->places.size());
    made.children = memory->places.data();
    made.release = release_schema;
    made.private_data = counted.open([memory] {
        for (const auto &child : memory->children)
            if (child->release != nullptr)
                child->release(child.get());
        if (memory->dictionary != nullptr && memory->dictionary->release != nullptr)
            memory->dictionary->release(memory->dictionary.get());
        delete memory;
    });
    return made;
}

inline ArrowSchema make_schema(ledger &counted, const column_data &of,
                               const array_layout &how = {}) {
    auto *const memory = new schema_memory;
    memory->name = of.name;
    memory->format = how.dictionary ? how.index : of.format;
    if (how.dictionary)
        memory->dictionary =
            std::make_unique<ArrowSchema>(make_schema(counted, {"", of.format, {}}));
    return finish_schema(counted, memory);
}

// ---- streams ------------------------------------------------------------------------------------

struct table_layout {
    std::vector<array_layout> columns; // empty: plain
    std::vector<std::size_t> batches;  // rows of each; empty: all in one
    std::int64_t offset = 0;           // of the records
    int fails_at = -1;                 // the batch whose call gives an error
    bool fails_at_schema = false;
};

struct table_data {
    std::vector<column_data> columns;
    std::size_t rows() const { return columns.empty() ? 0 : columns.front().values.size(); }
};

struct stream_state {
    ledger &counted;
    table_data data;
    table_layout how;
    std::size_t next = 0;
    std::size_t row = 0;
    ledger::entry *entry = nullptr;
    // Told of each batch before it is given.
    std::function<void(ArrowArray &)> spoil;
    std::function<void(ArrowSchema &)> spoil_schema;

    array_layout layout(std::size_t column) const {
        array_layout own = column < how.columns.size() ? how.columns[column] : array_layout{};
        return own;
    }
};

inline ArrowArray make_batch(stream_state &of, std::size_t begin, std::size_t end) {
    auto *const memory = new array_memory;
    memory->places.push_back(nullptr);
    for (std::size_t i = 0; i < of.data.columns.size(); ++i) {
        // The record's offset goes on top of the columns' own.
        array_layout how = of.layout(i);
        how.offset += of.how.offset;
        ArrowArray child = make_array(of.counted, of.data.columns[i], begin, end, how);
        child.offset -= of.how.offset;
        child.length += of.how.offset;
        if (child.null_count >= 0 && of.how.offset > 0)
            child.null_count = -1;
        memory->children.push_back(std::make_unique<ArrowArray>(child));
        memory->child_places.push_back(memory->children.back().get());
    }
    ArrowArray made{};
    made.length = static_cast<std::int64_t>(end - begin);
    made.offset = of.how.offset;
    made.n_buffers = 1;
    made.buffers = memory->places.data();
    made.n_children = static_cast<std::int64_t>(memory->child_places.size());
    made.children = memory->child_places.data();
    made.release = release_array;
    made.private_data = of.counted.open([memory] {
        for (const auto &child : memory->children)
            if (child->release != nullptr)
                child->release(child.get());
        delete memory;
    });
    return made;
}

inline stream_state &state_of(ArrowArrayStream *stream) {
    return *static_cast<stream_state *>(stream->private_data);
}

inline ArrowArrayStream make_stream(ledger &counted, table_data data, table_layout how = {},
                                    std::function<void(ArrowArray &)> spoil = {},
                                    std::function<void(ArrowSchema &)> spoil_schema = {}) {
    if (how.batches.empty())
        how.batches.push_back(data.rows());
    auto *const state = new stream_state{counted, std::move(data),  std::move(how),         0, 0,
                                         nullptr, std::move(spoil), std::move(spoil_schema)};
    state->entry = counted.open([state] { delete state; });
    ArrowArrayStream made{};
    made.private_data = state;
    made.get_schema = [](ArrowArrayStream *stream, ArrowSchema *out) {
        stream_state &of = state_of(stream);
        if (of.how.fails_at_schema)
            return EIO;
        auto *const memory = new schema_memory;
        memory->format = "+s";
        for (std::size_t i = 0; i < of.data.columns.size(); ++i)
            memory->children.push_back(std::make_unique<ArrowSchema>(
                make_schema(of.counted, of.data.columns[i], of.layout(i))));
        *out = finish_schema(of.counted, memory);
        if (of.spoil_schema)
            of.spoil_schema(*out);
        return 0;
    };
    made.get_next = [](ArrowArrayStream *stream, ArrowArray *out) {
        stream_state &of = state_of(stream);
        *out = {};
        if (static_cast<int>(of.next) == of.how.fails_at)
            return EIO;
        if (of.next == of.how.batches.size())
            return 0;
        const std::size_t end = of.row + of.how.batches[of.next++];
        *out = make_batch(of, of.row, end);
        of.row = end;
        if (of.spoil)
            of.spoil(*out);
        return 0;
    };
    made.get_last_error = [](ArrowArrayStream *) -> const char * { return "the disk is gone"; };
    made.release = [](ArrowArrayStream *stream) {
        ledger::close(state_of(stream).entry);
        stream->release = nullptr;
    };
    return made;
}

// ---- calls --------------------------------------------------------------------------------------

struct table_deleter {
    void operator()(vask_table *table) const { vask_table_free(table); }
};
struct result_deleter {
    void operator()(vask_result *result) const { vask_result_free(result); }
};
using table_pointer = std::unique_ptr<vask_table, table_deleter>;
using result_pointer = std::unique_ptr<vask_result, result_deleter>;

struct outcome {
    int code = VASK_OK;
    std::string text;
};

// Takes the text of a call; a failure has one, a success none. The reference is read after the
// call.
inline outcome take(int code, char *const &error) {
    outcome made{code, error == nullptr ? "" : error};
    vask_free_text(error);
    EXPECT_EQ(code == VASK_OK, made.text.empty()) << code << ": " << made.text;
    return made;
}

inline table_pointer import_stream(ArrowArrayStream stream, outcome *told = nullptr) {
    vask_table *table = nullptr;
    char *error = nullptr;
    const outcome result = take(vask_table_from_stream(&stream, &table, &error), error);
    EXPECT_EQ(stream.release, nullptr) << "a stream that was taken over looks unreleased";
    if (told != nullptr)
        *told = result;
    else
        EXPECT_EQ(result.code, VASK_OK) << result.text;
    EXPECT_EQ(result.code == VASK_OK, table != nullptr);
    return table_pointer(table);
}

inline table_pointer import_table(ledger &counted, const table_data &data,
                                  const table_layout &how = {}) {
    return import_stream(make_stream(counted, data, how));
}

// ---- results ------------------------------------------------------------------------------------

inline bool bit_at(const void *bits, std::int64_t at) {
    return ((static_cast<const std::uint8_t *>(bits)[at >> 3] >> (at & 7)) & 1) != 0;
}

inline column_data read_array(const ArrowSchema &schema, const ArrowArray &array) {
    column_data made{schema.name == nullptr ? "" : schema.name, schema.format, {}};
    const std::string format = schema.format;
    std::int64_t nulls = 0;
    EXPECT_EQ(array.offset, 0);
    EXPECT_EQ(array.n_buffers, format == "n" ? 0 : sort_of_format(format) == sort_of::text ? 3 : 2);
    for (std::int64_t row = 0; row < array.length; ++row) {
        if (format == "n" || (array.buffers[0] != nullptr && !bit_at(array.buffers[0], row))) {
            made.values.push_back(cell::null());
            ++nulls;
            continue;
        }
        const char *const values = static_cast<const char *>(array.buffers[1]);
        if (sort_of_format(format) == sort_of::text) {
            std::int64_t ends[2];
            for (int i = 0; i < 2; ++i) {
                std::int32_t narrow = 0;
                if (format == "U" || format == "Z") {
                    std::memcpy(&ends[i], values + 8 * (row + i), 8);
                } else {
                    std::memcpy(&narrow, values + 4 * (row + i), 4);
                    ends[i] = narrow;
                }
            }
            made.values.push_back(
                cell::of_text({static_cast<const char *>(array.buffers[2]) + ends[0],
                               static_cast<std::size_t>(ends[1] - ends[0])}));
        } else if (format == "b") {
            made.values.push_back(cell::of(bit_at(values, row) ? 1 : 0));
        } else if (format == "f") {
            float value = 0;
            std::memcpy(&value, values + 4 * row, 4);
            made.values.push_back(cell::of_real(value));
        } else if (format == "g") {
            double value = 0;
            std::memcpy(&value, values + 8 * row, 8);
            made.values.push_back(cell::of_real(value));
        } else {
            const std::size_t width = width_of_format(format);
            wide value = 0;
            std::memcpy(&value, values + static_cast<std::size_t>(row) * width, width);
            const bool is_unsigned =
                format == "C" || format == "S" || format == "I" || format == "L";
            if (!is_unsigned && width < 16) {
                const auto unused = static_cast<int>(128 - 8 * width);
                value = static_cast<wide>(static_cast<unsigned_wide>(value) << unused) >> unused;
            }
            made.values.push_back(cell::of(value));
        }
    }
    EXPECT_EQ(array.null_count, nulls) << made.name;
    return made;
}

// All of a result; the stream's records are released.
inline table_data read_stream(ArrowArrayStream &stream) {
    table_data made;
    ArrowSchema schema{};
    ArrowArray array{};
    EXPECT_EQ(stream.get_schema(&stream, &schema), 0);
    EXPECT_STREQ(schema.format, "+s");
    EXPECT_EQ(stream.get_next(&stream, &array), 0);
    EXPECT_EQ(array.n_children, schema.n_children);
    for (std::int64_t i = 0; i < array.n_children; ++i) {
        EXPECT_EQ(array.children[i]->length, array.length);
        made.columns.push_back(read_array(*schema.children[i], *array.children[i]));
    }
    array.release(&array);
    EXPECT_EQ(array.release, nullptr) << "a batch that was released looks unreleased";
    EXPECT_EQ(stream.get_next(&stream, &array), 0);
    EXPECT_EQ(array.release, nullptr) << "one batch";
    // A child that was released before, as by who took it, is not released again.
    if (schema.n_children > 0) {
        schema.children[0]->release(schema.children[0]);
        EXPECT_EQ(schema.children[0]->release, nullptr);
    }
    schema.release(&schema);
    EXPECT_EQ(schema.release, nullptr) << "a schema that was released looks unreleased";
    stream.release(&stream);
    EXPECT_EQ(stream.release, nullptr);
    return made;
}

inline table_data read_result(const vask_result *result) {
    ArrowArrayStream stream{};
    char *error = nullptr;
    const outcome told = take(vask_result_stream(result, &stream, &error), error);
    EXPECT_EQ(told.code, VASK_OK) << told.text;
    table_data made = read_stream(stream);
    EXPECT_EQ(vask_result_rows(result), static_cast<std::int64_t>(made.rows()));
    return made;
}

// ---- queries ------------------------------------------------------------------------------------

struct wanted {
    std::string function;
    std::vector<std::string> columns;
    double parameter = 0;
    std::string as;
};

struct asked_query {
    std::vector<std::string> by;
    std::vector<wanted> functions;
    unsigned flags = 0;
    int partitions = 0;
};

// A query's record and what it points to.
class query_record {
public:
    explicit query_record(const asked_query &of) : of_(of) {
        for (const std::string &key : of_.by)
            by_.push_back(key.c_str());
        for (const wanted &each : of_.functions) {
            vask_aggregate made{};
            made.function = each.function.c_str();
            for (std::size_t i = 0; i < each.columns.size(); ++i)
                made.columns[i] = each.columns[i].c_str();
            made.parameter = each.parameter;
            made.as = each.as.empty() ? nullptr : each.as.c_str();
            aggregates_.push_back(made);
        }
        record.size = sizeof record;
        record.aggregate_size = sizeof(vask_aggregate);
        record.by = by_.data();
        record.n_by = by_.size();
        record.aggregates = aggregates_.data();
        record.n_aggregates = aggregates_.size();
        record.flags = of_.flags;
        record.partitions = of_.partitions;
    }
    query_record(const query_record &) = delete;
    query_record &operator=(const query_record &) = delete;

    vask_query record{};

private:
    asked_query of_;
    std::vector<const char *> by_;
    std::vector<vask_aggregate> aggregates_;
};

inline outcome run(const vask_table *table, const asked_query &asked, result_pointer &result) {
    const query_record query(asked);
    vask_result *made = nullptr;
    char *error = nullptr;
    const outcome told = take(vask_run(table, &query.record, &made, &error), error);
    result.reset(made);
    return told;
}

inline table_data run(const vask_table *table, const asked_query &asked) {
    result_pointer result;
    const outcome told = run(table, asked, result);
    EXPECT_EQ(told.code, VASK_OK) << told.text;
    return told.code == VASK_OK ? read_result(result.get()) : table_data{};
}

inline std::string shown(const column_data &of) {
    std::string text = of.name;
    text.append(" (").append(of.format).append("):");
    for (const cell &value : of.values)
        text.append(" ").append(shown(value));
    return text;
}

inline std::string shown(const table_data &of) {
    std::string text;
    for (const column_data &column : of.columns)
        text.append(shown(column)).append("\n");
    return text;
}

} // namespace vask_test
