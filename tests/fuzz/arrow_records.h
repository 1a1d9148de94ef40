// Arrow arrays and schemas as a faulty or hostile producer makes them. What the interface has no
// way to tell is true: every buffer has the bytes that the array's length, offset and format call
// for, and not one more, so that a sanitizer sees a step behind it.
#pragma once

#include "fuzz_target.h"

#include "vask/vask.h"

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace fuzz {

//! Records that were handed over and not yet released.
inline std::atomic<int> records_held{0};

//! What one record of the outermost level and all below it lie in.
struct record_memory {
    record_memory() { ++records_held; }
    record_memory(const record_memory &) = delete;
    record_memory &operator=(const record_memory &) = delete;
    ~record_memory() { --records_held; }

    std::vector<std::unique_ptr<char[]>> blocks;
    std::vector<std::unique_ptr<const void *[]>> lists;
    std::vector<std::unique_ptr<ArrowArray>> arrays;
    std::vector<std::unique_ptr<ArrowSchema>> schemas;
    std::vector<std::unique_ptr<std::vector<ArrowArray *>>> array_lists;
    std::vector<std::unique_ptr<std::vector<ArrowSchema *>>> schema_lists;
    std::vector<std::unique_ptr<std::string>> texts;

    char *block(std::size_t bytes) {
        blocks.push_back(std::make_unique<char[]>(bytes));
        return blocks.back().get();
    }
    const char *text(std::string of) {
        texts.push_back(std::make_unique<std::string>(std::move(of)));
        return texts.back()->c_str();
    }
};

template <class Record>
void release_whole(Record *record) {
    auto *const memory = static_cast<record_memory *>(record->private_data);
    record->release = nullptr;
    delete memory;
}
//! Of a record below another one: that one frees it.
template <class Record>
void release_part(Record *record) {
    record->release = nullptr;
}

inline std::size_t width_of(const std::string &format) {
    if (format == "c" || format == "C")
        return 1;
    if (format == "s" || format == "S" || format == "e")
        return 2;
    if (format == "i" || format == "I" || format == "f" || format == "tdD" || format == "tts" ||
        format == "ttm")
        return 4;
    return format.starts_with("d:") || format.starts_with("v") ? 16 : 8;
}

inline bool has_offsets(const std::string &format) {
    return format == "u" || format == "z" || format == "U" || format == "Z";
}

inline std::string any_format(byte_source &in) {
    if (in.one_in(24))
        return in.text(in.below(8));
    return in.one_of<const char *>({"c",      "C",
                                    "s",      "S",
                                    "i",      "I",
                                    "l",      "L",
                                    "f",      "g",
                                    "b",      "u",
                                    "U",      "z",
                                    "Z",      "vu",
                                    "vz",     "u",
                                    "l",      "g",
                                    "tdD",    "tdm",
                                    "tts",    "ttm",
                                    "ttu",    "ttn",
                                    "tss:",   "tsm:",
                                    "tsu:",   "tsn:",
                                    "tDs",    "tDn",
                                    "n",      "i",
                                    "d:9,2",  "d:38,5",
                                    "d:5,-2", "d:99999999999,1",
                                    "d:",     "tsu:Europe/Oslo",
                                    "tsx",    "ts",
                                    "e",      "w:4",
                                    "+s",     "+l",
                                    "",       "tsu:\xff\x01"});
}

inline std::int64_t refused_number(byte_source &in) {
    return in.one_of<std::int64_t>({-1, std::numeric_limits<std::int64_t>::min(),
                                    std::numeric_limits<std::int64_t>::max(),
                                    std::numeric_limits<std::int64_t>::max() - 1});
}

//! Offsets of texts that mostly ascend, and their bytes. The last offset is true.
template <class T>
void make_texts(byte_source &in, record_memory &memory, std::size_t positions,
                const void **buffers) {
    auto *const offsets = reinterpret_cast<T *>(memory.block((positions + 1) * sizeof(T)));
    T end = static_cast<T>(in.below(4));
    for (std::size_t i = 0; i <= positions; ++i) {
        offsets[i] = end;
        if (i < positions)
            end = static_cast<T>(end + static_cast<T>(in.below(in.one_in(8) ? 40 : 4)));
    }
    if (in.one_in(4) && positions > 0) // one that does not fit among the others
        offsets[in.below(positions)] =
            in.one_in(2) ? static_cast<T>(in.take<T>()) : static_cast<T>(end + 1);
    buffers[1] = offsets;
    buffers[2] = nullptr;
    if (end > 0) {
        char *const bytes = memory.block(static_cast<std::size_t>(end));
        in.take_into(bytes, static_cast<std::size_t>(end));
        buffers[2] = bytes;
    }
}

struct view {
    std::int32_t size;
    std::int32_t words[3];
};

//! Views of texts, some of which point anywhere. Gives the number of buffers behind them.
inline std::size_t make_views(byte_source &in, record_memory &memory, std::size_t positions,
                              const void **buffers) {
    const std::size_t texts = in.below(3);
    auto *const sizes =
        texts > 0 ? reinterpret_cast<std::int64_t *>(memory.block(8 * texts)) : nullptr;
    for (std::size_t i = 0; i < texts; ++i) {
        sizes[i] = static_cast<std::int64_t>(in.below(60));
        char *const bytes = memory.block(static_cast<std::size_t>(sizes[i]));
        in.take_into(bytes, static_cast<std::size_t>(sizes[i]));
        buffers[2 + i] = bytes;
        if (in.one_in(32))
            sizes[i] = -sizes[i];
        else if (in.one_in(32))
            buffers[2 + i] = nullptr;
    }
    if (texts > 0)
        buffers[2 + texts] = sizes;
    char *const views = memory.block(16 * positions);
    for (std::size_t i = 0; i < positions; ++i) {
        view made{};
        switch (in.below(4)) {
            case 0:
            case 1: // short ones
                made.size = static_cast<std::int32_t>(in.below(13));
                in.take_into(made.words, sizeof made.words);
                break;
            case 2: { // long ones within their buffer
                made.size = static_cast<std::int32_t>(13 + in.below(8));
                const std::size_t buffer = in.below(std::max<std::size_t>(texts, 1));
                made.words[1] = static_cast<std::int32_t>(buffer);
                made.words[2] = static_cast<std::int32_t>(in.below(48));
                if (buffer < texts && sizes[buffer] >= made.words[2] + 4 &&
                    buffers[2 + buffer] != nullptr)
                    std::memcpy(made.words,
                                static_cast<const char *>(buffers[2 + buffer]) + made.words[2], 4);
                break;
            }
            default:
                in.take_into(&made, sizeof made);
        }
        std::memcpy(views + 16 * i, &made, sizeof made);
    }
    buffers[1] = views;
    return texts > 0 ? texts + 1 : 0;
}

//! An array of a format, with `memory` for all that it points to.
inline void make_array(byte_source &in, record_memory &memory, const ArrowSchema &schema,
                       std::size_t rows, ArrowArray &made) {
    made = {};
    made.release = release_part<ArrowArray>;
    made.length = static_cast<std::int64_t>(in.one_in(16) ? in.below(24) : rows);
    made.offset = static_cast<std::int64_t>(in.one_in(4) ? in.below(24) : 0);
    const auto positions = static_cast<std::size_t>(made.length + made.offset);
    const std::string format = schema.format == nullptr ? "" : schema.format;
    const bool null = format == "n";
    std::size_t n_buffers = null ? 0 : has_offsets(format) ? 3 : 2;
    constexpr std::size_t most_buffers = 8;
    const void *buffers[most_buffers] = {};
    if (!null) {
        if (!in.one_in(3)) {
            char *const bits = memory.block((positions + 7) / 8);
            if (in.one_in(2))
                in.take_into(bits, (positions + 7) / 8);
            else
                std::memset(bits, 0xff, (positions + 7) / 8);
            buffers[0] = bits;
        }
        if (format == "u" || format == "z") {
            make_texts<std::int32_t>(in, memory, positions, buffers);
        } else if (format == "U" || format == "Z") {
            make_texts<std::int64_t>(in, memory, positions, buffers);
        } else if (format == "vu" || format == "vz") {
            n_buffers += make_views(in, memory, positions, buffers);
        } else {
            const std::size_t bytes =
                format == "b" ? (positions + 7) / 8 : positions * width_of(format);
            char *const values = memory.block(bytes);
            const std::uint64_t kind = in.below(3);
            if (kind == 0) // anything
                in.take_into(values, bytes);
            for (std::size_t i = 0; kind != 0 && i < bytes; i += width_of(format))
                values[i] = static_cast<char>(in.below(kind == 1 ? 4 : 100)); // few, and small
            buffers[1] = values;
        }
    }
    made.null_count = in.one_of<std::int64_t>({-1, -1, 0, 1, 5, made.length});
    if (schema.dictionary != nullptr && !in.one_in(32)) {
        memory.arrays.push_back(std::make_unique<ArrowArray>());
        ArrowArray &entries = *memory.arrays.back();
        make_array(in, memory, *schema.dictionary, in.below(6), entries);
        made.dictionary = &entries;
    }
    if (in.one_in(32)) // some buffers are missing
        n_buffers = in.below(n_buffers + 1);
    if (in.one_in(64) && n_buffers > 0)
        buffers[in.below(n_buffers)] = nullptr;
    memory.lists.push_back(std::make_unique<const void *[]>(n_buffers));
    std::copy_n(buffers, n_buffers, memory.lists.back().get());
    made.buffers = memory.lists.back().get();
    made.n_buffers = static_cast<std::int64_t>(n_buffers);
    if (in.one_in(64))
        made.n_buffers = -made.n_buffers;
    if (in.one_in(64))
        made.buffers = nullptr;
    if (in.one_in(64))
        (in.one_in(2) ? made.length : made.offset) = refused_number(in);
}

inline void make_schema(byte_source &in, record_memory &memory, ArrowSchema &made, const char *name,
                        int depth = 0) {
    made = {};
    made.release = release_part<ArrowSchema>;
    made.name = name;
    made.flags = in.take<std::uint8_t>() & 7;
    if (depth < 3 && in.one_in(5)) {
        memory.schemas.push_back(std::make_unique<ArrowSchema>());
        ArrowSchema &values = *memory.schemas.back();
        make_schema(in, memory, values, nullptr, depth + 1);
        made.dictionary = &values;
        made.format = memory.text(
            in.one_of<const char *>({"c", "C", "s", "S", "i", "I", "l", "L", "i", "b", "g", "u"}));
        return;
    }
    made.format = in.one_in(128) ? nullptr : memory.text(any_format(in));
}

//! The stream that hands out a schema and batches; each of them can be asked for once.
struct stream_memory {
    ArrowSchema schema{};
    std::vector<ArrowArray> batches;
    std::size_t next = 0;
    int fails = 0;     //!< the code of the call that fails
    int fails_at = -1; //!< -1: the schema's

    stream_memory() { ++records_held; }
    stream_memory(const stream_memory &) = delete;
    stream_memory &operator=(const stream_memory &) = delete;
    ~stream_memory() {
        if (schema.release != nullptr)
            schema.release(&schema);
        for (ArrowArray &batch : batches)
            if (batch.release != nullptr)
                batch.release(&batch);
        --records_held;
    }

    static ArrowArrayStream stream(std::unique_ptr<stream_memory> of) {
        ArrowArrayStream made{};
        made.get_schema = [](ArrowArrayStream *from, ArrowSchema *out) {
            auto &own = *static_cast<stream_memory *>(from->private_data);
            if (own.fails != 0 && own.fails_at < 0)
                return own.fails;
            *out = own.schema;
            own.schema.release = nullptr;
            return 0;
        };
        made.get_next = [](ArrowArrayStream *from, ArrowArray *out) {
            auto &own = *static_cast<stream_memory *>(from->private_data);
            if (own.fails != 0 && own.fails_at == static_cast<int>(own.next))
                return own.fails;
            *out = {};
            if (own.next < own.batches.size()) {
                *out = own.batches[own.next];
                own.batches[own.next++].release = nullptr;
            }
            return 0;
        };
        made.get_last_error = [](ArrowArrayStream *) -> const char * { return nullptr; };
        made.release = [](ArrowArrayStream *from) {
            delete static_cast<stream_memory *>(from->private_data);
            from->release = nullptr;
        };
        made.private_data = of.release();
        return made;
    }
};

//! The text of a call's error is there exactly when the call failed. The reference is read after
//! the call.
inline bool succeeded(int code, char *const &error) {
    require((code == VASK_OK) == (error == nullptr),
            "a code without a text, or a text without one");
    require(error == nullptr || *error != '\0', "the text of an error is empty");
    if (error != nullptr)
        require(code != VASK_FAILED || std::strstr(error, "the stream failed") != nullptr, error);
    vask_free_text(error);
    return code == VASK_OK;
}

//! Looks at every byte of a result: a sanitizer judges.
inline std::uint64_t read_whole(const vask_result *result) {
    ArrowArrayStream stream{};
    char *error = nullptr;
    std::uint64_t sum = 0;
    if (!succeeded(vask_result_stream(result, &stream, &error), error))
        return 0;
    ArrowSchema schema{};
    ArrowArray batch{};
    require(stream.get_schema(&stream, &schema) == 0, "a result has no schema");
    require(stream.get_next(&stream, &batch) == 0, "a result has no batch");
    require(batch.n_children == schema.n_children, "a result's columns are not its schema's");
    for (std::int64_t c = 0; c < batch.n_children; ++c) {
        const ArrowArray &column = *batch.children[c];
        const std::string format = schema.children[c]->format;
        require(column.length == batch.length, "a result's column is too short");
        require(column.length == vask_result_rows(result), "a result has other rows");
        if (format == "n")
            continue;
        const auto rows = static_cast<std::size_t>(column.length);
        const auto add = [&](const void *bytes, std::size_t size) {
            for (std::size_t i = 0; i < size; ++i)
                sum = sum * 31 + static_cast<const std::uint8_t *>(bytes)[i];
        };
        if (column.buffers[0] != nullptr)
            add(column.buffers[0], (rows + 7) / 8);
        if (has_offsets(format)) {
            const bool wide = format == "U" || format == "Z";
            add(column.buffers[1], (rows + 1) * (wide ? 8 : 4));
            std::int64_t last = 0;
            if (wide)
                last = static_cast<const std::int64_t *>(column.buffers[1])[rows];
            else
                last = static_cast<const std::int32_t *>(column.buffers[1])[rows];
            require(last >= 0, "a result's text has no length");
            add(column.buffers[2], static_cast<std::size_t>(last));
        } else {
            add(column.buffers[1], format == "b" ? (rows + 7) / 8 : rows * width_of(format));
        }
    }
    batch.release(&batch);
    schema.release(&schema);
    stream.release(&stream);
    return sum;
}

//! A query whose names and numbers come from the input.
class any_query {
public:
    any_query(byte_source &in, const std::vector<std::string> &columns) {
        const auto name = [&]() -> const char * {
            if (columns.empty() || in.one_in(48))
                return in.one_in(2) ? nullptr : "no such column";
            return columns[in.below(columns.size())].c_str();
        };
        for (std::uint64_t n = in.below(4); n > 0; --n)
            by_.push_back(name());
        for (std::uint64_t n = in.below(4); n > 0; --n) {
            vask_aggregate made{};
            made.function = in.one_of<const char *>({"size",
                                                     "first_row",
                                                     "count",
                                                     "count_nulls",
                                                     "count_distinct",
                                                     "sum",
                                                     "mean",
                                                     "min",
                                                     "max",
                                                     "range",
                                                     "stdev",
                                                     "stdevp",
                                                     "variance",
                                                     "variancep",
                                                     "skews",
                                                     "skewp",
                                                     "median",
                                                     "quantile",
                                                     "quartile",
                                                     "iqr",
                                                     "mad",
                                                     "largest",
                                                     "mode",
                                                     "covars",
                                                     "covarp",
                                                     "correl",
                                                     "slope",
                                                     "intercept",
                                                     "weighted_mean",
                                                     "first",
                                                     "last",
                                                     "any",
                                                     "medain",
                                                     ""});
            const std::string called = made.function;
            const bool pair = called.starts_with("co") && called.find("count") != 0;
            if (called != "size" && called != "first_row")
                made.columns[0] = name();
            if (pair || called == "slope" || called == "intercept" || called == "weighted_mean" ||
                in.one_in(64))
                made.columns[1] = name();
            if (called.starts_with("qua") || called == "largest" || in.one_in(64))
                made.parameter = in.one_of<double>({0, 0.25, 0.5, 1, 2, 3, -1, 1e300,
                                                    std::numeric_limits<double>::quiet_NaN(),
                                                    -std::numeric_limits<double>::infinity()});
            titles_.emplace_back(1, static_cast<char>('q' + n));
            aggregates_.push_back(made);
        }
        for (std::size_t i = 0; i < aggregates_.size(); ++i)
            aggregates_[i].as = in.one_in(16) ? nullptr : titles_[i].c_str();
        record.size = sizeof record;
        record.aggregate_size = sizeof(vask_aggregate);
        record.by = by_.data();
        record.n_by = by_.size();
        record.aggregates = aggregates_.data();
        record.n_aggregates = aggregates_.size();
        record.flags = in.take<std::uint8_t>() & (in.one_in(64) ? 255U : 63U);
        record.partitions = in.one_of<int>({0, 0, 1, 2, 3, 256, 257, -1});
    }
    any_query(const any_query &) = delete;
    any_query &operator=(const any_query &) = delete;

    vask_query record{};

private:
    std::vector<const char *> by_;
    std::vector<std::string> titles_;
    std::vector<vask_aggregate> aggregates_;
};

} // namespace fuzz
